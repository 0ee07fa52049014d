#include "testing/power_cut.h"

#include <algorithm>
#include <random>
#include <utility>

namespace power_cut {
namespace {

constexpr size_t SECTOR = 512;

std::optional<Record> g_record;
std::optional<uint64_t> g_ullRoom;

// How many of the bytes of a write at the file pointer find room, which they take.
DWORD take_room(HANDLE hFile, DWORD dwBytes) {
    if (!g_ullRoom) {
        return dwBytes;
    }
    DWORD const dwSize = GetFileSize(hFile, nullptr);
    DWORD const dwPointer = SetFilePointer(hFile, 0, nullptr, FILE_CURRENT);
    uint64_t const ullInside = dwSize - std::min(dwSize, dwPointer);
    uint64_t const ullMoved = std::min<uint64_t>(dwBytes, ullInside + *g_ullRoom);
    *g_ullRoom -= ullMoved - std::min(ullMoved, ullInside);
    return static_cast<DWORD>(ullMoved);
}

std::string const& name_of(size_t nFile) {
    auto const& names = g_record->names;
    return std::find_if(names.begin(), names.end(),
                        [&](auto const& name) { return name.second == nFile; })
        ->first;
}

void note_opened(HANDLE hFile, char const* pszPath, DWORD dwFlags) {
    // A stored status vanishes with its process.
    if (!g_record || hFile == INVALID_HANDLE_VALUE || (dwFlags & FILE_FLAG_DELETE_ON_CLOSE) != 0) {
        return;
    }
    Record& record = *g_record;
    auto const [found, bMade] = record.names.emplace(pszPath, record.nFiles);
    record.handles[hFile] = found->second;
    if (bMade) {
        record.changes.push_back({Change::Made, record.nFiles++, pszPath, {}});
    }
}

void note_handle(HANDLE hFile, bool bDone, bool bFlushed) {
    if (!g_record || !bDone || !g_record->handles.contains(hFile)) {
        return;
    }
    size_t const nFile = g_record->handles[hFile];
    std::string const& name = name_of(nFile);
    if (bFlushed) {
        g_record->changes.push_back({Change::Flushed, nFile, name, {}});
    } else {
        auto const pBytes = std::make_shared<std::string const>(memory_disk::get(name));
        g_record->changes.push_back({Change::Written, nFile, name, pBytes});
    }
}

void note_name(char const* pszPath, bool bDone, char const* pszNewPath) {
    if (!g_record || !bDone || !g_record->names.contains(pszPath)) {
        return;
    }
    size_t const nFile = g_record->names.extract(pszPath).mapped();
    if (pszNewPath == nullptr) {
        g_record->changes.push_back({Change::Removed, nFile, pszPath, {}});
    } else {
        g_record->names[pszNewPath] = nFile;
        g_record->changes.push_back({Change::Renamed, nFile, pszNewPath, {}});
    }
}

// What a file may hold in parts: the last is what was written last, the first what was flushed.
using States = std::vector<Bytes>;

// Any mix of the states of a file.
std::string mix(States const& states, size_t nSize, std::mt19937& random) {
    enum Manner { Newest, Oldest, AnyOne, Sectors };
    auto const manner = static_cast<Manner>(random() % 4);
    auto const any = [&]() -> Bytes const& { return states[random() % states.size()]; };
    std::string bytes = *(manner == Newest ? states.back() : manner == Oldest ? states[0] : any());
    bytes.resize(nSize);
    auto const put = [&](std::string const& from, size_t nAt, size_t nBehind) {
        for (; nAt < nBehind; ++nAt) {
            bytes[nAt] = nAt < from.size() ? from[nAt] : '\0';
        }
    };
    for (size_t nAt = 0; manner == Sectors && nAt < nSize; nAt += SECTOR) {
        size_t const nBehind = std::min(nAt + SECTOR, nSize);
        size_t const nTorn = random() % 4 == 0 ? random() % SECTOR : 0;
        put(*any(), std::min(nAt + nTorn, nBehind), nBehind);
    }
    return bytes;
}

} // namespace

void record() {
    g_record.emplace();
    for (auto const& [name, bytes] : memory_disk::all()) {
        size_t const nFile = g_record->nFiles++;
        g_record->names[name] = nFile;
        g_record->before.push_back(
            {Change::Made, nFile, name, std::make_shared<std::string const>(bytes)});
    }
}

void set_room(std::optional<uint64_t> ullBytes) {
    g_ullRoom = ullBytes;
}

size_t changes() {
    return g_record->changes.size();
}

bool is_recording() {
    return g_record.has_value();
}

Record take() {
    return std::exchange(g_record, std::nullopt).value();
}

memory_disk::Files Record::left(size_t nChange, unsigned nSeed) const {
    std::mt19937 random(nSeed);
    auto const end = changes.begin() + static_cast<ptrdiff_t>(nChange);
    auto const flushed =
        std::find_if(std::make_reverse_iterator(end), changes.rend(), [](Change const& change) {
            return change.kind == Change::Flushed;
        }).base();
    auto ordered = end; // behind the last name and size that are on the disk
    if (nSeed > 0) {
        ordered =
            flushed + (nSeed == 1 ? 0 : static_cast<ptrdiff_t>(random()) % (end - flushed + 1));
    }
    Bytes const pNone = std::make_shared<std::string const>();
    std::vector<States> states(nFiles, {pNone});
    std::vector<size_t> sizes(nFiles);
    std::map<size_t, std::string> present;
    for (Change const& file : before) {
        states[file.nFile] = {file.pBytes};
        sizes[file.nFile] = file.pBytes->size();
        present[file.nFile] = file.name;
    }
    for (auto change = changes.begin(); change != end; ++change) {
        bool const bOrdered = change < ordered;
        size_t& nSize = sizes[change->nFile];
        if (change->kind == Change::Written) {
            states[change->nFile].push_back(change->pBytes);
            if (bOrdered) {
                nSize = change->pBytes->size();
            } else if (change == ordered && nSeed > 1 && change->pBytes->size() > nSize) {
                // One write may make a file grow in steps.
                nSize += random() % (change->pBytes->size() - nSize) / SECTOR * SECTOR;
            }
        } else if (change->kind == Change::Flushed) {
            states[change->nFile] = {states[change->nFile].back()};
        } else if (bOrdered && change->kind == Change::Removed) {
            present.erase(change->nFile);
        } else if (bOrdered) {
            present[change->nFile] = change->name;
        }
    }
    memory_disk::Files left;
    std::erase_if(present, [](auto const& file) { return file.second.ends_with(".csf"); });
    for (auto const& [nFile, name] : present) {
        States const one{nSeed == 0 ? states[nFile].back() : states[nFile].front()};
        left[name] = mix(nSeed < 2 ? one : states[nFile], sizes[nFile], random);
    }
    return left;
}

// The calls of the driver to the disk in memory (linked with --wrap).
extern "C" {
HANDLE WINAPI __real_DryCreateFileA(LPCSTR, DWORD, DWORD, LPVOID, DWORD, DWORD, HANDLE);
BOOL WINAPI __real_DryWriteFile(HANDLE, LPCVOID, DWORD, LPDWORD, LPVOID);
BOOL WINAPI __real_DryFlushFileBuffers(HANDLE);
BOOL WINAPI __real_DryDeleteFileA(LPCSTR);
BOOL WINAPI __real_DryMoveFileA(LPCSTR, LPCSTR);
HANDLE __real_DryPlatformCreatePrivateFile(LPCSTR, DWORD, DWORD, HANDLE);
DWORD __real_DryPlatformCopyBytes(HANDLE, HANDLE, DWORD);

HANDLE WINAPI __wrap_DryCreateFileA(LPCSTR pszPath, DWORD dwAccess, DWORD dwShare, LPVOID pSecurity,
                                    DWORD dwDisposition, DWORD dwFlags, HANDLE hTemplate) {
    HANDLE const hFile = __real_DryCreateFileA(pszPath, dwAccess, dwShare, pSecurity, dwDisposition,
                                               dwFlags, hTemplate);
    note_opened(hFile, pszPath, dwFlags);
    return hFile;
}

HANDLE __wrap_DryPlatformCreatePrivateFile(LPCSTR pszPath, DWORD dwAccess, DWORD dwShare,
                                           HANDLE hLike) {
    HANDLE const hFile = __real_DryPlatformCreatePrivateFile(pszPath, dwAccess, dwShare, hLike);
    note_opened(hFile, pszPath, 0);
    return hFile;
}

BOOL WINAPI __wrap_DryWriteFile(HANDLE hFile, LPCVOID pBuffer, DWORD dwBytes, LPDWORD pdwWritten,
                                LPVOID pOverlapped) {
    DWORD const dwRoom = take_room(hFile, dwBytes);
    BOOL const bWritten = __real_DryWriteFile(hFile, pBuffer, dwRoom, pdwWritten, pOverlapped);
    note_handle(hFile, bWritten != FALSE, false);
    if (bWritten && dwRoom < dwBytes) {
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    }
    return bWritten;
}

DWORD __wrap_DryPlatformCopyBytes(HANDLE hFrom, HANDLE hTo, DWORD dwBytes) {
    DWORD const dwMoved = __real_DryPlatformCopyBytes(hFrom, hTo, take_room(hTo, dwBytes));
    note_handle(hTo, dwMoved > 0, false);
    return dwMoved;
}

BOOL WINAPI __wrap_DryFlushFileBuffers(HANDLE hFile) {
    BOOL const bFlushed = __real_DryFlushFileBuffers(hFile);
    note_handle(hFile, bFlushed != FALSE, true);
    return bFlushed;
}

BOOL WINAPI __wrap_DryDeleteFileA(LPCSTR pszPath) {
    BOOL const bRemoved = __real_DryDeleteFileA(pszPath);
    note_name(pszPath, bRemoved != FALSE, nullptr);
    return bRemoved;
}

BOOL WINAPI __wrap_DryMoveFileA(LPCSTR pszPath, LPCSTR pszNewPath) {
    BOOL const bMoved = __real_DryMoveFileA(pszPath, pszNewPath);
    note_name(pszPath, bMoved != FALSE, pszNewPath);
    return bMoved;
}
}

} // namespace power_cut
