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

OutputFile::OutputFile(std::string name, std::vector<std::string> const& privateAs)
    : m_name(std::move(name)), m_file(open_as_it_is(m_name)) {
    if (m_file.number() >= 0) {
        return;
    }
    if (errno != 0) {
        fail();
    }
    std::error_code error;
    if (std::filesystem::exists(m_name, error) && !may_write(m_name)) {
        errno = EACCES;
        fail();
    }
    m_stop = std::make_unique<HeldStop>();
    make_temporary(privateAs);
}

void OutputFile::make_temporary(std::vector<std::string> const& privateAs) {
    for (int number = 0; number < kMostAtWork; ++number) {
        std::string const place = m_name + ".ffdpart" + (number == 0 ? "" : std::to_string(number));
        m_file = make_file(place, privateAs);
        if (m_file.number() < 0 && errno == EEXIST && remove_abandoned(place)) {
            m_file = make_file(place, privateAs);
        }
        if (m_file.number() >= 0) {
            m_temporary = place;
            return;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    fail();
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : m_stop(std::move(other.m_stop)), m_name(std::move(other.m_name)),
      m_temporary(std::exchange(other.m_temporary, {})), m_file(std::move(other.m_file)) {}

OutputFile::~OutputFile() {
    if (!m_temporary.empty()) {
        m_file.close(); // an open one can't be removed everywhere
        std::error_code error;
        std::filesystem::remove(m_temporary, error);
    }
}

void OutputFile::write(std::span<uint8_t const> bytes) {
    while (!bytes.empty()) {
        if (m_stop && m_stop->is_wanted()) {
            throw Failure("write output", m_name, FFD_FILE_IO_ERROR, "interrupted",
                          "Nothing was written.");
        }
        if (!write_some(bytes)) {
            fail();
        }
    }
}

void OutputFile::close() {
    if ((!m_temporary.empty() && !flush(m_file)) || !m_file.close()) {
        fail();
    }
}

void OutputFile::publish(bool replace) {
    if (!m_temporary.empty() && !move_file(m_temporary, m_name, replace)) {
        fail();
    }
    m_temporary.clear();
    m_stop.reset();
}

void OutputFile::fail() const {
    throw Failure("write output", m_name.empty() ? "standard output" : m_name, FFD_FILE_IO_ERROR,
                  "the output cannot be written: " + system_words(errno),
                  "Check the permissions of the output, and that the disk is not full.");
}

} // namespace ffdhost
