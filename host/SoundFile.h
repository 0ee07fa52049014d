// An open sound file of this host.
#pragma once

#include "Driver.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ffdhost {

using ffd::Access;
using ffd::WaveFormat;

// Reads and writes go in pieces of this many bytes: large enough to cost little, small enough to
// show progress.
constexpr uint32_t kPieceSize = 256 * 1024;

// ffd::File, with a Failure that names the file for every status, and with messages about disk
// space that go to the user. The driver must outlive the object.
class SoundFile {
public:
    SoundFile(Driver const& driver, std::string path, Access access);

    // Folds the edits in. The file is closed afterwards, also when this throws.
    void close();
    // False after a close, and after one inside hand_to() that no open has followed.
    bool is_open() const { return m_file.handle() != nullptr; }

    WaveFormat wave_format();
    uint32_t file_size();
    uint32_t position();
    uint32_t length();
    // Gives the position reached, which is the end at most.
    uint32_t seek(uint32_t dictationPosition);
    // The border of frames that is nearest to a position; the end for one beyond it.
    uint32_t nearest_border(uint32_t dictationPosition);

    // Reads up to `size` bytes from the position on; fewer where ffd::File::read gives fewer.
    std::vector<uint8_t> read(uint32_t size);
    void write(FFDMethod method, std::vector<uint8_t> const& bytes);
    // Deletes at the position; how much went shows in the length.
    void erase(uint32_t size);
    void undo();
    void store();
    void restore();

    // Calls `work` with the file and with a function that opens it once more, for what works on
    // an ffd::File. An ffd::Error of it becomes a Failure, too.
    void hand_to(std::function<void(ffd::File&, std::function<ffd::File()> const&)> const& work);

    // What the messages of the driver find.
    struct Watched {
        std::string path;
        uint32_t bytesPerSecond = 0;
        std::chrono::steady_clock::time_point saidAgain{}; // what comes with every write
    };

private:
    std::string const& path() const { return m_watched->path; }

    Driver const& m_driver;
    Access m_access;
    std::unique_ptr<Watched> m_watched;
    ffd::File m_file;
};

// Seconds that can still be recorded with so many bytes free above what the driver wants to find
// for the close: a recording takes its own room, and four times as much is asked of the close
// (ffd.h).
uint64_t recording_seconds(uint64_t freeBytes, uint32_t bytesPerSecond);

} // namespace ffdhost
