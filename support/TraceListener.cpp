#include "TraceListener.h"

#include "platform/dry_platform.h"

#include <algorithm>
#include <string_view>

namespace ffdhost {

namespace {

using Kind = dry::TraceCall::Kind;

// What the driver traces on its way to a status, and how a user would say it.
struct Refusal {
    std::string_view traced;
    FFDError status;
    char const* words;
};
constexpr Refusal kRefusals[] = {
    {"VBR detected", FFD_NOT_SUPPORTED, "its bitrate is not constant"},
    {"FFD_NOT_SUPPORTED file of 4 GiB or more", FFD_NOT_SUPPORTED, "it has 4 GiB or more"},
    {"ID3 header corrupt, size greater than filesize", FFD_INVALID_FORMAT,
     "an ID3v2 tag in front says that it is longer than what the file holds"},
    {"no path for DIR-file -> FFD_INVALID_PATH", FFD_INVALID_PATH,
     "there is no path for its .DIR file"}};

struct Words {
    std::string_view traced;
    char const* words;
};
constexpr Words kRebuildReasons[] = {
    {"psDirEntry->Status & DIR_ENTRY_DELETED -> KIVMP3_CLOSE_REBUILD", "parts were deleted"},
    {"psDirEntry->Startpos != pDirLast->Endpos -> KIVMP3_CLOSE_REBUILD",
     "its blocks do not play as they lie in the file"},
    {"pDirLast->Endpos <= dwFileSize -> KIVMP3_CLOSE_REBUILD",
     "bytes stand behind the last block"}};

constexpr std::string_view kDamaged = "dir file is damaged: ";
constexpr std::string_view kSettles = "interrupted close";

// In every open, and no reason for anything.
constexpr std::string_view kFrameSearch = "searching for frame sync";
constexpr std::string_view kNoMoreFrames = "at end of file and no frame header found";

constexpr char const* kEntriesFound = "Log in check_dir_sf_matching()";
constexpr char const* kEntriesClosed = "Log at begin final_closing_work()";

} // namespace

void TraceListener::on_frame(uint32_t fileOffset, uint32_t end, uint8_t const* header) {
    if (m_onFrame) {
        m_onFrame(fileOffset, end, {header[0], header[1], header[2], header[3]});
    }
}

void TraceListener::on_trace(dry::TraceCall const& call) {
    if (call.kind == Kind::Value && m_collecting != nullptr) {
        std::string_view const name = call.pszText;
        if (name == "Status") {
            m_collecting->push_back({call.number(), 0, 0});
        } else if (name == "Startpos") {
            m_collecting->back().audioFrom = call.number();
        } else if (name == "Endpos") {
            m_collecting->back().audioTo = call.number();
        }
        return;
    }
    if (call.kind == Kind::Entry) {
        m_collecting = nullptr;
    }
    if ((call.kind != Kind::Info && call.kind != Kind::Error) || call.pszText == nullptr) {
        return;
    }
    std::string_view const text = call.pszText;
    if (text == kFrameSearch) {
        return;
    }
    if (text == kEntriesFound || text == kEntriesClosed) {
        m_collecting = text == kEntriesFound ? &m_found : &m_closed;
        m_collecting->clear();
        return;
    }
    for (Refusal const& each : kRefusals) {
        if (text == each.traced) {
            m_refusal = each.words;
            m_refusalStatus = each.status;
        }
    }
    for (Words const& each : kRebuildReasons) {
        if (text == each.traced) {
            m_rebuildReason = each.words;
        }
    }
    if (text.starts_with(kDamaged)) {
        m_directoryFault = text.substr(kDamaged.size());
    }
    m_settlesClose = m_settlesClose || text.starts_with(kSettles);
    bool const handedUp =
        text.starts_with("by ") || text.starts_with("catched ") || text.starts_with("returned by ");
    if (handedUp || text == kNoMoreFrames) {
        return;
    }
    if (call.kind == Kind::Error) {
        m_lastError = text;
    }
    note(std::string(text));
}

void TraceListener::note(std::string const& text) {
    size_t const changes = dry::changes().size();
    if (!m_notes.empty() && m_notes.back().changesBefore == changes) {
        m_notes.back().text = text;
    } else {
        m_notes.push_back({changes, text});
    }
}

std::string TraceListener::reason_of(FFDError status) const {
    return status == m_refusalStatus ? m_refusal : "";
}

std::string TraceListener::reason_of_change(size_t change) const {
    auto const behind = std::find_if(m_notes.begin(), m_notes.end(),
                                     [&](Note const& each) { return each.changesBefore > change; });
    return behind == m_notes.begin() ? "" : std::prev(behind)->text;
}

} // namespace ffdhost
