// The driver with an allocation that fails: in every place of an open and of a session, one at a
// time. Nothing may get out of a slot but a status, and no edit may be lost.
#include "tests/driver_fixture.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <new>
#include <utility>

using ::testing::ElementsAre;

namespace {

// How many allocations succeed before the one that fails; below 0 all do.
long g_nAllocationsLeft = -1;

} // namespace

// Out of line, and not for the static analyzer: either would take the blocks of the test library
// for mismatched or lost.
#if !defined(__clang_analyzer__)

namespace {

void* allocate(size_t nBytes) {
    if (g_nAllocationsLeft >= 0 && --g_nAllocationsLeft < 0) {
        return nullptr;
    }
    return malloc(nBytes == 0 ? 1 : nBytes);
}

} // namespace

[[gnu::noinline]] void* operator new(size_t nBytes) {
    void* const pBlock = allocate(nBytes);
    if (pBlock == nullptr) {
        throw std::bad_alloc();
    }
    return pBlock;
}
[[gnu::noinline]] void* operator new(size_t nBytes, std::nothrow_t const&) noexcept {
    return allocate(nBytes);
}
[[gnu::noinline]] void operator delete(void* pBlock) noexcept {
    free(pBlock);
}
[[gnu::noinline]] void operator delete(void* pBlock, size_t) noexcept {
    free(pBlock);
}

#endif

using MemoryTest = DriverTest;

TEST_F(MemoryTest, OpenWithoutMemoryFailsCleanly) {
    std::string const file = path("dictation.mp3");
    write_file(file, frames(3));
    for (FFDDesiredAccess const access : {1u, 2u}) {
        for (long nAllocations = 0;; ++nAllocations) {
            SCOPED_TRACE(nAllocations);
            FFDError status = 0;
            g_nAllocationsLeft = nAllocations;
            FFDHandle const handle =
                driver().CreateFile(file.c_str(), access, 2, nullptr, m_callback, &status, nullptr);
            long const nLeft = std::exchange(g_nAllocationsLeft, -1);
            if (handle != nullptr) {
                EXPECT_GE(nLeft, 0);
                EXPECT_GT(nAllocations, 2);
                close(handle);
                break;
            }
            // An allocation inside a platform call shows as a failure of that call.
            EXPECT_TRUE(status == 27 || (status == 29 && nAllocations >= 2)) << status;
            EXPECT_EQ(platform_faults::open_handles(), 0u);
        }
        EXPECT_THAT(listing(), ElementsAre("dictation.mp3"));
    }
}

TEST_F(MemoryTest, EditsWithoutMemoryKeepTheDictation) {
    std::string const file = path("dictation.mp3");
    std::string const original = frames(6);
    std::string added = frames(2, 4);
    std::string buffer(96, '\0');
    for (long nAllocations = 0, nLeft = -1; nLeft < 0; ++nAllocations) {
        SCOPED_TRACE(nAllocations);
        std::string expected = original;
        write_file(file, original);
        FFDError opened = 0;
        FFDHandle const handle =
            driver().CreateFile(file.c_str(), 2, 2, nullptr, m_callback, &opened, nullptr);
        FFDReadHandle* pRead = nullptr;
        uint32_t nReached = 0;
        g_nAllocationsLeft = nAllocations;
        driver().AudioSeek(handle, 192, &nReached);
        FFDError const written =
            driver().WriteData(handle, 1, 192, reinterpret_cast<uint8_t*>(added.data()));
        driver().AudioSeek(handle, 0, &nReached);
        FFDError const deleted = driver().DeleteData(handle, 96);
        driver().GetSizeOfData(handle, 96, &pRead);
        driver().ReadData(handle, pRead, 96, reinterpret_cast<uint8_t*>(buffer.data()));
        FFDError const closed = driver().Close(handle);
        nLeft = std::exchange(g_nAllocationsLeft, -1);
        if (written == 0) {
            expected.insert(192, added);
        }
        if (deleted == 0) {
            expected.erase(0, 96);
        }
        if (closed != 0) {
            FFDHandle const again = open(file);
            EXPECT_EQ(read_all(again), expected);
            close(again);
        }
        EXPECT_EQ(read_file(file), expected);
        EXPECT_FALSE(exists(path("dictation.DIR")));
        // A rebuild that failed leaves its temporary file.
        for (std::string const& name : listing()) {
            if (name != "dictation.mp3") {
                EXPECT_NE(closed, 0u) << name;
                std::filesystem::remove(path(name));
            }
        }
    }
}
