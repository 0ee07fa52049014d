#define KIV_PLATFORM_OWN_CALLS
#include "platform/dry_contents.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace dry {
namespace {

// Pieces that are written gather in blocks of up to this many bytes.
constexpr size_t GATHERED_BYTES = 65536;

bool move_pointer(HANDLE hFile, uint64_t ullFileOffset) {
    LONG lHigh = static_cast<LONG>(ullFileOffset >> 32);
    DWORD const dwLow =
        SetFilePointer(hFile, static_cast<LONG>(ullFileOffset & 0xFFFFFFFFu), &lHigh, FILE_BEGIN);
    return dwLow != INVALID_SET_FILE_POINTER || GetLastError() == NO_ERROR;
}

} // namespace

RealFile::RealFile(HANDLE hFile, std::string path) : m_hFile(hFile), m_path(std::move(path)) {
    DWORD dwHigh = 0;
    DWORD const dwLow = GetFileSize(hFile, &dwHigh);
    if (dwLow == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) {
        m_dwError = GetLastError();
    } else {
        m_ullBytes = uint64_t{dwHigh} << 32 | dwLow;
    }
}

RealFile::~RealFile() {
    CloseHandle(m_hFile);
}

DWORD RealFile::read(uint64_t ullOffset, void* pBuffer, size_t nBytes) const {
    DWORD dwRead = 0;
    if (!move_pointer(m_hFile, ullOffset) ||
        !ReadFile(m_hFile, pBuffer, static_cast<DWORD>(nBytes), &dwRead, nullptr)) {
        return GetLastError();
    }
    return dwRead == nBytes ? NO_ERROR : ERROR_HANDLE_EOF;
}

DWORD Held::read(uint64_t ullOffset, void* pBuffer, size_t nBytes) const {
    memcpy(pBuffer, bytes.data() + ullOffset, nBytes);
    return NO_ERROR;
}

std::string const& Held::path() const {
    static std::string const none;
    return none;
}

Contents::Contents(std::shared_ptr<RealFile const> pFile) : m_ullBytes(pFile->size()) {
    if (m_ullBytes > 0) {
        m_runs.push_back({0, 0, std::move(pFile)});
    }
}

uint64_t Contents::end_of(size_t nRun) const {
    return nRun + 1 < m_runs.size() ? m_runs[nRun + 1].ullFileOffset : m_ullBytes;
}

// The run that a file offset in front of the end lies in.
size_t Contents::find_run(uint64_t ullFileOffset) const {
    auto const behind = std::upper_bound(
        m_runs.begin(), m_runs.end(), ullFileOffset,
        [](uint64_t ullOffset, Run const& run) { return ullOffset < run.ullFileOffset; });
    return static_cast<size_t>(behind - m_runs.begin()) - 1;
}

DWORD Contents::read(uint64_t ullFileOffset, void* pBuffer, DWORD dwBytes,
                     DWORD& dwBytesRead) const {
    dwBytesRead = 0;
    if (ullFileOffset >= m_ullBytes) {
        return NO_ERROR;
    }
    uint64_t const ullEnd = std::min(m_ullBytes, ullFileOffset + dwBytes);
    for (size_t nRun = find_run(ullFileOffset); ullFileOffset < ullEnd; ++nRun) {
        Run const& run = m_runs[nRun];
        size_t const nBytes = static_cast<size_t>(std::min(ullEnd, end_of(nRun)) - ullFileOffset);
        char* const pTarget = static_cast<char*>(pBuffer) + dwBytesRead;
        if (run.pSource == nullptr) {
            memset(pTarget, 0, nBytes);
        } else {
            uint64_t const ullInside = ullFileOffset - run.ullFileOffset;
            DWORD const dwError =
                run.pSource->read(run.ullSourceOffset + ullInside, pTarget, nBytes);
            if (dwError != NO_ERROR) {
                return dwError;
            }
        }
        dwBytesRead += static_cast<DWORD>(nBytes);
        ullFileOffset += nBytes;
    }
    return NO_ERROR;
}

// Writes over bytes in memory that nobody else has. False if they are not of that kind.
bool Contents::overwrite(uint64_t ullFileOffset, void const* pBytes, size_t nBytes) {
    if (m_runs.size() != 1 || ullFileOffset + nBytes > m_ullBytes) {
        return false;
    }
    Run const& run = m_runs[0];
    bool const bOwn = run.pSource.use_count() == (run.pSource == m_pHeld ? 2 : 1);
    if (run.pSource == nullptr || !run.pSource->path().empty() || !bOwn) {
        return false;
    }
    auto* const pHeld = const_cast<Held*>(static_cast<Held const*>(run.pSource.get()));
    memcpy(pHeld->bytes.data() + run.ullSourceOffset + ullFileOffset, pBytes, nBytes);
    return true;
}

