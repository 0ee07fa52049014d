#include "Beside.h"

#include "console/Files.h"
#include "console/Status.h"

#include <algorithm>
#include <cctype>

namespace ffdhost {

std::filesystem::path beside(std::string const& soundFile, std::string const& extension) {
    std::string const name = std::filesystem::path(soundFile).filename().string();
    return std::filesystem::path(soundFile).replace_filename(name.substr(0, name.rfind('.')) +
                                                             extension);
}

bool ends_in(std::filesystem::path const& path, std::string const& extension) {
    std::string own = path.extension().string();
    std::transform(own.begin(), own.end(), own.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return own == extension;
}

std::filesystem::path dir_file_of(std::string const& soundFile) {
    return beside(soundFile, ".DIR");
}

std::filesystem::path marker_file_of(std::string const& soundFile) {
    return beside(soundFile, ".CLM");
}

std::optional<uint64_t> leftover_size(std::string const& soundFile) {
    std::filesystem::path const path = dir_file_of(soundFile);
    if (is_no_regular_file(path)) {
        throw Failure(
            "look at directory", path.string(), FFD_FILE_IO_ERROR, "it is no regular file",
            "Find out who made it and move it away; an open for writing fails until then.");
    }
    std::error_code error;
    uint64_t const size = std::filesystem::file_size(path, error);
    return error ? std::nullopt : std::optional(size);
}

} // namespace ffdhost
