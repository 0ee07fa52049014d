// Statuses in words, and the one exception type of the host.
#pragma once

#include <ffd.hpp>

#include <stdexcept>
#include <string>
#include <string_view>

namespace ffdhost {

struct StatusText {
    std::string_view name;
    std::string_view meaning;
    char const* advice; // one sentence: what the user can do about it
};

// The words of the system for an error number of the C library, as in "permission denied".
std::string system_words(int error);

// The words of ffd.h. Never fails: a status that it does not name gets a text that says so.
StatusText status_text(FFDError status);

// Behind the reason that a text gives: " (FFD_FILE_IO_ERROR, 29)".
std::string status_suffix(FFDError status);

// An operation on a file that did not work. Faults that the host finds itself before it asks the
// driver carry the status that fits best, with words and advice of their own.
class Failure : public std::runtime_error {
public:
    // With the words and the advice of the status.
    Failure(std::string operation, std::string file, FFDError status);
    // With words of its own; an empty advice takes that of the status.
    Failure(std::string operation, std::string file, FFDError status, std::string const& words,
            std::string advice = "");

    std::string const& operation() const { return m_operation; }
    std::string const& file() const { return m_file; }
    FFDError status() const { return m_status; }
    std::string const& advice() const { return m_advice; }

private:
    std::string m_operation;
    std::string m_file;
    FFDError m_status;
    std::string m_advice;
};

} // namespace ffdhost
