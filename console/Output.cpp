#include "Output.h"

#include "Position.h"
#include "Printable.h"
#include "System.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <utility>

namespace ffdhost {

namespace {

constexpr std::chrono::seconds kPatience(1); // how long nothing need be shown

void clear_line(std::string const& label) {
    std::fprintf(stderr, "\r%*s\r", static_cast<int>(label.size() + 8), "");
}

size_t g_drawn = 0; // letters of the status line on the terminal

void clear_status_line() {
    if (g_drawn > 0) {
        std::fprintf(stderr, "\r%*s\r", static_cast<int>(g_drawn), "");
        g_drawn = 0;
    }
}

bool wants_colour(Stream stream) {
    char const* const noColour = std::getenv("NO_COLOR");
    return (noColour == nullptr || *noColour == '\0') && terminal_has_colours(stream);
}

// The name of the program, before what it has to complain about.
char const* program_name(bool failed) {
    if (!wants_colour(Stream::Error)) {
        return "ffdhost:";
    }
    return failed ? "\033[1;31mffdhost:\033[0m" : "\033[1;33mffdhost:\033[0m";
}

} // namespace

bool stdout_wants_colour() {
    return wants_colour(Stream::Output);
}

void print_document(Json const& document) {
    Json versioned = {{"version", kJsonVersion}};
    versioned.update(document);
    std::string const text = versioned.dump(2, ' ', false, Json::error_handler_t::replace);
    std::cout << printable_json(text) << '\n' << std::flush;
}

void print_line(std::string const& name, std::string const& value) {
    std::cout << std::left << std::setw(14) << name << "  " << printable(value) << '\n'
              << std::flush;
}

void print_table(std::vector<std::vector<std::string>> rows) {
    std::vector<size_t> widths;
    for (auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            row[i] = printable(row[i]);
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (auto const& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            std::cout << (i == 0 ? "" : "  ") << std::right
                      << std::setw(static_cast<int>(widths[i])) << row[i];
        }
        std::cout << '\n';
    }
    std::cout << std::flush;
}

void print_warning(std::string const& words) {
    clear_status_line();
    std::cerr << program_name(false) << " warning: " << printable(words) << std::endl;
}

Json status_json(FFDError status) {
    return {{"status", status}, {"name", status_text(status).name}};
}

Json failure_json(Failure const& failure) {
    return {{"operation", failure.operation()}, {"file", failure.file()},
            {"status", failure.status()},       {"name", status_text(failure.status()).name},
            {"message", failure.what()},        {"advice", failure.advice()}};
}

void print_failure(Failure const& failure) {
    clear_status_line();
    std::string const file = failure.file().empty() ? "" : printable(failure.file()) + ": ";
    std::cerr << program_name(true) << ' ' << file << printable(failure.what()) << '\n'
              << "  " << failure.operation() << " failed: " << status_text(failure.status()).name
              << " (" << failure.status() << ")\n"
              << "  " << printable(failure.advice()) << std::endl;
}

bool stdout_is_written() {
    return std::cout.flush().good();
}

Failure stdout_failure() {
    return {"write output", "standard output", FFD_FILE_IO_ERROR,
            "the result cannot be written; what was to be done is done",
            "Check where standard output leads to, and that the disk is not full."};
}

void count_left_out(Json& rows, uint64_t count) {
    if (count > 0) {
        rows.push_back({{"left_out", count}});
    }
}

bool is_left_out(Json const& row) {
    return row.contains("left_out");
}

std::string left_out_text(Json const& row) {
    return "and " + std::to_string(row["left_out"].get<uint64_t>()) + " more";
}

std::string bytes_text(uint64_t byteCount) {
    return std::to_string(byteCount) + (byteCount == 1 ? " byte" : " bytes");
}

std::string length_text(uint64_t byteCount, uint32_t bytesPerSecond) {
    return length_text(length_json(byteCount, bytesPerSecond));
}

std::string length_text(Json const& length) {
    return length["time"].get<std::string>() + " (" + bytes_text(length["bytes"]) + ")";
}

Json length_json(uint64_t byteCount, uint32_t bytesPerSecond) {
    uint64_t const milliseconds = milliseconds_of(byteCount, bytesPerSecond);
    return {
        {"bytes", byteCount}, {"milliseconds", milliseconds}, {"time", time_text(milliseconds)}};
}

Progress::Progress(std::string label, uint64_t total)
    : m_label(std::move(label)), m_total(total), m_watched(total > 0 && is_terminal(Stream::Error)),
      m_nextShown(std::chrono::steady_clock::now() + kPatience) {}

Progress::~Progress() {
    if (m_shown) {
        clear_line(m_label);
    }
}

void Progress::advance(uint64_t count) {
    m_done += count;
    auto const now = std::chrono::steady_clock::now();
    if (m_watched && now >= m_nextShown) {
        m_shown = true;
        m_nextShown = now + std::chrono::milliseconds(100);
        std::fprintf(stderr, "\r%s  %3u %%", m_label.c_str(),
                     static_cast<unsigned>(m_done * 100 / m_total));
    }
}

StatusLine::StatusLine()
    : m_watched(is_terminal(Stream::Error)),
      m_next(std::chrono::steady_clock::now() +
             (m_watched ? std::chrono::minutes(0) : std::chrono::minutes(1))) {}

StatusLine::~StatusLine() {
    if (std::exchange(g_drawn, 0) > 0) {
        std::fputc('\n', stderr);
    }
}

bool StatusLine::due() const {
    return std::chrono::steady_clock::now() >= m_next;
}

void StatusLine::show(std::string const& text) {
    auto const now = std::chrono::steady_clock::now();
    if (!m_watched) {
        m_next = now + std::chrono::minutes(1);
        std::fprintf(stderr, "%s\n", text.c_str());
        return;
    }
    m_next = now + std::chrono::milliseconds(250);
    int const missing = static_cast<int>(g_drawn) - static_cast<int>(text.size());
    std::fprintf(stderr, "\r%s%*s", text.c_str(), std::max(missing, 0), "");
    g_drawn = text.size();
}

Waiting::Waiting(std::string label) {
    if (!is_terminal(Stream::Error)) {
        return;
    }
    m_thread = std::thread([this, label = std::move(label)] {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, kPatience, [this] { return m_done; })) {
            std::fprintf(stderr, "\r%s ...", label.c_str());
            m_changed.wait(lock, [this] { return m_done; });
            clear_line(label);
        }
    });
}

Waiting::~Waiting() {
    if (m_thread.joinable()) {
        {
            std::lock_guard const lock(m_mutex);
            m_done = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
}

} // namespace ffdhost
