#include "log/format.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <optional>

namespace xkivlog {

namespace {

constexpr std::string_view kFlags = "-+ #0";
constexpr int kMaxWidth = 255;
constexpr size_t kNumberSize = 300; // a number of the greatest width, sign, "0x" and terminator

struct Conversion {
    std::string_view flags;
    int width = 0;
    std::optional<int> precision;
    char kind = 0;
    size_t length = 0; // of the whole conversion in the format

    bool left() const { return flags.find('-') != std::string_view::npos; }
};

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Cuts the digits off the front. Nothing if the number is above the greatest width.
std::optional<int> take_number(std::string_view& text) {
    int number = 0;
    for (; !text.empty() && is_digit(text.front()); text.remove_prefix(1)) {
        number = number * 10 + (text.front() - '0');
        if (number > kMaxWidth) {
            return std::nullopt;
        }
    }
    return number;
}

// `text` begins behind the '%'.
std::optional<Conversion> parse_conversion(std::string_view text) {
    std::string_view const whole = text;
    Conversion conversion;
    conversion.flags = text.substr(0, std::min(text.find_first_not_of(kFlags), text.size()));
    if (conversion.flags.size() > kFlags.size()) { // each of them at most once
        return std::nullopt;
    }
    text.remove_prefix(conversion.flags.size());

    auto const width = take_number(text);
    if (!width) {
        return std::nullopt;
    }
    conversion.width = *width;
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        conversion.precision = take_number(text);
        if (!conversion.precision) {
            return std::nullopt;
        }
    }

    bool const isLong = text.starts_with('l');
    bool const isFar = text.starts_with('F');
    if (isLong || isFar) {
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    conversion.kind = text.front();
    std::string_view const kinds = isLong ? "diuxXo" : isFar ? "p" : "diuxXocsp";
    if (kinds.find(conversion.kind) == std::string_view::npos) {
        return std::nullopt;
    }
    conversion.length = whole.size() - text.size() + 1;
    return conversion;
}

// The conversion for the C library, without the `l`: there its width is the platform's.
template <typename Number> void append_number(Line& line, Conversion const& how, Number value) {
    static_assert(sizeof(Number) == 4);
    char format[32];
    char text[kNumberSize];
    int const flagCount = static_cast<int>(how.flags.size());
    if (how.precision) {
        std::snprintf(format, sizeof format, "%%%.*s*.%d%c", flagCount, how.flags.data(),
                      *how.precision, how.kind);
    } else {
        std::snprintf(format, sizeof format, "%%%.*s*%c", flagCount, how.flags.data(), how.kind);
    }
    std::snprintf(text, sizeof text, format, how.width, value);
    line.append(text);
}

void append_text(Line& line, Conversion const& how, char const* value) {
    std::string_view const text = how.precision && value != nullptr
                                      ? bounded(value, static_cast<size_t>(*how.precision))
                                            .substr(0, static_cast<size_t>(*how.precision))
                                      : bounded(value);
    line.append_padded(text, static_cast<size_t>(how.width), how.left());
}

// Not the C library's "%p": that writes null in words, and bit masks come this way, too.
void append_pointer(Line& line, Conversion const& how, void const* value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%" PRIxPTR, reinterpret_cast<uintptr_t>(value));
    line.append_padded(text, static_cast<size_t>(how.width), how.left());
}

} // namespace

void append_formatted(Line& line, char const* format, va_list values) {
    std::string_view rest = bounded(format);
    bool converted = false;
    while (!rest.empty()) {
        auto const percent = std::min(rest.find('%'), rest.size());
        line.append(rest.substr(0, percent));
        rest.remove_prefix(percent);
        if (rest.empty()) {
            return;
        }
        rest.remove_prefix(1);
        if (rest.starts_with('%')) {
            line.append("%");
            rest.remove_prefix(1);
            continue;
        }
        auto const how = converted ? std::nullopt : parse_conversion(rest);
        converted = true;
        if (!how) {
            line.append("%");
            continue;
        }
        rest.remove_prefix(how->length);
        switch (how->kind) {
        case 'd':
        case 'i':
            append_number(line, *how, va_arg(values, int));
            break;
        case 'c': {
            char const character = static_cast<char>(va_arg(values, int));
            line.append_padded({&character, 1}, static_cast<size_t>(how->width), how->left());
            break;
        }
        case 's':
            append_text(line, *how, va_arg(values, char const*));
            break;
        case 'p':
            append_pointer(line, *how, va_arg(values, void const*));
            break;
        default:
            append_number(line, *how, va_arg(values, unsigned));
            break;
        }
    }
}

} // namespace xkivlog
