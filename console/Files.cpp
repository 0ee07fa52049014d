#include "Files.h"

#include "Status.h"

#include <cerrno>
#include <utility>

namespace ffdhost {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        close();
        m_number = other.release();
    }
    return *this;
}

int Descriptor::release() {
    return std::exchange(m_number, -1);
}

void InputFile::fail(std::filesystem::path const& path, std::string const& words) {
    throw Failure("open file", path.string(), FFD_FILE_IO_ERROR, words);
}

void OutputFile::close() {
    if (!m_file.close()) {
        fail();
    }
}

void OutputFile::fail() const {
    throw Failure("write output", m_name.empty() ? "standard output" : m_name, FFD_FILE_IO_ERROR,
                  "the output cannot be written: " + system_words(errno),
                  "Check the permissions of the output, and that the disk is not full.");
}

} // namespace ffdhost
