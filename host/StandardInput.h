// A clip that comes through standard input: the driver opens files.
#pragma once

#include <filesystem>

namespace ffdhost {

// Takes all of standard input into a file of its own in the temporary directory. Throws a Failure
// if it cannot be written. The file goes with the object.
class StandardInput {
public:
    StandardInput();
    ~StandardInput();
    StandardInput(StandardInput const&) = delete;
    StandardInput& operator=(StandardInput const&) = delete;

    std::filesystem::path file() const { return m_directory / "standard-input.mp3"; }

private:
    std::filesystem::path m_directory;
};

} // namespace ffdhost
