// How many platform calls an open, an edit, a read and a close take. The bytes and statuses are the
// other tests' business: here it shows if a call comes to be made for each frame, each entry or
// each byte.
#include "tests/driver_folder.h"

using platform_faults::Call;

namespace {

class CallsTest : public FolderTest {
protected:
    // The calls that the work makes, those for memory and paths left out: "ReadFile 2, WriteFile
    // 1".
    static std::string calls(std::function<void()> const& work) {
        static std::vector<std::pair<Call, char const*>> const kinds = {
            {Call::CreateFile, "CreateFile"},
            {Call::CloseHandle, "CloseHandle"},
            {Call::ReadFile, "ReadFile"},
            {Call::WriteFile, "WriteFile"},
            {Call::SetFilePointer, "SetFilePointer"},
            {Call::SetEndOfFile, "SetEndOfFile"},
            {Call::GetFileSize, "GetFileSize"},
            {Call::FlushFileBuffers, "FlushFileBuffers"},
            {Call::DeleteFile, "DeleteFile"},
            {Call::MoveFile, "MoveFile"},
            {Call::GetDiskFreeSpaceEx, "GetDiskFreeSpaceEx"},
            {Call::CopyBytes, "CopyBytes"}};
        platform_faults::reset();
        work();
        std::string text;
        for (auto const& [kind, name] : kinds) {
            if (unsigned const count = platform_faults::count(kind)) {
                text +=
                    (text.empty() ? "" : ", ") + std::string(name) + " " + std::to_string(count);
            }
        }
        return text;
    }

