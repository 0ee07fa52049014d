#include "Printable.h"

#include "System.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <utility>

namespace ffdhost {

namespace {

constexpr char32_t kBadByte = 0xFFFFFFFF;

// The letter at the front of a text that is not empty, and how many bytes it has; kBadByte if the
// first byte begins no letter of UTF-8.
std::pair<char32_t, size_t> first_letter(std::string_view text) {
    auto const byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80) {
        return {byte(0), 1};
    }
    size_t const size = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : 2;
    if (byte(0) < 0xC2 || byte(0) > 0xF4 || text.size() < size) {
        return {kBadByte, 1};
    }
    char32_t letter = byte(0) & (0xFFU >> (size + 1));
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return {kBadByte, 1};
        }
        letter = letter << 6 | (byte(i) & 0x3F);
    }
    static constexpr std::array<char32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
    bool const surrogate = letter >= 0xD800 && letter <= 0xDFFF;
    if (letter < kLeast[size] || letter > 0x10FFFF || surrogate) {
        return {kBadByte, 1};
    }
    return {letter, size};
}

bool is_control(char32_t letter) {
    return letter < 0x20 || (letter >= 0x7F && letter < 0xA0);
}

// What ends a line, turns the direction of writing, or is no character.
bool is_trap(char32_t letter) {
    return letter == 0x061C || letter == 0x200E || letter == 0x200F ||
           (letter >= 0x2028 && letter <= 0x202E) || (letter >= 0x2066 && letter <= 0x2069) ||
           letter == 0xFEFF || (letter & 0xFFFE) == 0xFFFE;
}

std::string with_number(char const* format, char32_t number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), format, static_cast<unsigned>(number));
    return text.data();
}

// Each letter as it is or as `escape` has it, which is asked for what can't be shown. A bad byte
// is asked for as kBadByte, with its one byte.
template <class Escape> std::string escaped(std::string_view text, Escape escape) {
    std::string result;
    while (!text.empty()) {
        auto const [letter, size] = first_letter(text);
        std::string_view const bytes = text.substr(0, size);
        if (letter == kBadByte || is_control(letter) || is_trap(letter)) {
            result += escape(letter, bytes);
        } else {
            result += bytes;
        }
        text.remove_prefix(size);
    }
    return result;
}

char32_t byte_of(std::string_view bytes) {
    return static_cast<unsigned char>(bytes[0]);
}

bool is_one_of(char letter, std::string_view letters) {
    return letters.find(letter) != std::string_view::npos;
}

// '...' where every shell takes all of it as it stands, and $'...' with what else there is in
// octal: the shells that do not know the latter get one word of it as well, or refuse it.
std::string posix_word(std::string_view name) {
    std::string word;
    bool octal = false;
    for (std::string_view rest = name; !rest.empty();) {
        std::string_view const bytes = rest.substr(0, first_letter(rest).second);
        rest.remove_prefix(bytes.size());
        if (!is_one_of(bytes[0], "'\\!") && printable(bytes) == bytes) {
            word += bytes;
            continue;
        }
        octal = true;
        for (char const byte : bytes) {
            word += with_number("\\%03o", static_cast<unsigned char>(byte));
        }
    }
    return (octal ? "$'" : "'") + word + "'";
}

// Both shells of Windows take "..." as one word. One of them also expands what is in it, which is
// escaped; to it a curved quote is a quote, too. To the other a word with such a mark names no
// file.
std::string windows_word(std::string_view name) {
    std::string word = "\"";
    for (std::string_view rest = name; !rest.empty();) {
        auto const [letter, size] = first_letter(rest);
        if (letter == U'$' || letter == U'`' || (letter >= 0x201C && letter <= 0x201E)) {
            word += '`';
        }
        word += rest.substr(0, size);
        rest.remove_prefix(size);
    }
    return printable(word + "\"");
}

} // namespace

std::string printable(std::string_view text) {
    return escaped(text, [](char32_t letter, std::string_view bytes) {
        return bytes.size() == 1 ? with_number("\\x%02X", byte_of(bytes))
                                 : with_number("\\u%04X", letter);
    });
}

std::string printable_json(std::string_view document) {
    return escaped(document, [](char32_t letter, std::string_view bytes) {
        if (letter == U'\n') {
            return std::string(bytes); // between the lines: within a text it is escaped already
        }
        if (letter == kBadByte) {
            return std::string("\\uFFFD");
        }
        return letter > 0xFFFF ? with_number("\\u%04X", 0xD7C0 + (letter >> 10)) +
                                     with_number("\\u%04X", 0xDC00 + (letter & 0x3FF))
                               : with_number("\\u%04X", letter);
    });
}

std::string shell_word(std::string_view name) {
    bool const plain = !name.empty() && std::all_of(name.begin(), name.end(), [](char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 ||
               is_one_of(letter, kShellOfWindows ? "\\./:_-+" : "./:_-+");
    });
    if (plain) {
        return std::string(name);
    }
    return kShellOfWindows ? windows_word(name) : posix_word(name);
}

} // namespace ffdhost
