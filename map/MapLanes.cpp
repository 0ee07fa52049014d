#include "MapLanes.h"

#include "console/Position.h"

#include <algorithm>
#include <array>

namespace ffdhost {

namespace {

constexpr size_t kMostGaps = 16;

std::vector<Block> in_file_order(std::vector<Block> blocks) {
    std::erase_if(blocks, [](Block const& block) { return block.size() == 0; });
    std::sort(blocks.begin(), blocks.end(), [](Block const& left, Block const& right) {
        return left.audioFrom < right.audioFrom;
    });
    return blocks;
}

PlaceKind kind_of(Block const& block, std::optional<uint32_t> originalEnd) {
    switch (block.state) {
    case BlockState::Deleted:
        return PlaceKind::Deleted;
    case BlockState::DeletedUndoable:
        return PlaceKind::Undoable;
    case BlockState::Live:
        break;
    }
    return originalEnd && block.audioFrom >= *originalEnd ? PlaceKind::Appended
                                                          : PlaceKind::Original;
}

// What stands in front of the blocks, between them and behind them.
void add_gaps(Lanes& lanes, std::vector<Block> const& fileOrder, uint64_t firstFrameOffset,
              uint64_t fileSize) {
    uint64_t lies = 0;
    uint64_t end = firstFrameOffset;
    auto const add = [&](uint64_t from, uint64_t to, bool inFront) {
        if (from >= to) {
            return;
        }
        if (lanes.gaps.size() < kMostGaps) {
            lanes.gaps.push_back({from, to, lies, inFront});
        } else {
            ++lanes.gapsLeftOut;
        }
    };
    add(0, firstFrameOffset, true);
    for (Block const& block : fileOrder) {
        add(end, std::min(firstFrameOffset + block.audioFrom, fileSize), false);
        end = firstFrameOffset + block.audioTo;
        lies += block.size();
    }
    add(end, fileSize, false);
}

// Puts pieces one behind the other and merges the thin ones. What a kind has lost to another in a
// merged piece it gets back in a later one, so that kinds keep their share of the lane.
class PieceRow {
public:
    explicit PieceRow(double least) : m_least(least) {}

    void add(Place const& place, uint64_t from) {
        bool const thin = static_cast<double>(place.size) < m_least;
        if (!m_open || !thin) {
            close();
            m_pieces.push_back({place.kind, from, from, place.block, 0});
            m_open = true;
        }
        Piece& piece = m_pieces.back();
        piece.to = from + place.size;
        ++piece.count;
        m_bytes[static_cast<size_t>(place.kind)] += static_cast<int64_t>(place.size);
        if (static_cast<double>(piece.to - piece.from) >= m_least) {
            close();
        }
    }

    // What follows is not merged with what is there.
    void close() {
        if (m_open) {
            Piece& piece = m_pieces.back();
            size_t most = static_cast<size_t>(piece.kind);
            for (size_t kind = 0; kind < kPlaceKinds; ++kind) {
                m_owed[kind] += m_bytes[kind];
                if (m_bytes[kind] > 0 && m_owed[kind] > m_owed[most]) {
                    most = kind;
                }
            }
            m_owed[most] -= static_cast<int64_t>(piece.to - piece.from);
            piece.kind = static_cast<PlaceKind>(most);
        }
        m_bytes.fill(0);
        m_open = false;
    }

    std::vector<Piece> take() {
        close();
        return std::move(m_pieces);
    }

private:
    using Bytes = std::array<int64_t, kPlaceKinds>; // by kind

    double m_least;
    std::vector<Piece> m_pieces;
    Bytes m_bytes{}; // of the piece that still grows
    Bytes m_owed{};
    bool m_open = false;
};

} // namespace

std::optional<uint32_t> original_end(std::vector<Block> const& blocks) {
    std::vector<Block> const fileOrder = in_file_order(blocks);
    for (size_t i = 1; i < fileOrder.size(); ++i) {
        if (fileOrder[i].audioFrom > fileOrder[i - 1].audioTo) {
            return fileOrder[i - 1].audioTo;
        }
    }
    std::optional<uint32_t> end;
    uint32_t lowestBehind = 0xFFFFFFFF;
    for (size_t i = blocks.size(); i-- > 0;) {
        if (blocks[i].size() == 0) {
            continue;
        }
        if (blocks[i].audioFrom > lowestBehind) {
            end = std::min(end.value_or(blocks[i].audioFrom), blocks[i].audioFrom);
        }
        lowestBehind = std::min(lowestBehind, blocks[i].audioFrom);
    }
    return end;
}

Lanes lanes_of(DirMap const& map, uint64_t firstFrameOffset, uint64_t fileSize) {
    Lanes lanes;
    std::vector<Block> const fileOrder = in_file_order(map.blocks);
    add_gaps(lanes, fileOrder, firstFrameOffset, fileSize);
    std::vector<uint64_t> lies; // in file order
    lies.reserve(fileOrder.size());
    lanes.places.reserve(fileOrder.size());
    for (Block const& block : fileOrder) {
        lies.push_back(lanes.audioLength);
        lanes.audioLength += block.size();
    }
    std::optional<uint32_t> const end = original_end(map.blocks);
    for (size_t i = 0; i < map.blocks.size(); ++i) {
        Block const& block = map.blocks[i];
        if (block.size() > 0) {
            auto const at = std::lower_bound(
                fileOrder.begin(), fileOrder.end(), block.audioFrom,
                [](Block const& each, uint32_t from) { return each.audioFrom < from; });
            lanes.places.push_back({i, kind_of(block, end), block.size(), block.dictationFrom,
                                    lies[static_cast<size_t>(at - fileOrder.begin())]});
        }
    }
    lanes.dictationLength = map.dictationLength;
    return lanes;
}

std::vector<Piece> playing_pieces(Lanes const& lanes, double least) {
    PieceRow row(least);
    for (Place const& place : lanes.places) {
        if (place.live()) {
            row.add(place, place.plays);
        }
    }
    return row.take();
}

std::vector<Piece> file_pieces(Lanes const& lanes, double least) {
    std::vector<Place> places = lanes.places;
    std::sort(places.begin(), places.end(),
              [](Place const& left, Place const& right) { return left.lies < right.lies; });
    PieceRow row(least);
    auto gap = lanes.gaps.begin();
    for (Place const& place : places) {
        for (; gap != lanes.gaps.end() && gap->lies <= place.lies; ++gap) {
            row.close(); // no piece lies on both sides of a gap
        }
        row.add(place, place.lies);
    }
    return row.take();
}

uint64_t tick_seconds(uint64_t length, uint32_t bytesPerSecond, unsigned most) {
    uint64_t const seconds = length / bytesPerSecond;
    static constexpr std::array<uint64_t, 14> kSteps = {1,   2,   5,   10,   15,   30,   60,
                                                        120, 300, 600, 1800, 3600, 7200, 21600};
    for (uint64_t const step : kSteps) {
        if (seconds / step < most) {
            return step;
        }
    }
    uint64_t step = 43200;
    while (seconds / step >= most) {
        step *= 2;
    }
    return step;
}

std::vector<Tick> time_ticks(uint64_t length, uint32_t bytesPerSecond, uint64_t seconds) {
    std::vector<Tick> ticks;
    for (uint64_t at = 0; at <= length / bytesPerSecond; at += seconds) {
        std::string const label = time_text(at * 1000);
        ticks.push_back({at * bytesPerSecond, label.substr(0, label.find('.'))});
    }
    return ticks;
}

} // namespace ffdhost
