// How many platform calls an open, an edit, a read and a close take. The bytes and statuses are the
// other tests' business: here it shows if a call comes to be made for each frame, each entry or
// each byte.
#include "testing/driver_folder.h"

using platform_faults::Call;

namespace {

class CallsTest : public FolderTest {
protected:
    // How many calls the work makes.
    static unsigned calls(std::function<void()> const& work) {
        platform_faults::reset();
        work();
        return platform_faults::count(Call::Any);
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

// One read for each 128 KiB, whatever frames they hold, and a seek for each read.
TEST_F(CallsTest, OpenReadsLargeBlocks) {
    for (unsigned const nFrames : {10u, 10000u, 50000u}) {
        put({{"a.mp3", frames(nFrames)}});
        FFDHandle handle = nullptr;
        EXPECT_LE(calls([&] { handle = open(m_sound, FFD_ACCESS_READ); }),
                  60 + 2 * (nFrames * 96 / 131072));
        EXPECT_LE(calls([&] { close(handle); }), 4u);
    }
}

TEST_F(CallsTest, EditsTakeTheSameWhateverTheDirectoryHolds) {
    for (unsigned const nBlocks : {2u, 5000u}) {
        FFDHandle const handle = open_blocks(nBlocks);
        std::string piece = frames(1, 7);
        auto const write = [&](FFDMethod method) {
            return calls([&] {
                driver().WriteData(handle, method, 96, reinterpret_cast<uint8_t*>(piece.data()));
            });
        };
        seek(handle, nBlocks * 96 / 2 + 50);
        EXPECT_LE(write(FFD_METHOD_INSERT), 14u);
        EXPECT_LE(write(FFD_METHOD_OVERWRITE), 14u);
        seek(handle, 50);
        EXPECT_LE(calls([&] { driver().DeleteData(handle, 80); }), 9u);
        EXPECT_LE(calls([&] { driver().UndoLast(handle); }), 9u);
        EXPECT_EQ(calls([&] { seek(handle, 0); }), 0u);
        close(handle);
    }
}

TEST_F(CallsTest, ReadsTakeOneForEachBlock) {
    FFDHandle const handle = open_blocks(5000);
    std::string buffer(4096, '\0');
    for (auto const& [nFrom, nBytes] :
         {std::pair(96u * 4000, 96u), {96 * 10 + 50, 96}, {0, 3840}}) {
        seek(handle, nFrom);
        unsigned const nBlocks = (nFrom % 96 + nBytes + 95) / 96;
        EXPECT_LE(calls([&, nBytes = nBytes] {
                      FFDReadHandle* range = nullptr;
                      driver().GetSizeOfData(handle, nBytes, &range);
                      driver().ReadData(handle, range, nBytes,
                                        reinterpret_cast<uint8_t*>(buffer.data()));
                  }),
                  2 * nBlocks);
    }
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
    EXPECT_LE(calls([&] { close(handle); }), 10u);
    auto const close_blocks = [&](unsigned nBlocks) {
        handle = open_blocks(nBlocks);
        std::string const dictation = read_all(handle);
        unsigned const nCalls = calls([&] { close(handle); });
        EXPECT_TRUE(same_bytes(read_file(m_sound), dictation));
        return nCalls;
    };
    EXPECT_LE(close_blocks(2), 70u);
    EXPECT_LE(close_blocks(5460), close_blocks(2) + 5458 * 12);
    // Large blocks are the system's to copy, where it can.
    handle = open_with(m_sound, frames(5000));
    EXPECT_EQ(erase(handle, 96 * 2000, 96), 0u);
    EXPECT_LE(calls([&] { close(handle); }), 80u);
    EXPECT_GT(platform_faults::count(Call::CopyBytes), 0u);
}

} // namespace
