// The driver's boundary: the table and its entry point, handles, the arguments of an open, names
// and records.
#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <filesystem>

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
namespace fs = std::filesystem;

namespace {

// Taken before main, where nothing has attached the driver yet.
bool const g_bTableWasNullAtLoad =
    std::all_of(std::begin(FFD_Function_Table), std::end(FFD_Function_Table),
                [](void* pSlot) { return pSlot == nullptr; });

class WorkingDirectory {
public:
    explicit WorkingDirectory(std::string const& folder) { fs::current_path(folder); }
    ~WorkingDirectory() { fs::current_path(m_before); }

private:
    fs::path const m_before = fs::current_path();
};

class BoundaryTest : public DriverTest {
protected:
    std::string const m_file = path("dictation.mp3");

    FFDError create(char const* pszName, FFDDesiredAccess access, FFDCreation creation,
                    void* hDriver) {
        FFDCallbackParams callback = {};
        callback.hDriver = hDriver;
        FFDError status = 0xDEADBEEFDEADBEEF;
        FFDHandle const handle =
            driver().CreateFile(pszName, access, creation, nullptr, callback, &status, nullptr);
        EXPECT_EQ(handle, nullptr);
        return status;
    }
};

template <class T> T* untouchable() {
    return reinterpret_cast<T*>(8);
}

} // namespace

// ---- Table, entry point, handles ----

TEST_F(BoundaryTest, TableIsFilledAtAttachButForOneSlot) {
    EXPECT_TRUE(g_bTableWasNullAtLoad);
    for (int n = 0; n < 24; ++n) {
        EXPECT_EQ(FFD_Function_Table[n] == nullptr, n == 22) << n;
    }
    for (DWORD const dwReason : {0u, 1u, 2u, 3u, 4u, 0xFFFFFFFFu}) {
        EXPECT_EQ(DllMain(nullptr, dwReason, nullptr), 1) << dwReason;
    }
}

TEST_F(BoundaryTest, NoSlotFollowsAHandleThatIsNotOpen) {
    auto const all_slots = [](FFDHandle handle) {
        Slots const& slots = driver();
        auto* const pNumber = untouchable<uint32_t>();
        return std::array<FFDError, 22>{
            slots.GetCurrentPos(handle, pNumber),
            slots.GetDictationFileSize(handle, pNumber),
            slots.GetGranularitySize(handle, pNumber),
            slots.GetAudioInfo(handle, untouchable<FFDAudioInfo>(), 28),
            slots.GetSizeOfData(handle, 1, untouchable<FFDReadHandle*>()),
            slots.GetFileName(handle, untouchable<char>(), 260),
            slots.GetFilePath(handle, untouchable<char>(), 260),
            slots.GetSoundDataLength(handle, pNumber),
            slots.SetDiskspaceWarningTime(handle, 1),
            slots.SetCallbackAddress(handle, 1),
            slots.AudioSeek(handle, 1, pNumber),
            slots.SaveAs(handle, "name"),
            slots.Close(handle),
            slots.ReadData(handle, untouchable<FFDReadHandle>(), 1, untouchable<uint8_t>()),
            slots.WriteData(handle, 1, 1, untouchable<uint8_t>()),
            slots.DeleteData(handle, 1),
            slots.UndoLast(handle),
            slots.StoreActualFileStatus(handle),
            slots.RestoreFileStatus(handle),
            slots.GetWfx(handle, untouchable<void>(), 30),
            slots.GetDownloadLength(handle, untouchable<void>()),
            slots.GetDSSEncrypted(handle, untouchable<void>())};
    };
    FFDHandle const handle = open_with(m_file, frames(5));
    insert(handle, 96, frames(1, 2));
    platform_faults::pretend_free_bytes(0);
    EXPECT_THAT(all_slots(nullptr), Each(2u));
    EXPECT_THAT(all_slots(static_cast<char*>(handle) + 1), Each(2u));
    EXPECT_THAT(all_slots(untouchable<void>()), Each(2u));
    close(handle, 6); // not folded in, and the handle is gone all the same
    EXPECT_THAT(all_slots(handle), Each(2u));
    EXPECT_TRUE(exists(path("dictation.DIR")));
}

// ---- The arguments of an open ----

TEST_F(BoundaryTest, ArgumentsOfAnOpenAreJudgedInTheirOrder) {
    write_file(m_file, frames(3));
    write_file(path("a.DIR"), frames(3));
    write_file(path("a.CLM"), frames(3));
    struct {
        std::string name;
        FFDDesiredAccess access;
        FFDCreation creation;
        void* hDriver;
        FFDError status;
    } const rows[] = {
        {m_file, 2, 0, this, 25},
        {m_file, 2, 3, this, 25},
        {m_file, 3, 1, nullptr, 25},
        {m_file, 0, 2, this, 25},
        {m_file, 2, 1, nullptr, 19},
        {"", 1, 1, this, 19},
        {"", 2, 2, nullptr, 25},
        {m_file, 1, 2, nullptr, 25},
        {"", 2, 2, this, 1},
        {folder(), 2, 2, this, 1},
        {path(".mp3"), 2, 2, this, 1},
        {folder() + std::string(260 - folder().size(), 'n'), 1, 2, this, 1},
        {std::string(100000, 'n'), 2, 2, this, 1},
        {std::string(256, 'n'), 1, 2, this, 1},                           // the stem
        {std::string("n.") + std::string(255, 'n'), 1, 2, this, 1},       // the extension
        {std::string("/") + std::string(254, 'n') + "/n", 1, 2, this, 1}, // the directory
        {path("a.DIR"), 2, 2, this, 1},
        {path("a.CLM"), 2, 2, this, 1},
    };
    for (auto const& row : rows) {
        EXPECT_EQ(create(row.name.c_str(), row.access, row.creation, row.hDriver), row.status)
            << row.name;
    }
    EXPECT_EQ(create(nullptr, 2, 2, this), 1u);
    EXPECT_EQ(driver().CreateFile(m_file.c_str(), 2, 2, nullptr, m_callback, nullptr, nullptr),
              nullptr);
    EXPECT_EQ(platform_faults::changes(), 0u);
    EXPECT_THAT(listing(), ElementsAre("a.CLM", "a.DIR", "dictation.mp3"));
    EXPECT_EQ(read_file(path("a.DIR")), frames(3));
    close(open(path("a.DIR"), 1));
    close(open(path("a.CLM"), 1));
}

