#include "platform/posix_handles.h"

#include "platform/platform.h"
#include "platform/posix_descriptors.h"
#include "platform/posix_errors.h"

#include <array>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace posix {
namespace {

// More than a process may have descriptors, as a rule. Places that were never used cost no memory.
constexpr uint32_t PLACES = 65536;
constexpr unsigned INDEX_BITS = 16;
constexpr unsigned TAG_BITS = 2; // the platform keeps the low two bits of a handle at 0
static_assert(sizeof(uintptr_t) == 8);

struct Place {
    Object* pObject;    // null while the place is free or only reserved
    uint32_t uNumber;   // of the present use; a handle with another number is stale
    uint32_t uNextFree; // index + 1
};

// None of this has a destructor, so calls work until the very end of the process.
constinit std::mutex g_mutex;
constinit std::array<Place, PLACES> g_places{};
constinit uint32_t g_uFirstFree = 0; // index + 1
constinit uint32_t g_uPlacesUsed = 0;

HANDLE handle_of(uint32_t uIndex, uint32_t uNumber) {
    uintptr_t const value = (static_cast<uintptr_t>(uNumber) << INDEX_BITS) | uIndex;
    return reinterpret_cast<HANDLE>((value << TAG_BITS));
}

// The place that the handle names, null if it is none of an open object. The mutex is held.
Place* find(HANDLE handle) {
    uintptr_t const value = reinterpret_cast<uintptr_t>(handle);
    uint32_t const uIndex = static_cast<uint32_t>((value >> TAG_BITS) & (PLACES - 1));
    Place& place = g_places[uIndex];
    if (place.pObject == nullptr || handle_of(uIndex, place.uNumber) != handle) {
        return nullptr;
    }
    return &place;
}

void free_place(uint32_t uIndex) {
    g_places[uIndex].uNextFree = g_uFirstFree;
    g_uFirstFree = uIndex + 1;
}

// One holder lets go. True if it was the last one, to which the object then belongs.
bool let_go(Object& object) {
    return --object.uHolders == 0;
}

} // namespace

Object::~Object() {
    finish();
}

DWORD Object::finish() {
    if (fd < 0) {
        return NO_ERROR;
    }
    struct stat status {};
    if (bDeleteOnClose && stat(pszPath.get(), &status) == 0 && status.st_dev == device &&
        status.st_ino == inode) {
        unlink(pszPath.get());
    }
    int const iClosing = fd;
    fd = -1;
    int const iErrno = close_descriptor(iClosing);
    return iErrno == 0 ? NO_ERROR : error_of(iErrno);
}

NewHandle::NewHandle(Kind kind) : m_pObject(new (std::nothrow) Object) {
    if (!m_pObject) {
        m_dwError = ERROR_NOT_ENOUGH_MEMORY;
        return;
    }
    m_pObject->kind = kind;
    std::lock_guard const lock(g_mutex);
    if (g_uFirstFree != 0) {
        m_uIndex = g_uFirstFree - 1;
        g_uFirstFree = g_places[m_uIndex].uNextFree;
    } else if (g_uPlacesUsed < PLACES) {
        m_uIndex = g_uPlacesUsed++;
    } else {
        m_dwError = ERROR_TOO_MANY_OPEN_FILES;
    }
}

NewHandle::~NewHandle() {
    if (m_bPublished || m_dwError != NO_ERROR) {
        return;
    }
    std::lock_guard const lock(g_mutex);
    free_place(m_uIndex);
}

HANDLE NewHandle::publish() {
    std::lock_guard const lock(g_mutex);
    Place& place = g_places[m_uIndex];
    if (++place.uNumber == 0) { // with number 0 the first handle would be null
        ++place.uNumber;
    }
    m_pObject->uHolders = 1;
    place.pObject = m_pObject.release();
    m_bPublished = true;
    return handle_of(m_uIndex, place.uNumber);
}

HANDLE NewHandle::publish_after(DWORD dwError, HANDLE hFailed) {
    return dwError == NO_ERROR ? publish() : (fail(dwError), hFailed);
}

ObjectUse::ObjectUse(HANDLE handle, Kind kind) {
    std::lock_guard const lock(g_mutex);
    Place const* const pPlace = find(handle);
    if (pPlace == nullptr || pPlace->pObject->kind != kind) {
        return;
    }
    m_pObject = pPlace->pObject;
    ++m_pObject->uHolders;
}

ObjectUse::~ObjectUse() {
    if (m_pObject != nullptr && let_go(*m_pObject)) {
        delete m_pObject;
    }
}

DWORD close_handle(HANDLE handle) {
    std::unique_ptr<Object> pLast;
    {
        std::lock_guard const lock(g_mutex);
        Place* const pPlace = find(handle);
        if (pPlace == nullptr) {
            return ERROR_INVALID_HANDLE;
        }
        if (let_go(*pPlace->pObject)) {
            pLast.reset(pPlace->pObject);
        }
        pPlace->pObject = nullptr;
        free_place(static_cast<uint32_t>(pPlace - g_places.data()));
    }
    return pLast ? pLast->finish() : NO_ERROR;
}

std::mutex& table_mutex() {
    return g_mutex;
}

void forget_handles() {
    for (uint32_t uIndex = 0; uIndex < g_uPlacesUsed; ++uIndex) {
        if (g_places[uIndex].pObject != nullptr) {
            g_places[uIndex].pObject = nullptr;
            free_place(uIndex);
        }
    }
}

} // namespace posix
