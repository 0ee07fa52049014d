// Reading, writing and deleting through the table: what the host gets back, what stands in the
// file, and what a failure leaves.

#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

using ::testing::ElementsAre;

namespace {

class EditTest : public DriverTest {
protected:
    std::string const m_sound = path("a.mp3");

    FFDReadHandle* prepare(FFDHandle handle, uint32_t nBytes) {
        FFDReadHandle* pReadHandle = nullptr;
        EXPECT_EQ(driver().GetSizeOfData(handle, nBytes, &pReadHandle), 0u);
        return pReadHandle;
    }
};

TEST_F(EditTest, AReadIsRefusedWithThePositionUnchanged) {
    std::string const audio = thousand_bytes();
    FFDHandle const handle = open_with(m_sound, audio);
    uint8_t buffer[200];
    seek(handle, 10);
    FFDReadHandle* const pReadHandle = prepare(handle, 100);
    EXPECT_EQ(driver().ReadData(handle, nullptr, 200, buffer), 14u);
    EXPECT_EQ(driver().ReadData(handle, pReadHandle, 99, buffer), 15u);
    EXPECT_EQ(driver().ReadData(handle, pReadHandle, 100, nullptr), 25u);
    seek(handle, 11);
    EXPECT_EQ(driver().ReadData(handle, pReadHandle, 100, buffer), 11u);
    EXPECT_EQ(position(handle), 11u);
    seek(handle, 10);
    buffer[100] = 0xEE;
    EXPECT_EQ(driver().ReadData(handle, pReadHandle, 200, buffer), 0u);
    EXPECT_EQ(std::string(buffer, buffer + 100), audio.substr(10, 100));
    EXPECT_EQ(buffer[100], 0xEE);
    EXPECT_EQ(driver().ReadData(handle, pReadHandle, 200, buffer), 11u); // stale by its own read
    EXPECT_EQ(position(handle), 110u);

    seek(handle, 1000);
    EXPECT_EQ(driver().ReadData(handle, prepare(handle, 5), 200, buffer), 0u);
    EXPECT_EQ(position(handle), 1000u);
    ASSERT_EQ(erase(handle, 0, 1000), 0u);
    EXPECT_EQ(driver().ReadData(handle, prepare(handle, 0), 200, buffer), 32u);
}

TEST_F(EditTest, AReadThatFailsKeepsWhatItDelivered) {
    using platform_faults::Call;
    std::string const audio = thousand_bytes();
    FFDHandle const handle = open_with(m_sound, audio);
    ASSERT_EQ(erase(handle, 300, 100), 0u);
    struct {
        std::function<void()> fault;
        FFDError status;
        uint32_t nDelivered;
    } const rows[] = {
        {[] { platform_faults::fail(Call::ReadFile, 2, 1117); }, 29, 300},
        {[] { platform_faults::fail(Call::SetFilePointer, 2, 1117); }, 29, 300},
        {[] { platform_faults::halve(Call::ReadFile, 1, 0); }, 0, 150},
        {[] { platform_faults::halve(Call::ReadFile, 2, 0); }, 0, 600},
    };
    for (auto const& row : rows) {
        std::vector<uint8_t> buffer(900, 0xEE);
        seek(handle, 0);
        FFDReadHandle const* const pReadHandle = prepare(handle, 900);
        row.fault();
        EXPECT_EQ(driver().ReadData(handle, pReadHandle, 900, buffer.data()), row.status);
        platform_faults::reset();
        EXPECT_EQ(position(handle), row.nDelivered);
        std::string const expected =
            (audio.substr(0, 300) + audio.substr(400)).substr(0, row.nDelivered);
        EXPECT_TRUE(same_bytes({buffer.begin(), buffer.begin() + row.nDelivered}, expected));
        EXPECT_EQ(buffer[row.nDelivered], 0xEE);
    }
}

TEST_F(EditTest, AReadOnlyFileRefusesEveryEdit) {
    std::string const audio = frames(10);
    write_file(m_sound, audio);
    FFDHandle const handle = open(m_sound, 1);
    EXPECT_EQ(insert(handle, 0, "x"), 34u);
    EXPECT_EQ(driver().WriteData(handle, 2, 0, nullptr), 34u);
    EXPECT_EQ(erase(handle, 0, 1), 34u);
    EXPECT_EQ(driver().UndoLast(handle), 34u);
    EXPECT_EQ(driver().StoreActualFileStatus(handle), 34u);
    EXPECT_EQ(driver().RestoreFileStatus(handle), 34u);
    EXPECT_TRUE(same_bytes(read_all(handle), audio));
    close(handle);
    EXPECT_TRUE(same_bytes(read_file(m_sound), audio));
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
}

TEST_F(EditTest, AWriteThatFailsIsTakenBack) {
    using platform_faults::Call;
    std::string const audio = frames(10) + id3v1_tag();
    struct {
        char const* pszName;
        std::function<void()> fault;
        size_t nLeftInFile; // of the bytes written
    } const rows[] = {
        {"seek", [] { platform_faults::fail(Call::SetFilePointer, 1, 1117); }, 0},
        {"write", [] { platform_faults::fail(Call::WriteFile, 1, 1117); }, 0},
        {"disk full half way", [] { platform_faults::halve(Call::WriteFile, 1, 112); }, 0},
        {"half written and said so", [] { platform_faults::halve(Call::WriteFile, 1, 0); }, 0},
        {"not cut back",
         [] {
             platform_faults::halve(Call::WriteFile, 1, 112);
             platform_faults::fail(Call::SetEndOfFile, 1, 1117);
         },
         50},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        FFDHandle const handle = open_with(m_sound, audio);
        ASSERT_EQ(erase(handle, 200, 50), 0u);
        seek(handle, 300);
        std::string piece = noise(100, 3);
        row.fault();
        EXPECT_EQ(driver().WriteData(handle, 2, 100, reinterpret_cast<uint8_t*>(piece.data())),
                  29u);
        platform_faults::reset();
        EXPECT_EQ(position(handle), 300u);
        std::string const dictation = audio.substr(0, 200) + audio.substr(250, 710);
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        EXPECT_TRUE(same_bytes(read_file(m_sound), audio + piece.substr(0, row.nLeftInFile)));
        uint32_t nFileSize = 0;
        EXPECT_EQ(driver().GetDictationFileSize(handle, &nFileSize), 0u);
        EXPECT_EQ(nFileSize, audio.size() + row.nLeftInFile);

        EXPECT_EQ(insert(handle, 300, piece), 0u);
        EXPECT_TRUE(
            same_bytes(read_all(handle), dictation.substr(0, 300) + piece + dictation.substr(300)));
        EXPECT_EQ(driver().UndoLast(handle), 0u);
        close(handle);
    }
}

// A last frame that the end of the file cuts short is counted whole; what is written behind it must
// not play twice.
TEST_F(EditTest, AppendingBehindATruncatedFrame) {
    std::string const audio = frames(10).substr(0, 930);
    FFDHandle const handle = open_with(m_sound, audio);
    EXPECT_EQ(length(handle), 960u);
    std::string const piece = frames(2, 5);
    ASSERT_EQ(insert(handle, 960, piece), 0u);
    EXPECT_EQ(position(handle), 1122u);
    EXPECT_TRUE(same_bytes(read_all(handle), audio + piece));
    ASSERT_EQ(insert(handle, 100, noise(50)), 0u);
    EXPECT_EQ(length(handle), 1172u);
}

// Of an entry behind the end of the file nothing can play: new audio stands where the host has
// heard it, whatever such entries lie in front.
TEST_F(EditTest, WritesBesideEntriesBehindTheEndOfTheFile) {
    std::string const audio = frames(10);
    std::string const piece = frames(1, 5);
    std::vector<Entry> const filled(5459, {3, 960, 960});
    struct {
        std::vector<Entry> entries;
        bool bFull;
        uint32_t nAt;
        FFDError status;
        uint32_t nLands; // in the bytes that there are
    } const rows[] = {
        {{{1, 2000, 2100}, {1, 0, 960}}, false, 100, 0, 0},
        {{{1, 2000, 2100}, {1, 0, 960}}, true, 100, 27, 0},
        {{{1, 0, 480}, {1, 2000, 2100}, {1, 480, 960}}, false, 630, 0, 530},
        {{{1, 0, 480}, {1, 2000, 2100}, {1, 480, 960}}, false, 500, 0, 480},
        {{{1, 480, 1000}, {1, 0, 480}, {3, 2000, 2100}}, false, 510, 0, 480},
        {{{3, 2000, 2100}, {1, 0, 1000}}, true, 980, 0, 960},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        std::vector<Entry> entries = row.entries;
        std::string dictation;
        for (Entry const& entry : row.entries) {
            dictation += entry.nStatus == 1 && entry.nStartpos < 960
                             ? audio.substr(entry.nStartpos, entry.nEndpos - entry.nStartpos)
                             : "";
        }
        if (row.bFull) {
            entries.insert(entries.end(), filled.begin(), filled.end());
        }
        write_file(path("a.DIR"), dir_image(entries));
        FFDHandle const handle = open_with(m_sound, audio);
        EXPECT_EQ(insert(handle, row.nAt, piece), row.status);
        dictation.insert(row.nLands, row.status == 0 ? piece : "");
        EXPECT_EQ(position(handle), row.nLands + (row.status == 0 ? 96 : 0));
        EXPECT_EQ(erase(handle, 10, 0), 0u);
        EXPECT_EQ(erase(handle, 10, 5), row.bFull ? 27u : 0u);
        dictation.erase(10, row.bFull ? 0 : 5);
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        platform_faults::pretend_free_bytes(0);
        close(handle, 6);
        platform_faults::reset();
    }
}

// ---- The watch over the disk space ----

std::vector<std::pair<unsigned, uint64_t>> g_messages;

void host_callback(void* hDriver, uint32_t nMessage, uint64_t nUser, uint64_t nParam1,
                   uint64_t nParam2) {
    EXPECT_NE(hDriver, nullptr);
    EXPECT_EQ(nUser, 4711u);
    EXPECT_EQ(nParam2, 0u);
    g_messages.emplace_back(nMessage, nParam1);
}

TEST_F(EditTest, DiskSpaceMessages) {
    m_callback.dwCallback = reinterpret_cast<uint64_t>(&host_callback);
    m_callback.dwUser = 4711;
    FFDHandle const handle = open_with(m_sound, frames(10000) + noise(40000));
    ASSERT_EQ(driver().SetDiskspaceWarningTime(handle, 1000000), 0u);
    // With a file of 1,000,000 bytes, 960,000 of them in the directory, a write of 40,000 bytes
    // needs 14,485,760 bytes at the check before it and 14,565,760 at the one behind it. Each write
    // raises the needs of the next by 160,000.
    struct Row {
        uint64_t nFree; // at the first write; 160,000 more at each later one
        std::vector<std::pair<unsigned, uint64_t>> messages;
    };
    std::vector<Row> const rows = {
        {17565760, {}},                                 // edge of the warning band
        {17565759, {{1020, 999999}}},                   // just inside, at the later check
        {14485760, {{1021, 1000000}, {1021, 1000000}}}, // out of space, told each time
        {16000000, {}},                                 // warned already
        {17485760, {}},                                 // the edge keeps that
        {17565761, {}},                                 // enough at both checks
        {16000000, {{1020, 504746}}},
        {uint64_t{5} << 30, {}},
        {14485761, {{1020, 0}, {1021, 1000000}}},
    };
    uint64_t nGrown = 0;
    auto const write_with = [&](Row const& row) {
        SCOPED_TRACE(row.nFree);
        g_messages.clear();
        platform_faults::pretend_free_bytes(row.nFree + nGrown);
        EXPECT_EQ(insert(handle, 0, noise(40000)), 0u);
        EXPECT_EQ(g_messages, row.messages);
        nGrown += 160000;
    };
    for (Row const& row : rows) {
        write_with(row);
    }
    ASSERT_EQ(driver().SetDiskspaceWarningTime(handle, 0), 0u); // an empty band
    write_with({14485761, {{1021, 0}}});

    // Neither a query that fails nor a missing callback is a failure of the write.
    using platform_faults::Call;
    platform_faults::fail(Call::GetDiskFreeSpaceEx, 1, 21, 2);
    write_with({0, {}});
    platform_faults::fail(Call::DriverCallback, 1, 0, 2);
    write_with({0, {}});
    ASSERT_EQ(driver().SetCallbackAddress(handle, 0), 0u);
    unsigned const nQueries = platform_faults::count(Call::GetDiskFreeSpaceEx);
    write_with({0, {}});
    EXPECT_EQ(platform_faults::count(Call::GetDiskFreeSpaceEx), nQueries);
}

} // namespace
