// One line of the log, put together on the stack and written at once.
#pragma once

#include <cstddef>
#include <string_view>

namespace xkivlog {

// Longest line, with its line feed. Below what a pipe takes in one piece.
inline constexpr size_t kMaxLine = 2048;
// Longest text or value; what is cut ends in "...".
inline constexpr size_t kMaxText = 1024;

// A zero-terminated text, looked at only as far as is needed to see that it is cut.
// "(null)" for null.
std::string_view bounded(char const* text, size_t limit = kMaxText);

class Line {
public:
    // Appends at most `limit` bytes, and the mark if there are more. Control characters become
    // '?': a text must not be able to start a line of its own.
    void append(std::string_view text, size_t limit = kMaxText);

    // Appends the text with blanks in front, or behind for `left`, up to the width.
    void append_padded(std::string_view text, size_t width, bool left);

    // Ends the line. It may not be appended to afterwards.
    std::string_view finish();

private:
    char m_text[kMaxLine];
    size_t m_length = 0;
};

// Time, process, thread, kind, module and place of a call.
void append_head(Line& line, char const* kind, char const* module, char const* file, int number);

} // namespace xkivlog