TEST_F(BoundaryTest, ShortNameBehindALongWorkingDirectory) {
    std::string const directory = folder() + std::string(90, 'd') + "/" + std::string(90, 'd');
    fs::create_directories(directory);
    WorkingDirectory const here(directory);
    std::string const name = std::string(80, 'n') + ".mp3";
    write_file(name, frames(3));
    EXPECT_EQ(create(name.c_str(), 1, 2, this), 1u);
    EXPECT_EQ(create(name.c_str(), 2, 2, this), 1u);
    EXPECT_FALSE(exists(std::string(80, 'n') + ".DIR"));
}

// ---- Names, format, records ----

TEST_F(BoundaryTest, RelativeNamesBelongToTheFolderOfTheOpen) {
    std::string const expected = frames(1) + frames(2, 5) + frames(4).substr(96);
    fs::create_directory(path("sub"));
    for (auto const& [name, directory, real] :
         std::vector<std::array<std::string, 3>>{{"a.mp3", folder(), path("a.mp3")},
                                                 {"./a.mp3", "./", path("a.mp3")},
                                                 {"sub/a.b.mp3", "sub/", path("sub/a.b.mp3")},
                                                 {"sub/../noext", "sub/../", path("noext")},
                                                 {m_file, folder(), m_file}}) {
        SCOPED_TRACE(name);
        WorkingDirectory const here(folder());
        FFDHandle const handle = open_with(name, frames(4));
        // The terminator counts.
        std::string const file_name = fs::path(name).filename().string();
        for (auto const& [text, slot] : {std::pair(file_name, driver().GetFileName),
                                         std::pair(directory, driver().GetFilePath)}) {
            uint32_t const nLength = static_cast<uint32_t>(text.size());
            std::string buffer(nLength + 2, '#');
            EXPECT_EQ(slot(handle, buffer.data(), 0), 15u);
            EXPECT_EQ(slot(handle, buffer.data(), nLength), 15u);
            EXPECT_EQ(buffer, std::string(nLength + 2, '#'));
            EXPECT_EQ(slot(handle, buffer.data(), nLength + 1), 0u);
            EXPECT_EQ(buffer, text + '\0' + '#');
        }
        WorkingDirectory const elsewhere("/");
        EXPECT_EQ(insert(handle, 96, frames(2, 5)), 0u);
        EXPECT_TRUE(exists(fs::path(real).replace_extension(".DIR")));
        EXPECT_EQ(read_all(handle), expected);
        close(handle);
        EXPECT_EQ(read_file(real), expected);
        EXPECT_FALSE(exists(fs::path(real).replace_extension(".DIR")));
    }
    EXPECT_THAT(listing(), ElementsAre("a.mp3", "dictation.mp3", "noext", "sub"));
}

TEST_F(BoundaryTest, RecordsAndTheirSizes) {
    FFDHandle const handle = open_with(m_file, frames(3));
    std::vector<unsigned char> record(26, 0xEE);
    EXPECT_EQ(driver().GetWfx(handle, record.data(), 29), 15u);
    EXPECT_THAT(record, Each(0xEE));
    // 26 bytes are enough, whatever the host says of the size; what is not the driver's stays.
    unsigned char const info[26] = {0xEE, 0xEE, 0xEE, 0xEE, 1,    0, 0, 0, 0xEE,
                                    0xEE, 0xEE, 0xEE, 0xC0, 0x5D, 0, 0, 1, 0,
                                    0xEE, 0xEE, 0,    0xEE, 130,  0, 0, 0};
    EXPECT_EQ(driver().GetAudioInfo(handle, reinterpret_cast<FFDAudioInfo*>(record.data()), 0), 0u);
    EXPECT_THAT(record, ElementsAreArray(info));
    close(handle);
}

TEST_F(BoundaryTest, OperationsThatDoNothingTouchNothing) {
    write_file(m_file, frames(3));
    for (FFDDesiredAccess const access : {1u, 2u}) {
        FFDHandle const handle = open(m_file, access);
        EXPECT_EQ(driver().GetGranularitySize(handle, untouchable<void>()), 19u);
        EXPECT_EQ(driver().GetDSSEncrypted(handle, untouchable<void>()), 19u);
        EXPECT_EQ(driver().GetDownloadLength(handle, untouchable<void>()), 0u);
        EXPECT_EQ(driver().SaveAs(handle, path("copy.mp3").c_str()), 0u);
        EXPECT_FALSE(exists(path("copy.mp3")));
        close(handle);
    }
}
