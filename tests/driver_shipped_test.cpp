// The library as it ships, loaded as a host does it.
#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <cstring>

#include <dlfcn.h>

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

class ShippedTest : public DriverTest {
protected:
    std::string const m_file = path("dictation.mp3");
};

TEST_F(ShippedTest, LibrariesExportTheirNamesAndNoOther) {
    auto const exports = [](std::string const& library) {
        std::string const command = "nm -D --defined-only -P " KIV_BUILD_DIR "/" + library;
        FILE* const pipe = popen(command.c_str(), "r");
        std::vector<std::string> names;
        char line[1000];
        while (pipe != nullptr && fgets(line, sizeof line, pipe) != nullptr) {
            names.emplace_back(line, strcspn(line, " "));
        }
        EXPECT_EQ(pclose(pipe), 0);
        return names;
    };
    EXPECT_THAT(exports("libxkivmp3.so"), UnorderedElementsAre("DllMain", "FFD_Function_Table"));
    EXPECT_THAT(exports("libxkivlog.so"),
                UnorderedElementsAre("LogInit", "LogEntry", "LogParam", "LogWarning", "LogInfo",
                                     "LogValue", "LogError"));
    // Another log library can take the place of this one.
    EXPECT_EQ(system("readelf -d " KIV_BUILD_DIR "/libxkivmp3.so | grep -q 'NEEDED.*xkivlog'"), 0);
}

TEST_F(ShippedTest, LibraryUnloadedWithAnOpenFileLeavesItsEdits) {
    write_file(m_file, frames(3));
    std::string added = frames(1, 2);
    EXPECT_EQ(
        crash_after([&] {
            void* const library = dlopen(KIV_BUILD_DIR "/libxkivmp3.so", RTLD_NOW);
            ASSERT_NE(library, nullptr) << dlerror();
            void* const table = dlsym(library, "FFD_Function_Table");
            ASSERT_NE(table, nullptr);
            ASSERT_NE(table, FFD_Function_Table);
            Slots const& slots = *static_cast<Slots const*>(table);
            FFDError status = 1;
            FFDHandle const handle =
                slots.CreateFile(m_file.c_str(), 2, 2, nullptr, m_callback, &status, nullptr);
            ASSERT_EQ(status, 0u);
            EXPECT_EQ(slots.WriteData(handle, 1, 96, reinterpret_cast<uint8_t*>(added.data())), 0u);
            EXPECT_EQ(dlclose(library), 0);
            EXPECT_EQ(dlopen(KIV_BUILD_DIR "/libxkivmp3.so", RTLD_NOW | RTLD_NOLOAD), nullptr);
        }),
        0);
    EXPECT_THAT(listing(), ElementsAre("dictation.DIR", "dictation.mp3"));
    FFDHandle const handle = open(m_file);
    EXPECT_EQ(read_all(handle), added + frames(3));
    close(handle);
}

} // namespace
