#include "Position.h"

#include "Status.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

namespace ffdhost {

namespace {

constexpr uint64_t kMicrosecondsPerSecond = 1'000'000;
constexpr uint64_t kLargest = 0xFFFFFFFF;

// A whole number of up to ten digits.
std::optional<uint64_t> parse_whole(std::string_view text) {
    uint64_t value = 0;
    auto const [behind, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool const whole = error == std::errc() && behind == text.data() + text.size();
    return whole && text.size() <= 10 ? std::optional(value) : std::nullopt;
}

// A decimal number in units of 1 / `scale`, a power of ten. More digits after the point than the
// scale has are refused, and so are more than seven before it.
std::optional<uint64_t> parse_decimal(std::string_view text, uint64_t scale) {
    size_t const point = text.find('.');
    std::string_view const front = text.substr(0, point);
    std::optional<uint64_t> const whole = parse_whole(front);
    if (!whole || front.size() > 7) {
        return std::nullopt;
    }
    uint64_t value = *whole * scale;
    if (point == std::string_view::npos) {
        return value;
    }
    std::string_view const digits = text.substr(point + 1);
    std::optional<uint64_t> fraction = parse_whole(digits);
    for (size_t i = 0; fraction && i < digits.size(); ++i) {
        scale /= 10;
    }
    if (!fraction || scale == 0) {
        return std::nullopt;
    }
    return value + *fraction * scale;
}

// Hours and minutes before the seconds; all fields but the first stay below 60.
std::optional<uint64_t> parse_clock(std::string_view text) {
    uint64_t minutes = 0;
    int fields = 0;
    for (size_t colon; (colon = text.find(':')) != std::string_view::npos; ++fields) {
        std::optional<uint64_t> const field = parse_whole(text.substr(0, colon));
        if (!field || fields == 2 || (fields == 1 && *field >= 60) || *field > 9'999'999) {
            return std::nullopt;
        }
        minutes = minutes * 60 + *field;
        text.remove_prefix(colon + 1);
    }
    std::optional<uint64_t> const seconds = parse_decimal(text, kMicrosecondsPerSecond);
    if (!seconds || *seconds >= 60 * kMicrosecondsPerSecond) {
        return std::nullopt;
    }
    return minutes * 60 * kMicrosecondsPerSecond + *seconds;
}

// 1h2m3.5s, with at least hours or minutes; all fields but the first stay below 60.
std::optional<uint64_t> parse_units(std::string_view text) {
    uint64_t seconds = 0;
    bool isFirst = true;
    for (auto const& [letter, size] : {std::pair('h', 3600), std::pair('m', 60)}) {
        size_t const place = text.find(letter);
        if (place == std::string_view::npos) {
            continue;
        }
        std::optional<uint64_t> const field = parse_whole(text.substr(0, place));
        if (!field || *field > 9'999'999 || (!isFirst && *field >= 60)) {
            return std::nullopt;
        }
        seconds += *field * static_cast<uint64_t>(size);
        text.remove_prefix(place + 1);
        isFirst = false;
    }
    uint64_t rest = 0;
    if (!text.empty()) {
        std::optional<uint64_t> const last =
            text.ends_with('s')
                ? parse_decimal(text.substr(0, text.size() - 1), kMicrosecondsPerSecond)
                : std::nullopt;
        if (!last || *last >= 60 * kMicrosecondsPerSecond) {
            return std::nullopt;
        }
        rest = *last;
    }
    return isFirst ? std::nullopt : std::optional(seconds * kMicrosecondsPerSecond + rest);
}

std::optional<uint64_t> parse_time(std::string_view text) {
    if (text.find(':') != std::string_view::npos) {
        return parse_clock(text);
    }
    if (text.ends_with("ms")) {
        return parse_decimal(text.substr(0, text.size() - 2), 1000);
    }
    if (text.find_first_of("hm") != std::string_view::npos) {
        return parse_units(text);
    }
    if (text.ends_with('s')) {
        return parse_decimal(text.substr(0, text.size() - 1), kMicrosecondsPerSecond);
    }
    return std::nullopt;
}

std::optional<Position> parse_amount(std::string_view text) {
    Position amount;
    if (std::optional<uint64_t> const bytes = parse_whole(text); bytes && *bytes <= kLargest) {
        amount.count = *bytes;
        return amount;
    }
    std::optional<uint64_t> const time = parse_time(text);
    if (!time) {
        return std::nullopt;
    }
    amount.unit = Position::Unit::Microseconds;
    amount.count = *time;
    return amount;
}

[[noreturn]] void bad_number(std::string const& operation, std::string const& text) {
    throw Failure(operation, "", FFD_INVALID_PARAMETER,
                  "'" + text + "' is no position or length of a dictation",
                  "Give bytes below 4 GiB as in 12345, or a time as in 1:02.5, 1m30s, 62.5s or "
                  "750ms; a position also as +5s, -5s, end or end-3s.");
}

} // namespace

uint32_t Position::to_bytes(uint32_t bytesPerSecond) const {
    if (unit == Unit::All) {
        return kLargest;
    }
    if (unit == Unit::Bytes) {
        return static_cast<uint32_t>(count);
    }
    // In two steps, so that no product leaves 64 bits.
    uint64_t const whole = count / kMicrosecondsPerSecond * bytesPerSecond;
    uint64_t const rest = count % kMicrosecondsPerSecond * bytesPerSecond / kMicrosecondsPerSecond;
    return static_cast<uint32_t>(std::min(whole + rest, kLargest));
}

uint32_t Position::to_place(uint32_t bytesPerSecond, uint32_t here, uint32_t length) const {
    uint64_t const distance = to_bytes(bytesPerSecond);
    uint64_t const origin = from == From::Here ? here : from == From::End ? length : 0;
    if (isBack) {
        return static_cast<uint32_t>(origin - std::min(origin, distance));
    }
    return static_cast<uint32_t>(std::min(origin + distance, kLargest));
}

Position parse_length(std::string const& operation, std::string const& text) {
    if (std::optional<Position> const length = parse_amount(text)) {
        return *length;
    }
    bad_number(operation, text);
}

Position parse_position(std::string const& operation, std::string const& text) {
    Position place;
    std::string_view rest = text;
    if (rest.starts_with("end")) {
        place.from = Position::From::End;
        rest.remove_prefix(3);
        if (rest.empty()) {
            return place;
        }
        if (rest[0] != '-') {
            bad_number(operation, text);
        }
    }
    if (!rest.empty() && (rest[0] == '+' || rest[0] == '-')) {
        place.isBack = rest[0] == '-';
        if (place.from == Position::From::Begin) {
            place.from = Position::From::Here;
        }
        rest.remove_prefix(1);
    }
    std::optional<Position> const amount = parse_amount(rest);
    if (!amount) {
        bad_number(operation, text);
    }
    place.unit = amount->unit;
    place.count = amount->count;
    return place;
}

Position parse_place(std::string const& operation, std::string const& text) {
    Position const place = parse_position(operation, text);
    if (place.from == Position::From::Here) {
        throw Failure(operation, "", FFD_INVALID_PARAMETER,
                      "'" + text + "' counts from the present position, and there is none yet",
                      "Count from the beginning, as in 12345 or 1:02.5, or from the end, as in end "
                      "or end-3s.");
    }
    return place;
}

uint64_t milliseconds_of(uint64_t byteCount, uint32_t bytesPerSecond) {
    return byteCount * 1000 / bytesPerSecond;
}

std::string time_text(uint64_t milliseconds) {
    auto const seconds = static_cast<unsigned long long>(milliseconds / 1000);
    auto const fraction = static_cast<unsigned>(milliseconds % 1000);
    char text[48];
    if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%llu:%02llu.%03u", seconds / 60, seconds % 60, fraction);
    } else {
        std::snprintf(text, sizeof text, "%llu:%02llu:%02llu.%03u", seconds / 3600,
                      seconds / 60 % 60, seconds % 60, fraction);
    }
    return text;
}

std::string rough_time_text(uint64_t seconds) {
    uint64_t const minutes = seconds / 60;
    return minutes < 120 ? std::to_string(minutes) + " min" : std::to_string(minutes / 60) + " h";
}

} // namespace ffdhost