    // A directory of so many blocks of one frame each, every two of them in the wrong order.
    FFDHandle open_blocks(unsigned nBlocks) {
        std::vector<Entry> entries;
        for (unsigned nBlock = 0; nBlock < nBlocks; ++nBlock) {
            uint32_t const nStartpos = (nBlock ^ 1u) * 96;
            entries.push_back({1, nStartpos, nStartpos + 96});
        }
        put({{"a.mp3", frames(nBlocks)}, {"a.DIR", dir_image(entries)}});
        FFDHandle const handle = open(m_sound);
        EXPECT_NE(handle, nullptr) << m_status;
        return handle;
    }
};

// One read for each 128 KiB, whatever frames they hold; in the last 1024 bytes, where a search
// meets the end of the file, one for each frame.
TEST_F(CallsTest, OpenReadsLargeBlocks) {
    for (auto const& [nFrames, expected] : std::vector<std::pair<unsigned, std::string>>{
             {10, "CreateFile 1, ReadFile 13, SetFilePointer 16, GetFileSize 1"},
             {10000, "CreateFile 1, ReadFile 21, SetFilePointer 24, GetFileSize 1"},
             {50000, "CreateFile 1, ReadFile 50, SetFilePointer 53, GetFileSize 1"}}) {
        put({{"a.mp3", frames(nFrames)}});
        FFDHandle handle = nullptr;
        EXPECT_EQ(calls([&] { handle = open(m_sound, FFD_ACCESS_READ); }), expected) << nFrames;
        EXPECT_EQ(calls([&] { close(handle); }), "CloseHandle 2");
    }
}

TEST_F(CallsTest, EditsTakeTheSameWhateverTheDirectoryHolds) {
    std::string const commit = "CreateFile 1, CloseHandle 1, ";
    for (unsigned const nBlocks : {2u, 5000u}) {
        FFDHandle const handle = open_blocks(nBlocks);
        std::string piece = frames(1, 7);
        auto const write = [&](FFDMethod method) {
            return calls([&] {
                driver().WriteData(handle, method, 96, reinterpret_cast<uint8_t*>(piece.data()));
            });
        };
        seek(handle, nBlocks * 96 / 2 + 50);
        std::string const written = commit + "WriteFile 2, SetFilePointer 2, FlushFileBuffers 1";
        EXPECT_EQ(write(FFD_METHOD_INSERT), written);
        EXPECT_EQ(write(FFD_METHOD_OVERWRITE), written);
        std::string const flushed = commit + "WriteFile 1, SetFilePointer 1";
        seek(handle, 50);
        EXPECT_EQ(calls([&] { driver().DeleteData(handle, 80); }), flushed);
        EXPECT_EQ(calls([&] { driver().UndoLast(handle); }), flushed);
        EXPECT_EQ(calls([&] { seek(handle, 0); }), "");
        close(handle);
    }
}

TEST_F(CallsTest, ReadsTakeOneForEachBlock) {
    FFDHandle const handle = open_blocks(5000);
    std::string buffer(4096, '\0');
    auto const read = [&](uint32_t from, uint32_t bytes) {
        seek(handle, from);
        return calls([&] {
            FFDReadHandle* range = nullptr;
            driver().GetSizeOfData(handle, bytes, &range);
            driver().ReadData(handle, range, bytes, reinterpret_cast<uint8_t*>(buffer.data()));
        });
    };
    EXPECT_EQ(read(96 * 4000, 96), "ReadFile 1, SetFilePointer 1");
    EXPECT_EQ(read(96 * 10 + 50, 96), "ReadFile 2, SetFilePointer 2");
    EXPECT_EQ(read(0, 96 * 40), "ReadFile 40, SetFilePointer 40");
    close(handle);
}

// No read is answered from what an earlier one fetched: others may change the file in between.
TEST_F(CallsTest, NothingIsKeptBetweenReads) {
    std::string audio = frames(400);
    FFDHandle const handle = open_with(m_sound, audio);
    EXPECT_TRUE(same_bytes(read(handle, 0, 96), audio.substr(0, 96)));
    audio.replace(96, 96, frames(1, 9));
    std::fstream(m_sound, std::ios::in | std::ios::out | std::ios::binary).seekp(96)
        << frames(1, 9);
    EXPECT_TRUE(same_bytes(read(handle, 96, 96), audio.substr(96, 96)));
    // A cut by somebody else is a short read, and what comes back later is read again.
    std::filesystem::resize_file(m_sound, 250);
    EXPECT_TRUE(same_bytes(read_all(handle), audio.substr(0, 250)));
    std::filesystem::resize_file(m_sound, 38400);
    EXPECT_TRUE(same_bytes(read_all(handle), audio.substr(0, 250) + std::string(38150, '\0')));
    ASSERT_EQ(insert(handle, 0, frames(1, 5)), 0u);
    EXPECT_TRUE(same_bytes(read(handle, 0, 192), frames(1, 5) + audio.substr(0, 96)));
    close(handle);
}

// A rebuild costs two searches and a copy for each block, and what the replacing costs.
TEST_F(CallsTest, Closes) {
    FFDHandle handle = open_with(m_sound, frames(20));
    EXPECT_EQ(calls([&] { close(handle); }), "CloseHandle 2, DeleteFile 1");
    auto const close_blocks = [&](unsigned nBlocks) {
        handle = open_blocks(nBlocks);
        return calls([&] { close(handle); });
    };
    std::string const replaced = "FlushFileBuffers 2, DeleteFile 3, MoveFile 1, "
                                 "GetDiskFreeSpaceEx 1";
    EXPECT_EQ(close_blocks(2), "CreateFile 3, CloseHandle 5, ReadFile 6, WriteFile 5, "
                               "SetFilePointer 9, GetFileSize 3, " +
                                   replaced);
    EXPECT_EQ(close_blocks(4), "CreateFile 3, CloseHandle 5, ReadFile 12, WriteFile 9, "
                               "SetFilePointer 19, GetFileSize 3, " +
                                   replaced);
    // Large blocks are the system's to copy.
    handle = open_with(m_sound, frames(5000));
    EXPECT_EQ(erase(handle, 96 * 2000, 96), 0u);
    EXPECT_EQ(calls([&] { close(handle); }),
              "CreateFile 2, CloseHandle 4, ReadFile 3, WriteFile 3, "
              "SetFilePointer 9, GetFileSize 2, " +
                  replaced + ", CopyBytes 2");
}

} // namespace
