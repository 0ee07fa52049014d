// How results, failures and progress reach the user.
#pragma once

#include "Status.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ffdhost {

using Json = nlohmann::ordered_json;

// A list that is shown ends here, with the count of what is left out: a hostile file could make it
// as long as it likes.
constexpr size_t kMostRows = 10000;

constexpr int kExitFailed = 1; // an operation did not work
constexpr int kExitUsage = 2;  // the command line is wrong; nothing was done
constexpr int kExitCrash = 3;  // the operation 'crash' of edit

// Of the documents: it changes when a field is removed or changes its meaning, not when one is
// added. docs/json.md has the fields.
constexpr int kJsonVersion = 1;

// One document on stdout, with the version in front. Names that are not UTF-8 lose the bytes that
// are not.
void print_document(Json const& document);

// A line of a text result: a name and what belongs to it, the latter aligned. This and what follows
// escapes what it is given (Printable.h).
void print_line(std::string const& name, std::string const& value);

// Columns aligned to the right, the first row being the heading.
void print_table(std::vector<std::vector<std::string>> rows);

void print_warning(std::string const& words);

Json status_json(FFDError status);
Json failure_json(Failure const& failure);
void print_failure(Failure const& failure);

// To be asked at the end: whether all that was printed has arrived.
bool stdout_is_written();
// Of a result that has not.
Failure stdout_failure();

// Ends a list of rows that leaves `count` of them out, with a row that says so; 0: with none.
void count_left_out(Json& rows, uint64_t count);
bool is_left_out(Json const& row); // whether it is that row
std::string left_out_text(Json const& row);

// Bytes as "1234 bytes", and with their time as in "0:01.250 (10000 bytes)".
std::string bytes_text(uint64_t byteCount);
std::string length_text(uint64_t byteCount, uint32_t bytesPerSecond);
Json length_json(uint64_t byteCount, uint32_t bytesPerSecond);
std::string length_text(Json const& length); // of length_json

// Whether a person is watching who sees colours and has not asked for none (NO_COLOR).
bool stdout_wants_colour();

// The progress of one long operation, on stderr, once it takes longer than a second and only if a
// person is watching.
class Progress {
public:
    Progress(std::string label, uint64_t total);
    // Clears the line.
    ~Progress();
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    void advance(uint64_t count);

private:
    std::string m_label;
    uint64_t m_total;
    uint64_t m_done = 0;
    bool const m_watched;
    std::chrono::steady_clock::time_point m_nextShown;
    bool m_shown = false;
};

// A line on stderr that is redrawn on a terminal, and written once a minute elsewhere. Warnings and
// failures do not disturb it.
class StatusLine {
public:
    StatusLine();
    // Ends the line, which stays.
    ~StatusLine();
    StatusLine(StatusLine const&) = delete;
    StatusLine& operator=(StatusLine const&) = delete;

    bool due() const; // for the next text; a few times a second at most
    void show(std::string const& text);

private:
    bool const m_watched;
    std::chrono::steady_clock::time_point m_next;
};

// The same for one call that reports nothing before it is done.
class Waiting {
public:
    explicit Waiting(std::string label);
    // Clears the line.
    ~Waiting();
    Waiting(Waiting const&) = delete;
    Waiting& operator=(Waiting const&) = delete;

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false;
    std::thread m_thread;
};

} // namespace ffdhost
