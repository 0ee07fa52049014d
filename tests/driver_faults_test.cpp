// Every platform call and every allocation fails once, within every operation of the table: the
// status is one of the operation's own, nothing is lost or left open, and the dictation is the one
// before or behind the operation.

#include "testing/driver_folder.h"

#include <algorithm>
#include <iostream>
#include <new>

using platform_faults::Call;

// ---- Memory that runs out ----

namespace {

long g_nAllocationsLeft = -1; // below 0: memory does not run out

bool is_out_of_memory() {
    return g_nAllocationsLeft >= 0 && g_nAllocationsLeft-- == 0;
}

} // namespace

// The linker puts the second in the place of malloc within the test program (--wrap=malloc).
extern "C" void* __real_malloc(size_t nBytes);
extern "C" void* __wrap_malloc(size_t nBytes);

extern "C" void* __wrap_malloc(size_t nBytes) {
    return is_out_of_memory() ? nullptr : __real_malloc(nBytes);
}

void* operator new(size_t nBytes, std::nothrow_t const& /*tag*/) noexcept {
    return is_out_of_memory() ? nullptr : __real_malloc(nBytes + 1);
}

void* operator new(size_t nBytes) {
    void* const pvBlock = operator new(nBytes, std::nothrow);
    return pvBlock == nullptr ? throw std::bad_alloc() : pvBlock;
}

[[gnu::noinline]] void operator delete(void* pvBlock) noexcept {
    free(pvBlock);
}

[[gnu::noinline]] void operator delete(void* pvBlock, size_t /*nBytes*/) noexcept {
    free(pvBlock);
}

namespace {

struct Fault {
    Call call; // Call::Any: not a call, but the memory
    std::function<void(unsigned)> arm;
    std::function<bool(unsigned)> is_met; // whether the nth one came
};

std::vector<Fault> all_faults() {
    std::vector<Fault> faults;
    for (int nCall = 0; nCall < static_cast<int>(Call::Any); ++nCall) {
        Call const call = static_cast<Call>(nCall);
        auto const is_met = [call](unsigned nth) { return platform_faults::count(call) >= nth; };
        faults.push_back(
            {call, [=](unsigned nth) { platform_faults::fail(call, nth, 5); }, is_met});
        if (call == Call::ReadFile || call == Call::WriteFile || call == Call::CopyBytes) {
            for (DWORD const dwError : {112u, 0u}) {
                faults.push_back({call,
                                  [=](unsigned nth) { platform_faults::halve(call, nth, dwError); },
                                  is_met});
            }
        }
    }
    faults.push_back({Call::Any,
                      [](unsigned nth) { g_nAllocationsLeft = static_cast<long>(nth) - 1; },
                      [](unsigned) { return g_nAllocationsLeft < 0; }});
    return faults;
}

std::string const g_head = id3v2_tag(70);
std::string const g_audio = frames(20);
std::string g_piece = frames(2, 5);
std::string g_read(3000, '\0');

// What runs while faults are armed must not allocate on its own.
void move_to(FFDHandle handle, uint32_t position) {
    uint32_t nReached = 0;
    driver().AudioSeek(handle, position, &nReached);
}

FFDError write_piece(FFDHandle handle, FFDMethod method, uint32_t at) {
    move_to(handle, at);
    return driver().WriteData(handle, method, 192, reinterpret_cast<uint8_t*>(g_piece.data()));
}

FFDError read_everything(FFDHandle& handle) {
    FFDReadHandle* pReadHandle = nullptr;
    move_to(handle, 0);
    driver().GetSizeOfData(handle, 3000, &pReadHandle);
    return driver().ReadData(handle, pReadHandle, 3000, reinterpret_cast<uint8_t*>(g_read.data()));
}

FFDError delete_some(FFDHandle& handle) {
    move_to(handle, 96);
    return driver().DeleteData(handle, 96);
}

FFDError close_it(FFDHandle& handle) {
    FFDHandle const closed = handle;
    handle = nullptr;
    return driver().Close(closed);
}

void host_callback(void*, uint32_t, uint64_t, uint64_t, uint64_t) {}

enum class Kind { Open, Edit, Read, Undo, Store, Close };

class FaultsTest : public FolderTest {
protected:
    using Session = std::function<void(FFDHandle)>;

