#include "MapStrip.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>
#include <vector>

namespace ffdhost {

namespace {

constexpr size_t kLabelRoom = 9;   // columns between two time marks, at least
constexpr size_t kCutDistance = 3; // columns between two deletions

struct Sign {
    char const* utf8;
    char const* ascii;
    char const* colour; // the escape sequence
    char const* meaning;
};

// By PlaceKind. Deleted blocks have no place in the lane: a letter stands where they would play.
constexpr std::array<Sign, kPlaceKinds> kSigns = {
    {{"\u2592", "-", "\033[36m", "original audio"},
     {"\u2588", "#", "\033[33m", "appended audio"},
     {"u", "u", "\033[1;35m", "deleted here, undo brings it back"},
     {"x", "x", "\033[1m", "deleted here"}}};

// The kind of each column: the one with the most bytes in it, or that of a deletion there.
// Deletions keep a distance so that the audio is still seen, and one that can be undone comes
// first.
std::vector<PlaceKind> columns_of(Lanes const& lanes, unsigned width) {
    double const scale = static_cast<double>(width) / static_cast<double>(lanes.dictationLength);
    std::vector<double> appended(width); // the share of it, less that of the original audio
    std::vector<std::pair<PlaceKind, size_t>> cuts;
    for (Place const& place : lanes.places) {
        double const from = static_cast<double>(place.plays) * scale;
        size_t column = std::min<size_t>(static_cast<size_t>(from), width - 1);
        if (!place.live()) {
            cuts.emplace_back(place.kind, column);
            continue;
        }
        double const to = from + static_cast<double>(place.size) * scale;
        for (; column < width && static_cast<double>(column) < to; ++column) {
            double const share = std::min(to, static_cast<double>(column + 1)) -
                                 std::max(from, static_cast<double>(column));
            appended[column] += place.kind == PlaceKind::Appended ? share : -share;
        }
    }
    std::vector<PlaceKind> columns(width);
    std::transform(appended.begin(), appended.end(), columns.begin(), [](double share) {
        return share > 0 ? PlaceKind::Appended : PlaceKind::Original;
    });
    std::vector<bool> taken(width + 2 * kCutDistance); // around each deletion
    for (PlaceKind const kind : {PlaceKind::Undoable, PlaceKind::Deleted}) {
        for (auto const& [cut, column] : cuts) {
            if (cut == kind && !taken[column + kCutDistance]) {
                columns[column] = kind;
                std::fill_n(taken.begin() + static_cast<std::ptrdiff_t>(column),
                            2 * kCutDistance + 1, true);
            }
        }
    }
    return columns;
}

std::string time_marks(uint64_t length, uint32_t bytesPerSecond, unsigned width) {
    uint64_t const step = tick_seconds(length, bytesPerSecond,
                                       std::max(1U, width / static_cast<unsigned>(kLabelRoom)));
    std::string line;
    for (Tick const& tick : time_ticks(length, bytesPerSecond, step)) {
        size_t const column =
            static_cast<size_t>(static_cast<double>(tick.at) * width / static_cast<double>(length));
        std::string const mark = "|" + tick.label;
        if ((line.empty() || column > line.size()) && column + mark.size() <= width) {
            line.resize(column, ' ');
            line += mark;
        }
    }
    return line;
}

} // namespace

std::string map_strip(Lanes const& lanes, uint32_t bytesPerSecond, StripStyle const& style) {
    if (lanes.dictationLength == 0 || style.width == 0) {
        return "";
    }
    std::string strip;
    Sign const* last = nullptr; // whose colour is on
    auto const add = [&](PlaceKind kind) {
        Sign const& sign = kSigns[static_cast<size_t>(kind)];
        if (style.colour && last != &sign) {
            strip += last != nullptr ? "\033[0m" : "";
            strip += sign.colour;
        }
        last = &sign;
        strip += style.utf8 ? sign.utf8 : sign.ascii;
    };
    auto const plain = [&] {
        strip += style.colour ? "\033[0m" : "";
        last = nullptr;
    };

    std::array<bool, kPlaceKinds> seen{};
    for (PlaceKind const kind : columns_of(lanes, style.width)) {
        seen[static_cast<size_t>(kind)] = true;
        add(kind);
    }
    plain();
    strip += '\n';
    strip += time_marks(lanes.dictationLength, bytesPerSecond, style.width);
    strip += '\n';
    if (std::count(seen.begin(), seen.end(), true) > 1) {
        for (size_t kind = 0; kind < kPlaceKinds; ++kind) {
            if (seen[kind]) {
                add(static_cast<PlaceKind>(kind));
                plain();
                strip += ' ';
                strip += kSigns[kind].meaning;
                strip += '\n';
            }
        }
    }
    return strip;
}

} // namespace ffdhost
