// An open sound file: the slots of the table as operations of an object that closes itself.
#pragma once

#include "Driver.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ffdhost {

// What this host needs of the wave format block.
struct WaveFormat {
    uint16_t channels;
    uint32_t samplingRate;   // Hz
    uint32_t bytesPerSecond; // average, and exact for a constant bitrate
    uint16_t frameSize;      // bytes of a frame without padding

    uint32_t bitrate() const { return bytesPerSecond / 125; } // kbit/s
};

enum class Access { Read, Write };

// Reads and writes go in pieces of this many bytes: large enough to cost little, small enough to
// show progress.
constexpr uint32_t kPieceSize = 256 * 1024;

// Positions and lengths are bytes of the dictation. A status other than FFD_NOERROR becomes a
// Failure that names the operation and the file.
class SoundFile {
public:
    // The driver must outlive the object.
    SoundFile(Driver const& driver, std::string path, Access access);
    // Closes without a word what was not closed: after a failure there is another story to tell.
    ~SoundFile();
    SoundFile(SoundFile const&) = delete;
    SoundFile& operator=(SoundFile const&) = delete;

    // Folds the edits in. The file is closed afterwards, also when this throws.
    void close();

    WaveFormat wave_format();
    uint32_t file_size();
    uint32_t position();
    // The exact length of the dictation. Leaves the position as it was.
    uint32_t length();
    // Gives the position reached, which is the end at most.
    uint32_t seek(uint32_t dictationPosition);

    // Reads up to `size` bytes from the position on. The result is shorter at the end of the
    // dictation, and also where the dictation promises bytes that the file does not hold: a last
    // frame that the end of the file cuts short counts whole.
    std::vector<uint8_t> read(uint32_t size);

    // The bytes are only read by the driver, though its slot takes them as not constant.
    void write(FFDMethod method, std::vector<uint8_t>& bytes);
    // Deletes at the position; how much went shows in the length.
    void erase(uint32_t size);
    void undo();
    void store();
    void restore();

private:
    void check(std::string const& operation, FFDError status) const;

    Driver const& m_driver;
    std::string m_path;
    FFDHandle m_handle = nullptr;
};

} // namespace ffdhost
