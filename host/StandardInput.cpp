#include "StandardInput.h"

#include "console/Status.h"
#include "console/System.h"

#include <fstream>
#include <iostream>
#include <random>

namespace ffdhost {

StandardInput::StandardInput() {
    std::error_code error;
    std::random_device random;
    // A directory of its own: nobody else can have put something under the name of the file.
    do {
        m_directory =
            std::filesystem::temp_directory_path(error) / ("ffdhost-" + std::to_string(random()));
    } while (!std::filesystem::create_directory(m_directory, error) && !error);
    std::filesystem::permissions(m_directory, std::filesystem::perms::owner_all, error);

    make_stdin_binary();
    std::ofstream out(file(), std::ios::binary);
    if (std::cin.peek() != std::char_traits<char>::eof()) { // else the copy would count as failed
        out << std::cin.rdbuf();
    }
    if (!out.flush()) {
        std::filesystem::remove_all(m_directory, error);
        throw Failure("read standard input", file().string(), FFD_FILE_IO_ERROR,
                      "standard input cannot be kept in a file",
                      "Free some space in the temporary directory, or give the clip as a file.");
    }
}

StandardInput::~StandardInput() {
    std::error_code error;
    std::filesystem::remove_all(m_directory, error);
}

} // namespace ffdhost
