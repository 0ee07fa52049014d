// The heap, and anonymous mappings.
#include "platform/platform.h"
#include "platform/posix_errors.h"
#include "platform/posix_handles.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <sys/mman.h>

namespace posix {
namespace {

struct View {
    void* pBase = nullptr;
    Memory pMemory; // outlives the handle of the mapping
    View* pNext = nullptr;
};

constinit View* g_pViews = nullptr; // guarded by the table's mutex

// Memory that is given back with its last holder; null, with errno set, on failure.
Memory hold_pages(void* pBase, size_t bytes) {
    if (pBase == MAP_FAILED) {
        return nullptr;
    }
    try {
        return Memory(pBase, [bytes](void* pHeld) { munmap(pHeld, bytes); });
    } catch (std::bad_alloc const&) { // the pages are given back by then
        errno = ENOMEM;
        return nullptr;
    }
}

// No file stands behind it, which a limit on the size of files could meet.
DWORD make_mapping(uint64_t ullBytes, Object& object) {
    if (ullBytes > SIZE_MAX) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    size_t const bytes = static_cast<size_t>(ullBytes);
    object.pMapping = hold_pages(
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0), bytes);
    if (!object.pMapping) {
        return error_of(errno);
    }
    object.ullMappingBytes = ullBytes;
    return NO_ERROR;
}

// Enters a part of the mapping among the views: the pages themselves for the first view, and for
// each further one a place of its own for them. Null, with `dwError` set, on failure.
void* map_view(Object& mapping, uint64_t ullOffset, size_t bytes, DWORD& dwError) {
    std::unique_ptr<View> pView(new (std::nothrow) View);
    if (!pView) {
        dwError = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    std::lock_guard const lock(table_mutex());
    void* pBase = static_cast<BYTE*>(mapping.pMapping.get()) + ullOffset;
    pView->pMemory = mapping.pMapping;
    if (mapping.bViewed) {
        // An old size of 0 maps the same shared pages once more.
        pView->pMemory = hold_pages(mremap(pBase, 0, bytes, MREMAP_MAYMOVE), bytes);
        pBase = pView->pMemory.get();
    }
    if (pBase == nullptr) {
        dwError = error_of(errno);
        return nullptr;
    }
    mapping.bViewed = true;
    pView->pBase = pBase;
    pView->pNext = g_pViews;
    g_pViews = pView.release();
    return pBase;
}

std::unique_ptr<View> take_view(void const* pBase) {
    std::lock_guard const lock(table_mutex());
    for (View** ppView = &g_pViews; *ppView != nullptr; ppView = &(*ppView)->pNext) {
        if ((*ppView)->pBase != pBase) {
            continue;
        }
        std::unique_ptr<View> pFound(*ppView);
        *ppView = pFound->pNext;
        return pFound;
    }
    return nullptr;
}

} // namespace
} // namespace posix

HANDLE WINAPI GetProcessHeap(void) {
    return reinterpret_cast<HANDLE>(uintptr_t{1});
}

LPVOID WINAPI HeapAlloc(HANDLE /*hHeap*/, DWORD dwFlags, SIZE_T dwBytes) {
    void* pMemory = nullptr;
    if (dwBytes <= PTRDIFF_MAX) {
        pMemory = (dwFlags & HEAP_ZERO_MEMORY) != 0 ? calloc(1, dwBytes) : malloc(dwBytes);
    }
    if (pMemory == nullptr) {
        posix::fail(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return pMemory;
}

BOOL WINAPI HeapFree(HANDLE /*hHeap*/, DWORD /*dwFlags*/, LPVOID lpMem) {
    free(lpMem);
    return TRUE;
}

HANDLE WINAPI CreateFileMappingA(HANDLE hFile, LPVOID /*lpAttributes*/, DWORD flProtect,
                                 DWORD dwMaximumSizeHigh, DWORD dwMaximumSizeLow, LPCSTR lpName) {
    uint64_t const ullBytes = static_cast<uint64_t>(dwMaximumSizeHigh) << 32 | dwMaximumSizeLow;
    posix::NewHandle newHandle(posix::Kind::Mapping);
    DWORD dwError = newHandle.error();
    if (hFile != INVALID_HANDLE_VALUE || lpName != nullptr || flProtect != PAGE_READWRITE ||
        ullBytes == 0 || ullBytes > INT64_MAX) {
        dwError = ERROR_INVALID_PARAMETER;
    }
    if (dwError == NO_ERROR) {
        dwError = posix::make_mapping(ullBytes, newHandle.object());
    }
    return newHandle.publish_after(dwError, nullptr);
}

LPVOID WINAPI MapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess,
                            DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                            SIZE_T dwNumberOfBytesToMap) {
    uint64_t const ullOffset = static_cast<uint64_t>(dwFileOffsetHigh) << 32 | dwFileOffsetLow;
    posix::ObjectUse const mapping(hFileMappingObject, posix::Kind::Mapping);
    DWORD dwError = NO_ERROR;
    void* pBase = nullptr;
    if (!mapping) {
        dwError = ERROR_INVALID_HANDLE;
    } else if (dwDesiredAccess != FILE_MAP_WRITE) {
        dwError = ERROR_INVALID_PARAMETER;
    } else if (ullOffset >= mapping->ullMappingBytes ||
               dwNumberOfBytesToMap > mapping->ullMappingBytes - ullOffset) {
        dwError = ERROR_ACCESS_DENIED; // as the platform has it for a view behind the end
    } else {
        pBase = posix::map_view(*mapping, ullOffset,
                                dwNumberOfBytesToMap != 0 ? dwNumberOfBytesToMap
                                                          : mapping->ullMappingBytes - ullOffset,
                                dwError);
    }
    if (dwError != NO_ERROR) {
        posix::fail(dwError);
    }
    return pBase;
}

BOOL WINAPI UnmapViewOfFile(LPCVOID lpBaseAddress) {
    std::unique_ptr<posix::View> const pView = posix::take_view(lpBaseAddress);
    if (!pView) {
        return posix::fail(ERROR_INVALID_PARAMETER);
    }
    return TRUE;
}