// Where the next written bytes go: behind those of before, as long as they are few.
std::shared_ptr<Held> Contents::room_for(size_t nBytes) {
    if (m_pHeld == nullptr || m_pHeld->bytes.size() + nBytes > GATHERED_BYTES) {
        m_pHeld = std::make_shared<Held>();
    }
    return m_pHeld;
}

void Contents::write(uint64_t ullFileOffset, void const* pBytes, size_t nBytes) {
    if (nBytes == 0 || overwrite(ullFileOffset, pBytes, nBytes)) {
        return;
    }
    size_t const nRun = open_gap(ullFileOffset, nBytes);
    std::shared_ptr<Held> const pHeld = room_for(nBytes);
    uint64_t const ullSourceOffset = pHeld->bytes.size();
    pHeld->bytes.append(static_cast<char const*>(pBytes), nBytes);
    if (nRun > 0 && m_runs[nRun - 1].pSource == pHeld &&
        m_runs[nRun - 1].ullSourceOffset + (ullFileOffset - m_runs[nRun - 1].ullFileOffset) ==
            ullSourceOffset) {
        return; // goes on where the run in front of it ends
    }
    m_runs.insert(m_runs.begin() + static_cast<ptrdiff_t>(nRun),
                  {ullFileOffset, ullSourceOffset, pHeld});
}

void Contents::write_range(uint64_t ullFileOffset, Contents const& from, uint64_t ullFrom,
                           uint64_t ullBytes) {
    if (ullBytes == 0) {
        return;
    }
    std::vector<Run> copied;
    uint64_t const ullEnd = ullFrom + ullBytes;
    for (size_t nRun = from.find_run(ullFrom);
         nRun < from.m_runs.size() && from.m_runs[nRun].ullFileOffset < ullEnd; ++nRun) {
        Run run = from.m_runs[nRun];
        uint64_t const ullCut =
            ullFrom > run.ullFileOffset ? ullFrom - run.ullFileOffset : uint64_t{0};
        run.ullSourceOffset += ullCut;
        run.ullFileOffset = run.ullFileOffset + ullCut - ullFrom + ullFileOffset;
        copied.push_back(std::move(run));
    }
    size_t const nRun = open_gap(ullFileOffset, ullBytes);
    if (nRun > 0) {
        Run const& before = m_runs[nRun - 1];
        uint64_t const ullGoesOn = before.ullSourceOffset + (ullFileOffset - before.ullFileOffset);
        if (before.pSource == copied[0].pSource && copied[0].ullSourceOffset == ullGoesOn) {
            copied.erase(copied.begin());
        }
    }
    m_runs.insert(m_runs.begin() + static_cast<ptrdiff_t>(nRun),
                  std::make_move_iterator(copied.begin()), std::make_move_iterator(copied.end()));
}

// Makes a run begin at a file offset in front of the end.
void Contents::split_at(uint64_t ullFileOffset) {
    size_t const nRun = find_run(ullFileOffset);
    Run second = m_runs[nRun];
    if (second.ullFileOffset == ullFileOffset) {
        return;
    }
    second.ullSourceOffset += ullFileOffset - second.ullFileOffset;
    second.ullFileOffset = ullFileOffset;
    m_runs.insert(m_runs.begin() + static_cast<ptrdiff_t>(nRun) + 1, std::move(second));
}

// Takes out what a write is going to replace, and makes the file as long as it will be. The result
// is the place of the run that is to fill the gap; until it is there, the runs have a gap.
size_t Contents::open_gap(uint64_t ullFileOffset, uint64_t ullBytes) {
    uint64_t const ullEnd = ullFileOffset + ullBytes;
    if (ullFileOffset > m_ullBytes) {
        resize(ullFileOffset);
    }
    if (ullFileOffset < m_ullBytes) {
        split_at(ullFileOffset);
    }
    if (ullEnd < m_ullBytes) {
        split_at(ullEnd);
    }
    auto const from = [](Run const& run, uint64_t ullOffset) {
        return run.ullFileOffset < ullOffset;
    };
    auto const first = std::lower_bound(m_runs.begin(), m_runs.end(), ullFileOffset, from);
    auto const behind = std::lower_bound(first, m_runs.end(), ullEnd, from);
    m_ullBytes = std::max(m_ullBytes, ullEnd);
    return static_cast<size_t>(m_runs.erase(first, behind) - m_runs.begin());
}

void Contents::resize(uint64_t ullBytes) {
    if (ullBytes > m_ullBytes && (m_runs.empty() || m_runs.back().pSource != nullptr)) {
        m_runs.push_back({m_ullBytes, 0, nullptr});
    }
    while (!m_runs.empty() && m_runs.back().ullFileOffset >= ullBytes) {
        m_runs.pop_back();
    }
    m_ullBytes = ullBytes;
}

} // namespace dry
