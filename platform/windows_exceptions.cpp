// What each thread holds of exceptions, kept so that an unload gives it back.
//
// The compiler's runtime library, linked in, takes an index of thread local storage when something
// is first thrown, some memory for each thread that throws, and a reserve of 70 KiB at load, and
// frees none of these: a host that loads and unloads again and again is ended when the thousand
// indices of a process are used up. So this object has the two functions that the C++ ABI lays down
// for that state, which keeps the library's own out of the link, and gives the reserve back.
//
// Linked into each DLL as an object: as a part of an archive it would come too late.
#include <windows.h>

#include <cxxabi.h>

namespace __gnu_cxx {
void __freeres(); // gives the reserve back; in no header
}

namespace {

// The layout that the ABI lays down for __cxa_eh_globals.
struct ThreadState {
    void* caught;
    unsigned uncaught;
};

// Without memory, or without an index, all threads share this one: the library's callers never
// throw in two threads at a time.
ThreadState g_shared;

void WINAPI free_state(void* state) {
    HeapFree(GetProcessHeap(), 0, state);
}

class Index {
public:
    Index() : m_index(FlsAlloc(free_state)) {}
    // Calls free_state for every thread that has a state.
    ~Index() {
        if (m_index != FLS_OUT_OF_INDEXES) {
            FlsFree(m_index);
        }
        m_index = FLS_OUT_OF_INDEXES;
        __gnu_cxx::__freeres();
    }
    Index(Index const&) = delete;
    Index& operator=(Index const&) = delete;

    ThreadState* state() const {
        if (m_index == FLS_OUT_OF_INDEXES) {
            return &g_shared;
        }
        // Both calls touch the last error, which a caller may ask for after this.
        DWORD const lastError = GetLastError();
        void* state = FlsGetValue(m_index);
        if (state == nullptr) {
            state = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(ThreadState));
            if (state != nullptr && !FlsSetValue(m_index, state)) {
                free_state(state);
                state = nullptr;
            }
        }
        SetLastError(lastError);
        return state != nullptr ? static_cast<ThreadState*>(state) : &g_shared;
    }

private:
    DWORD m_index;
};

Index const g_index;

} // namespace

namespace __cxxabiv1 {

extern "C" __cxa_eh_globals* __cxa_get_globals() noexcept {
    return reinterpret_cast<__cxa_eh_globals*>(g_index.state());
}

extern "C" __cxa_eh_globals* __cxa_get_globals_fast() noexcept {
    return reinterpret_cast<__cxa_eh_globals*>(g_index.state());
}

} // namespace __cxxabiv1
