// What the driver's tests share: the driver linked in over the fault layer, attached as a loader
// would; a folder of its own for each test; MP3 files made of whole frames with contents that tell
// every byte from its neighbours; and, at the end of each test, the proof that no handle, heap
// block or mapped view is left.
#pragma once

#include "testing/driver_calls.h"
#include "testing/fault_layer.h"
#include "testing/sound_maker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// ---- Files ----

std::string read_file(std::string const& path);
void write_file(std::string const& path, std::string const& contents);
bool exists(std::string const& path);

// Compares long byte strings and tells no more than where they first differ.
::testing::AssertionResult same_bytes(std::string const& actual, std::string const& expected);

// ---- The system ----

unsigned process_id();

// Where the driver puts stored statuses from now on.
void set_temp_directory(std::string const& path);

class DriverTest : public ::testing::Test {
protected:
    DriverTest();
    ~DriverTest() override;

    std::string path(std::string const& name) const { return m_folder + name; }
    std::string const& folder() const { return m_folder; }

    // The names in the folder, sorted.
    std::vector<std::string> listing() const;

    // Opens for writing (or reading); null with the status in m_status.
    FFDHandle open(std::string const& file, FFDDesiredAccess access = FFD_ACCESS_READWRITE);

    // Makes the file first.
    FFDHandle open_with(std::string const& file, std::string const& contents);

    // Closes, and expects the status.
    void close(FFDHandle handle, FFDError expected = FFD_NOERROR);

    // Runs a session in a process of its own that ends without any clean-up behind it, as a crash
    // would. The result is the exit code, 0 if the session ran to its end.
    int crash_after(std::function<void()> const& session);

    static std::string read(FFDHandle handle, uint32_t from, uint32_t bytes);
    static std::string read_all(FFDHandle handle);

    FFDCallbackParams m_callback = {};
    FFDError m_status = 0;

private:
    std::string m_folder;
    std::vector<FFDHandle> m_open;
};