    struct Operation {
        char const* pszName;
        Kind kind;
        Session prepare; // on the open handle; an operation that opens has none
        std::function<FFDError(FFDHandle&)> run;
        std::vector<FFDError> statuses;
        std::string before; // the dictation if the operation fails
        std::string after;  // ... and if it works
        Files files = {{"a.mp3", g_head + g_audio}};
        FFDDesiredAccess access = FFD_ACCESS_READWRITE;
    };

    FaultsTest() { m_callback.dwCallback = reinterpret_cast<uint64_t>(&host_callback); }

    FFDError create(FFDHandle& handle, FFDDesiredAccess access) {
        handle = driver().CreateFile(m_sound.c_str(), access, 2, nullptr, m_callback, &m_status,
                                     nullptr);
        return m_status;
    }

    std::vector<Operation> operations();
    bool run(Operation const& operation, Fault const& fault, unsigned nth, bool bEditAgain);
    void expect_files_of(Operation const& operation, FFDError status) const;

    static void expect_all_released() {
        EXPECT_EQ(platform_faults::open_handles(), 0u);
        EXPECT_EQ(platform_faults::heap_blocks(), 0u);
        EXPECT_EQ(platform_faults::mapped_views(), 0u);
    }
};

std::vector<FaultsTest::Operation> FaultsTest::operations() {
    std::string const grown = g_head + g_audio + frames(2, 3);
    std::string const inserted = g_audio.substr(0, 480) + frames(2, 3) + g_audio.substr(480);
    std::string const edited = inserted.substr(0, 960) + inserted.substr(1152);
    std::string const image = dir_image({{1, 0, 480}, {1, 1920, 2112}, {1, 480, 1920}});
    auto const with_piece = [&](std::string dictation, size_t at, size_t nReplaced) {
        return dictation.replace(at, nReplaced, g_piece);
    };
    Session const nothing = [](FFDHandle) {};
    Session const edit = [](FFDHandle h) {
        EXPECT_EQ(insert(h, 480, frames(2, 3)), 0u);
        EXPECT_EQ(erase(h, 960, 192), 0u);
    };
    Session const store = [=](FFDHandle h) {
        edit(h);
        EXPECT_EQ(driver().StoreActualFileStatus(h), 0u);
    };
    Session const store_and_write = [=](FFDHandle h) {
        store(h);
        EXPECT_EQ(write_piece(h, 1, 0), 0u);
    };
    Session const delete_and_restore = [](FFDHandle h) {
        EXPECT_EQ(driver().StoreActualFileStatus(h), 0u);
        EXPECT_EQ(delete_some(h), 0u);
        EXPECT_EQ(driver().RestoreFileStatus(h), 0u);
    };
    Session const append = [](FFDHandle h) { EXPECT_EQ(write_piece(h, 1, 1920), 0u); };
    auto const open_it = [this](FFDHandle& h) { return create(h, FFD_ACCESS_READWRITE); };
    auto const open_to_read = [this](FFDHandle& h) { return create(h, FFD_ACCESS_READ); };
    auto const write = [](FFDMethod method, uint32_t at) {
        return [=](FFDHandle& h) { return write_piece(h, method, at); };
    };
    auto const undo = [](FFDHandle& h) { return driver().UndoLast(h); };
    auto const store_it = [](FFDHandle& h) { return driver().StoreActualFileStatus(h); };
    auto const restore = [](FFDHandle& h) { return driver().RestoreFileStatus(h); };
    std::string const appended = g_audio + g_piece;
    std::vector<Operation> all = {
        {"open to read", Kind::Open, nothing, open_to_read, {27, 29}, g_audio, g_audio},
        {"open", Kind::Open, nothing, open_it, {27, 29}, g_audio, g_audio},
        {"read", Kind::Read, edit, read_everything, {29}, edited, edited},
        {"insert", Kind::Edit, edit, write(1, 288), {29}, edited, with_piece(edited, 288, 0)},
        {"append", Kind::Edit, nothing, write(1, 1920), {29}, g_audio, appended},
        {"overwrite", Kind::Edit, edit, write(2, 480), {29}, edited, with_piece(edited, 480, 192)},
        {"delete",
         Kind::Edit,
         edit,
         delete_some,
         {},
         edited,
         edited.substr(0, 96) + edited.substr(192)},
        {"undo", Kind::Undo, edit, undo, {22}, edited, inserted},
        {"store", Kind::Store, edit, store_it, {29}, edited, edited},
        {"store again", Kind::Store, store, store_it, {29}, edited, edited},
        {"restore", Kind::Edit, store_and_write, restore, {29}, with_piece(edited, 0, 0), edited},
        {"close with a rebuild", Kind::Close, store, close_it, {6, 27, 29}, edited, edited},
        {"close with a rebuild of a large block",
         Kind::Close,
         [](FFDHandle h) { EXPECT_EQ(erase(h, 0, 96), 0u); },
         close_it,
         {6, 27, 29},
         frames(600).substr(96),
         frames(600).substr(96),
         {{"a.mp3", g_head + frames(600)}}},
        {"close behind a restore",
         Kind::Close,
         delete_and_restore,
         close_it,
         {29},
         g_audio,
         g_audio},
        {"close without a rebuild", Kind::Close, append, close_it, {29}, appended, appended},
        {"close to read", Kind::Close, nothing, close_it, {}, g_audio, g_audio},
    };
    all.front().access = all.back().access = FFD_ACCESS_READ;
    auto const add_open = [&](char const* pszName, std::string const& dictation,
                              Files const& files) {
        all.push_back(
            {pszName, Kind::Open, nothing, open_it, {27, 29}, dictation, dictation, files});
    };
    add_open("open, empty directory", g_audio, {{"a.mp3", g_head + g_audio}, {"a.DIR", ""}});
    add_open("open, leftover directory", inserted, {{"a.mp3", grown}, {"a.DIR", image}});
    add_open("open, damaged directory", g_audio + frames(2, 3),
             {{"a.mp3", grown}, {"a.DIR", "\7" + image}});
    // What a close that was cut off leaves, as far as there is a marker.
    int nExitCode = 86;
    for (unsigned nth = 1; nExitCode == 86; ++nth) {
        put({{"a.mp3", g_head + g_audio}});
        nExitCode = crash_after([&] {
            FFDHandle const handle = open(m_sound);
            edit(handle);
            platform_faults::stop_before_change(nth);
            close(handle);
        });
        if (exists(path("a.CLM"))) {
            add_open("open, interrupted close", edited, files());
        }
    }
    return all;
}

// One operation with one fault, and everything behind it without. False if the fault was not met.
bool FaultsTest::run(Operation const& operation, Fault const& fault, unsigned nth,
                     bool bEditAgain) {
    put(operation.files);
    FFDHandle handle = nullptr;
    if (operation.kind != Kind::Open) {
        EXPECT_EQ(create(handle, operation.access), 0u);
        operation.prepare(handle);
    }
    platform_faults::reset();
    platform_faults::pretend_free_bytes(20000000); // enough for a rebuild, not for the watch
    fault.arm(nth);
    FFDError const status = operation.run(handle);
    bool const bMet = fault.is_met(nth);
    g_nAllocationsLeft = -1;
    platform_faults::reset();

    auto const& statuses = operation.statuses;
    EXPECT_TRUE(status == 0 ||
                (bMet && std::find(statuses.begin(), statuses.end(), status) != statuses.end()))
        << status;
    EXPECT_EQ(handle == nullptr,
              operation.kind == Kind::Close || (operation.kind == Kind::Open && status != 0));
    expect_files_of(operation, status);
    if (handle == nullptr) {
        expect_all_released();
        EXPECT_EQ(create(handle, FFD_ACCESS_READWRITE), 0u);
        if (handle == nullptr) {
            return false;
        }
    }
    std::string dictation = status == 0 ? operation.after : operation.before;
    size_t nReadable = std::string::npos;
    if (operation.kind == Kind::Read) {
        // A read that stops short says so by the position.
        size_t const nRead = position(handle);
        EXPECT_TRUE(nRead == dictation.size() || bMet) << nRead;
        EXPECT_TRUE(same_bytes(g_read.substr(0, nRead), dictation.substr(0, nRead)));
    } else if (operation.kind == Kind::Store) {
        EXPECT_EQ(driver().RestoreFileStatus(handle), status == 0 ? 0u : 33u);
    } else if (operation.kind == Kind::Undo && status != 0) {
        // Live in memory, with the length of before until the next edit.
        nReadable = dictation.size();
        dictation = operation.after;
    }
    EXPECT_TRUE(same_bytes(read_all(handle), dictation.substr(0, nReadable)));
    for (std::string const& name : listing()) {
        if (name.find(".MP3") == 10) {
            std::filesystem::remove(path(name));
        }
    }
    if (bEditAgain && operation.access == FFD_ACCESS_READWRITE) {
        EXPECT_EQ(insert(handle, 0, frames(1, 9)), 0u);
        dictation.insert(0, frames(1, 9));
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
    }
    close(handle);
    expect_all_released();
    EXPECT_TRUE(same_bytes(read_file(m_sound), g_head + dictation));
    for (std::string const& name : listing()) {
        bool const bAside = name == "a.DIR.bad" && operation.files.count("a.CLM") == 0;
        bool const bStays = fault.call == Call::DeleteFile && name.find(".csf") == 10;
        EXPECT_TRUE(name == "a.mp3" || bAside || bStays) << name;
    }
    if (!bEditAgain) {
        put({{"a.mp3", read_file(m_sound)}});
        EXPECT_EQ(crash_after([&] { expect_dictation(dictation, g_head + dictation); }), 0);
    }
    return bMet;
}

// The sound file right behind the operation: the bytes of before, with or without new ones behind
// them, or the finished file, if need be still under its temporary name. A directory that a failed
// open has met is still there.
void FaultsTest::expect_files_of(Operation const& operation, FFDError status) const {
    Files const now = files();
    auto const sound = now.find("a.mp3");
    auto const old = operation.files.find("a.mp3");
    auto const directory = operation.files.find("a.DIR");
    bool bOld = sound != now.end() && old != operation.files.end() &&
                sound->second.compare(0, old->second.size(), old->second) == 0;
    bool bDirectory = status == 0 || operation.kind != Kind::Open ||
                      directory == operation.files.end() || directory->second.empty() ||
                      operation.files.count("a.CLM") != 0;
    for (auto const& [name, bytes] : now) {
        bool const bSound = name == "a.mp3" || (sound == now.end() && name.find(".MP3") == 10);
        bOld = bOld || (bSound && bytes == g_head + operation.after);
        bDirectory = bDirectory || (name.find("a.DIR") == 0 && bytes == directory->second);
    }
    EXPECT_TRUE(bOld);
    EXPECT_TRUE(bDirectory);
}

TEST_F(FaultsTest, EveryCallFailsOnceInEveryOperation) {
    unsigned nInjected = 0;
    for (Operation const& operation : operations()) {
        unsigned const nBefore = nInjected;
        for (Fault const& fault : all_faults()) {
            for (unsigned nVariant = operation.kind == Kind::Open ? 1 : 0; nVariant < 2;
                 ++nVariant) {
                for (unsigned nth = 1; run(operation, fault, nth, nVariant == 1); ++nth) {
                    ++nInjected;
                    ASSERT_FALSE(HasFailure())
                        << operation.pszName << ": call " << static_cast<int>(fault.call)
                        << ", number " << nth;
                }
            }
        }
        std::cout << operation.pszName << ": " << nInjected - nBefore << " failures\n";
    }
    std::cout << nInjected << " failures injected\n";
    RecordProperty("failures", static_cast<int>(nInjected));
    EXPECT_GT(nInjected, 1000u);
}

} // namespace
