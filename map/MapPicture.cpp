#include "MapPicture.h"

#include "console/Output.h"
#include "console/Position.h"
#include "console/Printable.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>
#include <utility>

namespace ffdhost {

namespace {

// Where things stand, in pixels.
constexpr double kWidth = 1000;
constexpr double kLeft = 158; // the beginning of both lanes
constexpr double kRight = 968;
constexpr double kPlayingTop = 112;
constexpr double kLaneHeight = 44;
constexpr double kFileTop = 294;
constexpr double kPlayingBottom = kPlayingTop + kLaneHeight;
constexpr double kFileBottom = kFileTop + kLaneHeight;
constexpr double kSlot = 10;           // the width of a gap, whatever its size
constexpr double kSlotsMost = 100;     // of all gaps but the front one
constexpr size_t kGapLines = 3;        // lines of text for them
constexpr double kThinBand = 2;        // a thinner one may be merged with its like
constexpr size_t kMostThinBands = 400; // of a kind
constexpr double kThinPiece = 2;       // narrower ones are merged
constexpr unsigned kMostTicks = 12;
constexpr double kLetter = 6.7; // the width of a letter of the small text, about

struct Look {
    char const* id; // of the pattern, and the class of what has it
    char const* name;
};

Look look_of(PlaceKind kind) {
    static constexpr std::array<Look, kPlaceKinds> kLooks = {{{"old", "original audio"},
                                                              {"new", "appended audio"},
                                                              {"undo", "deleted, undoable"},
                                                              {"gone", "deleted"}}};
    return kLooks[static_cast<size_t>(kind)];
}

// Both lightness and patterns tell the kinds apart, so grey is enough.
char const* const kStyle = R"svg(<style>
text{font-family:system-ui,"Segoe UI","DejaVu Sans",Helvetica,Arial,sans-serif;font-size:12px;fill:#22303c}
.card{fill:#fdfcf8;stroke:#c9c5bb}
.name{font-size:19px;font-weight:600}
.lane{font-size:14px;font-weight:600}
.soft{fill:#55626e}
.time{text-anchor:middle}
.time,.over{paint-order:stroke;stroke:#fdfcf8;stroke-width:4px}
.mark{stroke:#7b8791;fill:none}
.old{fill:#a3cbec}
.new{fill:#b4470f}
.undo{fill:url(#undo)}
.gone{fill:url(#gone)}
.gap{fill:#39434d}
#playing rect,#file rect,#legend rect{stroke:#fdfcf8}
#legend .undo,#legend .gone,#file .undo,#file .gone{stroke:#83768f}
#playing .thin,#file .thin{stroke:none;shape-rendering:crispEdges}
.in{fill:#1c3550;text-anchor:middle}
.in.new{fill:#fff}
#bands .old{fill-opacity:.42;stroke:#4f86b5;stroke-opacity:.7;stroke-width:.7}
#bands .new{fill-opacity:.34;stroke:#8f360a;stroke-opacity:.8;stroke-width:.7}
#bands .undo{fill:none;stroke:#6d3f9c;stroke-dasharray:4 3}
#bands .thin{stroke-opacity:.25}
.back{fill:#6d3f9c}
</style>
<defs>
<pattern id="undo" width="7" height="7" patternUnits="userSpaceOnUse" patternTransform="rotate(45)"><rect width="7" height="7" fill="#fff"/><rect width="2.4" height="7" fill="#6d3f9c"/></pattern>
<pattern id="gone" width="6" height="6" patternUnits="userSpaceOnUse"><rect width="6" height="6" fill="#fff"/><path d="M0 0L6 6M6 0L0 6" stroke="#98938a" stroke-width=".9"/></pattern>
</defs>
)svg";

// Text as XML may hold it.
std::string xml_text(std::string const& words) {
    std::string text;
    for (char const letter : printable(words)) {
        switch (letter) {
        case '&':
            text += "&amp;";
            break;
        case '<':
            text += "&lt;";
            break;
        case '>':
            text += "&gt;";
            break;
        case '"':
            text += "&quot;";
            break;
        default:
            text += letter;
        }
    }
    return text;
}

// The beginning and the end of a text that is too long to be shown.
std::string shortened(std::string const& words, size_t most) {
    if (words.size() <= most) {
        return words;
    }
    auto const within_letter = [&](size_t at) { return (words[at] & 0xC0) == 0x80; };
    size_t front = most / 2;
    size_t back = words.size() - front;
    while (front > 0 && within_letter(front)) {
        --front;
    }
    while (back < words.size() && within_letter(back)) {
        ++back;
    }
    return words.substr(0, front) + " \u2026 " + words.substr(back);
}

// Hundredths of a pixel: rounded ends instead of rounded widths, so that no error adds up.
int64_t hundredths(double pixels) {
    return std::llround(pixels * 100);
}

std::string number(int64_t hundredths) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(hundredths) / 100);
    std::string words = text;
    words.erase(words.find_last_not_of('0') + 1);
    if (words.back() == '.') {
        words.pop_back();
    }
    return words;
}

std::string number(double pixels) {
    return number(hundredths(pixels));
}

std::string time_of(uint64_t byteCount, uint32_t bytesPerSecond) {
    return time_text(milliseconds_of(byteCount, bytesPerSecond));
}

// One band, or the outline of several: where it begins and ends in both lanes.
struct Band {
    double playsFrom, playsTo, liesFrom, liesTo;
};

class Picture {
public:
    Picture(Lanes const& lanes, PictureWords const& words, uint32_t bytesPerSecond)
        : m_lanes(lanes), m_words(words), m_bytesPerSecond(bytesPerSecond),
          m_tickSeconds(tick_seconds(lanes.audioLength, bytesPerSecond, kMostTicks)) {
        for (size_t i = 0; i < m_lanes.gaps.size(); ++i) {
            m_slots += m_lanes.gaps[i].inFront ? 0 : 1;
        }
        m_slot = m_slots == 0 ? 0 : std::min(kSlot, kSlotsMost / static_cast<double>(m_slots));
        double const width = kRight - kLeft - m_slot * static_cast<double>(m_slots);
        m_scale = width / static_cast<double>(std::max<uint64_t>(m_lanes.audioLength, 1));
    }

    std::string draw() {
        m_body << "<g id=\"bands\">\n";
        draw_bands();
        m_body << "</g>\n";
        draw_playing_lane();
        double const gapsBottom = draw_gaps(kFileBottom + 24);
        draw_file_lane();
        double const bottom = draw_legend(gapsBottom + 34);
        return head(bottom + 26) + m_body.str() + "</svg>\n";
    }

private:
    double plays_x(uint64_t position) const {
        return kLeft + static_cast<double>(position) * m_scale;
    }

    // Where audio begins in the file lane that has this much in front of it; with `asEnd`, where
    // what is in front of it ends. The two differ only at a gap.
    double lies_x(uint64_t lies, bool asEnd = false) const {
        double slots = 0;
        for (LaneGap const& gap : m_lanes.gaps) {
            slots += !gap.inFront && (asEnd ? gap.lies < lies : gap.lies <= lies) ? 1 : 0;
        }
        return kLeft + static_cast<double>(lies) * m_scale + slots * m_slot;
    }

    void text(double x, double y, std::string const& kind, std::string const& words) {
        m_body << "<text x=\"" << number(x) << "\" y=\"" << number(y) << '"'
               << (kind.empty() ? "" : " class=\"" + kind + '"') << '>' << xml_text(words)
               << "</text>\n";
    }

    void box(double from, double to, double top, std::string const& kind,
             std::string const& title) {
        m_body << "<rect x=\"" << number(from) << "\" y=\"" << number(top) << "\" width=\""
               << number(hundredths(to) - hundredths(from)) << "\" height=\"" << number(kLaneHeight)
               << "\" class=\"" << kind << '"';
        end_with_title("rect", title);
    }

    // Words that show when an element is pointed at.
    void end_with_title(char const* element, std::string const& title) {
        if (title.empty()) {
            m_body << "/>\n";
        } else {
            m_body << "><title>" << xml_text(title) << "</title></" << element << ">\n";
        }
    }

    std::string summary() const {
        std::array<size_t, kPlaceKinds> counts{};
        for (Place const& place : m_lanes.places) {
            ++counts[static_cast<size_t>(place.kind)];
        }
        size_t const blocks = m_lanes.places.size();
        size_t const live = counts[0] + counts[1];
        std::string words = std::to_string(blocks) + (blocks == 1 ? " block" : " blocks");
        if (live != blocks) {
            words += ", " + std::to_string(live) + " of them live";
        }
        return words;
    }

    std::string head(double height) const {
        std::ostringstream head;
        head << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << number(kWidth) << ' '
             << number(height) << "\" width=\"" << number(kWidth) << "\" height=\""
             << number(height) << "\" role=\"img\" aria-labelledby=\"title desc\">\n"
             << "<title id=\"title\">Map of " << xml_text(m_words.name) << "</title>\n"
             << "<desc id=\"desc\">The dictation plays "
             << time_of(m_lanes.dictationLength, m_bytesPerSecond) << "; the file holds "
             << time_of(m_lanes.audioLength, m_bytesPerSecond) << " of audio in " << summary()
             << ". The upper lane shows the blocks as they play, the lower one as they lie in the "
                "file; a band joins the two places of a live block. Blocks too thin to be seen are "
                "drawn together. Appended audio is what lies behind the first gap between two "
                "blocks, or behind a block that plays in front of audio in front of it: what was "
                "appended to the very end may look like original audio.";
        if (m_lanes.gapsLeftOut > 0) {
            head << ' ' << m_lanes.gapsLeftOut << " more gaps between blocks are not shown.";
        }
        head << "</desc>\n"
             << kStyle << "<rect class=\"card\" x=\".5\" y=\".5\" width=\"" << number(kWidth - 1)
             << "\" height=\"" << number(height - 1) << "\" rx=\"10\"/>\n"
             << "<text x=\"32\" y=\"38\" class=\"name\">" << xml_text(shortened(m_words.name, 72))
             << "</text>\n<text x=\"32\" y=\"60\" class=\"soft\">"
             << xml_text(summary() + " \u00B7 " + m_words.format) << "</text>\n";
        return head.str();
    }

    std::string piece_title(Piece const& piece) const {
        return "block " + std::to_string(piece.block) + ": " + look_of(piece.kind).name + ", " +
               time_of(piece.to - piece.from, m_bytesPerSecond) + " at " +
               time_of(piece.from, m_bytesPerSecond);
    }

    void draw_piece(Piece const& piece, double from, double to, double top) {
        bool const thin = to - from < 4;
        box(from, to, top, std::string(look_of(piece.kind).id) + (thin ? " thin" : ""),
            piece.count > 1 ? "" : piece_title(piece));
        bool const hatched = piece.kind == PlaceKind::Undoable || piece.kind == PlaceKind::Deleted;
        std::string const block = std::to_string(piece.block);
        std::string const time = time_of(piece.to - piece.from, m_bytesPerSecond);
        double const room = to - from - 10;
        if (piece.count > 1 || hatched || room < kLetter * static_cast<double>(block.size())) {
            return;
        }
        bool const both = room >= kLetter * static_cast<double>(time.size());
        std::string const kind = std::string("in ") + look_of(piece.kind).id;
        text((from + to) / 2, top + (both ? 19 : 27), kind, both ? "block " + block : block);
        if (both) {
            text((from + to) / 2, top + 35, kind, time);
        }
    }

    void draw_lane_name(double top, std::string const& name, uint64_t length) {
        text(32, top + 19, "lane", name);
        text(32, top + 36, "soft", time_of(length, m_bytesPerSecond));
    }

    void draw_playing_lane() {
        draw_lane_name(kPlayingTop, "As it plays", m_lanes.dictationLength);
        m_body << "<g id=\"playing-time\">\n";
        for (Tick const& tick :
             time_ticks(m_lanes.dictationLength, m_bytesPerSecond, m_tickSeconds)) {
            draw_tick(plays_x(tick.at), kPlayingTop - 8, kPlayingTop - 2, kPlayingTop - 13, tick);
        }
        m_body << "</g>\n<g id=\"playing\">\n";
        for (Piece const& piece : playing_pieces(m_lanes, kThinPiece / m_scale)) {
            draw_piece(piece, plays_x(piece.from), plays_x(piece.to), kPlayingTop);
        }
        m_body << "</g>\n";
        if (m_lanes.dictationLength == 0) {
            text(kLeft, kPlayingTop + 27, "soft", "nothing plays");
        }
    }

    void draw_file_lane() {
        draw_lane_name(kFileTop, "In the file", m_lanes.audioLength);
        m_body << "<g id=\"file-time\">\n";
        for (Tick const& tick : time_ticks(m_lanes.audioLength, m_bytesPerSecond, m_tickSeconds)) {
            draw_tick(lies_x(tick.at), kFileBottom + 2, kFileBottom + 8, kFileBottom + 21, tick);
        }
        m_body << "</g>\n<g id=\"file\">\n";
        for (Piece const& piece : file_pieces(m_lanes, kThinPiece / m_scale)) {
            draw_piece(piece, lies_x(piece.from), lies_x(piece.to, true), kFileTop);
        }
        m_body << "</g>\n";
    }

    void draw_tick(double x, double from, double to, double label, Tick const& tick) {
        m_body << "<path class=\"mark\" d=\"M" << number(x) << ' ' << number(from) << 'V'
               << number(to) << "\"/>";
        text(x, label, tick.at == 0 ? "soft" : "soft time", tick.label);
    }

    // The gaps of the file lane, and below them what they are. The result is where that ends.
    double draw_gaps(double top) {
        m_body << "<g id=\"gaps\">\n";
        struct Label {
            double left;
            double base;
            std::string words;
        };
        std::vector<Label> labels;
        std::vector<double> ends; // of what stands in each line so far
        for (size_t i = 0; i < m_lanes.gaps.size(); ++i) {
            LaneGap const& gap = m_lanes.gaps[i];
            double const from = gap.inFront ? kLeft - kSlot - 2 : lies_x(gap.lies, true);
            double const width = gap.inFront ? kSlot : m_slot;
            std::string const words = m_words.gaps[i] + ", " + bytes_text(gap.size());
            box(from, from + width, kFileTop, "gap", words);

            double const length = kLetter * static_cast<double>(words.size());
            double const mark = from + width / 2;
            double const left = std::clamp(mark - length / 2, 32.0, kRight - length);
            size_t line = 0;
            while (line < ends.size() && ends[line] > left) {
                ++line;
            }
            if (line == kGapLines) {
                continue; // crowded; the words show when the gap is pointed at
            }
            ends.resize(std::max(ends.size(), line + 1));
            ends[line] = left + length + 12;
            double const base = top + 18 * static_cast<double>(line + 1);
            m_body << "<path class=\"mark\" d=\"M" << number(mark) << ' ' << number(kFileBottom + 1)
                   << 'V' << number(base - 11) << "\"/>";
            labels.push_back({left, base, words});
        }
        for (Label const& label : labels) { // in front of all the marks
            text(label.left, label.base, "over", label.words);
        }
        m_body << "</g>\n";
        return top + 18 * static_cast<double>(ends.size());
    }

    void draw_band(std::string const& kind, Band const& band, std::string const& title) {
        m_body << "<path class=\"" << kind << "\" d=\"" << outline(band) << '"';
        end_with_title("path", title);
    }

    static std::string outline(Band const& band) {
        constexpr double kMiddle = (kPlayingBottom + kFileTop) / 2;
        std::ostringstream path;
        auto const curve = [&](double via, double to, double y) {
            path << 'C' << number(via) << ' ' << number(kMiddle) << ' ' << number(to) << ' '
                 << number(kMiddle) << ' ' << number(to) << ' ' << number(y);
        };
        path << 'M' << number(band.playsFrom) << ' ' << number(kPlayingBottom);
        curve(band.playsFrom, band.liesFrom, kFileTop);
        path << 'H' << number(band.liesTo);
        curve(band.liesTo, band.playsTo, kPlayingBottom);
        path << 'Z';
        return path.str();
    }

    Band band_of(Place const& place) const {
        return {plays_x(place.plays), plays_x(place.plays + (place.live() ? place.size : 0)),
                lies_x(place.lies), lies_x(place.lies + place.size, true)};
    }

    void draw_bands() {
        std::array<std::vector<Band>, kPlaceKinds> thin;
        for (Place const& place : m_lanes.places) {
            Band const band = band_of(place);
            if (place.kind == PlaceKind::Deleted) {
                continue;
            }
            if (band.liesTo - band.liesFrom < kThinBand) {
                thin[static_cast<size_t>(place.kind)].push_back(band);
                continue;
            }
            draw_band(look_of(place.kind).id, band,
                      "block " + std::to_string(place.block) +
                          (place.live() ? "" : ": an undo would bring it back here"));
            if (!place.live()) {
                m_body << "<path class=\"back\" d=\"M" << number(band.playsFrom) << ' '
                       << number(kPlayingBottom) << "l-5 9h10z\"/>\n";
            }
        }
        for (PlaceKind const kind :
             {PlaceKind::Original, PlaceKind::Appended, PlaceKind::Undoable}) {
            draw_thin_bands(kind, thin[static_cast<size_t>(kind)]);
        }
    }

    // One path for all: where they overlap they are no darker. Bands that begin in one cell and end
    // in one are merged; the cells grow until few enough bands are left.
    void draw_thin_bands(PlaceKind kind, std::vector<Band> const& bands) {
        std::map<std::pair<int64_t, int64_t>, Band> cells;
        double cell = kThinBand / 2;
        do {
            cells.clear();
            for (Band const& band : bands) {
                auto const [at, isNew] = cells.try_emplace(
                    {std::llround(band.playsFrom / cell), std::llround(band.liesFrom / cell)},
                    band);
                Band& all = at->second;
                all = {std::min(all.playsFrom, band.playsFrom), std::max(all.playsTo, band.playsTo),
                       std::min(all.liesFrom, band.liesFrom), std::max(all.liesTo, band.liesTo)};
            }
            cell *= 2;
        } while (cells.size() > kMostThinBands);
        if (bands.empty()) {
            return;
        }
        m_body << "<path class=\"" << look_of(kind).id << " thin\" d=\"";
        for (auto const& [at, band] : cells) {
            m_body << outline(band);
        }
        m_body << "\"><title>" << bands.size() << " thin blocks</title></path>\n";
    }

    // The result is the base of its last line.
    double draw_legend(double top) {
        std::array<uint64_t, kPlaceKinds> bytes{};
        for (Place const& place : m_lanes.places) {
            bytes[static_cast<size_t>(place.kind)] += place.size;
        }
        m_body << "<g id=\"legend\">\n";
        double x = 32;
        auto const entry = [&](char const* id, std::string const& words) {
            double const length = 24 + kLetter * static_cast<double>(words.size());
            if (x + length > kWidth - 16) {
                x = 32;
                top += 22;
            }
            m_body << "<rect x=\"" << number(x) << "\" y=\"" << number(top - 11)
                   << "\" width=\"18\" height=\"14\" class=\"" << id << "\"/>";
            text(x + 24, top, "", words);
            x += length + 16;
        };
        for (size_t kind = 0; kind < kPlaceKinds; ++kind) {
            if (bytes[kind] > 0) {
                Look const look = look_of(static_cast<PlaceKind>(kind));
                entry(look.id,
                      std::string(look.name) + " " + time_of(bytes[kind], m_bytesPerSecond));
            }
        }
        if (!m_lanes.gaps.empty()) {
            entry("gap", "no audio, not to scale");
        }
        m_body << "</g>\n";
        return top;
    }

    Lanes const& m_lanes;
    PictureWords const& m_words;
    uint32_t m_bytesPerSecond;
    size_t m_slots = 0;
    double m_slot = 0;  // pixels
    double m_scale = 0; // pixels for a byte
    uint64_t m_tickSeconds;
    std::ostringstream m_body;
};

} // namespace

std::string map_picture(Lanes const& lanes, PictureWords const& words, uint32_t bytesPerSecond) {
    return Picture(lanes, words, bytesPerSecond).draw();
}

} // namespace ffdhost
