// What the driver traces while it opens and closes a file, as far as it says why it does
// something.
#pragma once

#include "FrameWalk.h"
#include "log/dry_log.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace ffdhost {

// An entry of the directory as the driver traces it.
struct TracedEntry {
    uint32_t status;
    uint32_t audioFrom;
    uint32_t audioTo;

    bool operator==(TracedEntry const&) const = default;
};

class TraceListener final : public dry::Listener {
public:
    // `onFrame` is called for each frame that the walk of an open counts.
    using OnFrame =
        std::function<void(uint64_t fileOffset, uint64_t end, FrameCounter::Header const& header)>;
    explicit TraceListener(OnFrame onFrame = {}) : m_onFrame(std::move(onFrame)) {}

    void on_trace(dry::TraceCall const& call) override;
    void on_frame(uint32_t fileOffset, uint32_t end, uint8_t const* header) override;
    void on_need(uint32_t size) override { m_neededBytes = size; }

    // Why an open gives a status, in words; empty if the trace does not say.
    std::string reason_of(FFDError status) const;
    // The error that was traced last, in the words of the trace.
    std::string const& last_error() const { return m_lastError; }
    // What the driver traced last before a change of the disk, counted as dry::changes() has
    // them.
    std::string reason_of_change(size_t change) const;
    std::string const& reason_of_rebuild() const { return m_rebuildReason; }
    std::string const& fault_of_directory() const { return m_directoryFault; }
    uint64_t needed_bytes() const { return m_neededBytes; } // by a rebuild; 0 for none
    bool settles_close() const { return m_settlesClose; }

    // The directory that an open takes over; as it is then; and as a close finds it.
    std::vector<TracedEntry> const& entries_found() const { return m_found; }
    std::vector<TracedEntry> const& entries_closed() const { return m_closed; }

private:
    struct Note {
        size_t changesBefore;
        std::string text;
    };

    void note(std::string const& text);

    OnFrame m_onFrame;
    std::vector<Note> m_notes; // at most one for each count of changes
    std::string m_refusal;     // in words; of the status below
    FFDError m_refusalStatus = FFD_NOERROR;
    std::string m_lastError;
    std::string m_rebuildReason;
    std::string m_directoryFault;
    uint64_t m_neededBytes = 0;
    bool m_settlesClose = false;
    std::vector<TracedEntry> m_found;
    std::vector<TracedEntry> m_closed;
    std::vector<TracedEntry>* m_collecting = nullptr;
};

} // namespace ffdhost
