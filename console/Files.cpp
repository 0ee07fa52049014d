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

NewFile::NewFile(std::string name, std::vector<std::string> const& privateAs)
    : m_output(std::move(name), Descriptor()) {
    for (int number = 0; m_temporary.empty(); ++number) {
        std::string const place =
            this->name() + ".part" + (number == 0 ? "" : std::to_string(number));
        Descriptor file = make_file(place, privateAs);
        if (file.number() >= 0) {
            m_temporary = place;
            m_output = OutputFile(this->name(), std::move(file));
        } else if (errno != EEXIST || number == kMostLeft) {
            m_output.fail();
        }
    }
}

NewFile::NewFile(NewFile&& other) noexcept
    : m_output(std::move(other.m_output)), m_temporary(std::exchange(other.m_temporary, {})) {}

NewFile::~NewFile() {
    if (m_temporary.empty()) {
        return;
    }
    try {
        m_output.close(); // an open one can't be removed everywhere
    } catch (Failure const&) {
        // it goes anyway
    }
    std::error_code error;
    std::filesystem::remove(m_temporary, error);
}

void NewFile::close() {
    if (!flush(m_output.m_file)) {
        m_output.fail();
    }
    m_output.close();
}

void NewFile::publish(bool replace) {
    if (!move_file(m_temporary, name(), replace)) {
        m_output.fail();
    }
    m_temporary.clear();
}

} // namespace ffdhost
