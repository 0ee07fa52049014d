#include "log/line.h"

#include "log/os.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace xkivlog {

namespace {

constexpr std::string_view kCutMark = "...";
// Behind the last text of a full line there is always room for the mark and the line feed.
constexpr size_t kRoom = kMaxLine - kCutMark.size() - 1;

constexpr size_t kMaxModule = 32;
constexpr size_t kMaxFile = 64;

char printable(char c) {
    auto const code = static_cast<unsigned char>(c);
    return code < 0x20 || code == 0x7F ? '?' : c;
}

std::string_view base_name(char const* path) {
    if (path == nullptr) {
        return "?";
    }
    std::string_view const whole(path);
    auto const separator = whole.find_last_of("/\\");
    return separator == std::string_view::npos ? whole : whole.substr(separator + 1);
}

// "2024-05-01T12:34:56.789Z". UTC by the calendar of the standard library: the C functions for it
// take a lock of their own, which a fork in another thread can leave locked.
void append_time(Line& line) {
    using namespace std::chrono;
    auto const now = floor<milliseconds>(system_clock::now());
    auto const day = floor<days>(now);
    year_month_day const date(day);
    hh_mm_ss const time(now - day);
    char text[64];
    std::snprintf(
        text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    line.append(text);
}

} // namespace

std::string_view bounded(char const* text, size_t limit) {
    if (text == nullptr) {
        return "(null)";
    }
    return {text, strnlen(text, limit + 1)};
}

void Line::append(std::string_view text, size_t limit) {
    size_t const room = kRoom - std::min(m_length, kRoom);
    size_t const taken = std::min({text.size(), limit, room});
    std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(taken),
                   m_text + m_length, printable);
    m_length += taken;
    if (taken < text.size() && m_length <= kRoom) {
        m_length += kCutMark.copy(m_text + m_length, kCutMark.size());
    }
}

void Line::append_padded(std::string_view text, size_t width, bool left) {
    size_t const blanks = width - std::min(width, text.size());
    if (left) {
        append(text);
    }
    for (size_t i = 0; i < blanks; ++i) {
        append(" ");
    }
    if (!left) {
        append(text);
    }
}

std::string_view Line::finish() {
    m_text[m_length++] = '\n';
    return {m_text, m_length};
}

void append_head(Line& line, char const* kind, char const* module, char const* file, int number) {
    append_time(line);
    char text[64];
    std::snprintf(text, sizeof text, " %" PRIu64 ":%" PRIu64 " %-7s ", os::process_id(),
                  os::thread_id(), kind);
    line.append(text);
    line.append_padded(bounded(module, kMaxModule).substr(0, kMaxModule), 11, true);
    line.append(" ");
    line.append(base_name(file), kMaxFile);
    std::snprintf(text, sizeof text, ":%d ", number);
    line.append(text);
}

} // namespace xkivlog
