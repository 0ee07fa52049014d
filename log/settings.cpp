#include "log/settings.h"

#include <algorithm>
#include <array>
#include <utility>

namespace xkivlog {

namespace {

constexpr std::array<std::pair<std::string_view, Level>, 8> kLevels{{
    {"off", Level::Off},
    {"error", Level::Error},
    {"warning", Level::Warning},
    {"info", Level::Info},
    {"entry", Level::Entry},
    {"param", Level::Param},
    {"value", Level::Value},
    {"all", Level::Value},
}};

// Without the locale: the names are ASCII, and the host's locale must not change what they match.
char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_name(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\f\v";
    auto const first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

// Cuts the first line off the front of the text.
std::string_view take_line(std::string_view& text) {
    auto const end = std::min(text.find('\n'), text.size());
    std::string_view const line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return trim(line);
}

} // namespace

std::optional<Level> parse_level(std::string_view name) {
    for (auto const& [known, level] : kLevels) {
        if (same_name(name, known)) {
            return level;
        }
    }
    return std::nullopt;
}

std::optional<Settings> parse_environment(std::string_view text) {
    auto const colon = text.find(':'); // the first: a path may hold more of them
    auto const level = parse_level(trim(text.substr(0, colon)));
    if (!level) {
        return std::nullopt;
    }
    Settings settings{*level, {}};
    if (colon != std::string_view::npos) {
        settings.path = text.substr(colon + 1);
    }
    return settings;
}

Settings parse_ini(std::string_view content) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (content.starts_with(kByteOrderMark)) {
        content.remove_prefix(kByteOrderMark.size());
    }

    Settings settings;
    bool inSection = false;
    while (!content.empty()) {
        std::string_view const line = take_line(content);
        // A comment has a line of its own: a path may hold both signs.
        if (line.empty() || line.front() == ';' || line.front() == '#') {
            continue;
        }
        if (line.front() == '[') {
            inSection = same_name(line, "[XKIVLOG]");
            continue;
        }
        auto const equals = line.find('=');
        if (!inSection || equals == std::string_view::npos) {
            continue;
        }
        std::string_view const key = trim(line.substr(0, equals));
        std::string_view const value = trim(line.substr(equals + 1));
        if (same_name(key, "Level")) {
            settings.level = parse_level(value).value_or(Level::Off);
        } else if (same_name(key, "File")) {
            settings.path = value;
        }
    }
    return settings;
}

} // namespace xkivlog
