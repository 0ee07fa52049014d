#include "Driver.h"

#include "Status.h"

#include <cstring>
#include <type_traits>

namespace ffdhost {

namespace {

[[noreturn]] void load_failed(std::filesystem::path const& path, FFDError status,
                              std::string const& words) {
    throw Failure("load driver", path.string(), status, words,
                  std::string("Put ") + kDriverFileName +
                      " and its trace library beside ffdhost, or name it with --driver.");
}

// Absolute, so that the system does not go looking for a bare name in its own places. Without a
// path the driver is beside the program, or where both were installed.
std::filesystem::path resolved(std::filesystem::path const& path) {
    if (!path.empty()) {
        return std::filesystem::absolute(path);
    }
    std::filesystem::path const beside = program_directory() / kDriverFileName;
    std::filesystem::path const installed =
        program_directory() / FFDHOST_LIBRARY_DIRECTORY / kDriverFileName;
    std::error_code error;
    return !exists(beside, error) && exists(installed, error) ? installed : beside;
}

Library load(std::filesystem::path const& path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        load_failed(path, FFD_FILE_NOT_FOUND, "the driver does not exist");
    }
    try {
        return Library(path);
    } catch (std::runtime_error const& reason) {
        load_failed(path, FFD_FILE_IO_ERROR, reason.what());
    }
}

} // namespace

Driver::Driver(std::filesystem::path const& path) : m_library(load(resolved(path))) {
    auto const* table = static_cast<void* const*>(m_library.symbol(FFD_TABLE_SYMBOL));
    if (table == nullptr) {
        load_failed(resolved(path), FFD_NOT_SUPPORTED,
                    "the library is no such driver: it exports no " FFD_TABLE_SYMBOL);
    }
    auto const take = [&](auto& proc, int slot) {
        static_assert(std::is_pointer_v<std::remove_reference_t<decltype(proc)>> &&
                      sizeof proc == sizeof table[slot]);
        if (table[slot] == nullptr) {
            load_failed(resolved(path), FFD_NOT_SUPPORTED,
                        "slot " + std::to_string(slot) + " of the driver's table is empty");
        }
        std::memcpy(&proc, &table[slot], sizeof proc);
    };
    take(create_file, FFD_SLOT_CREATE_FILE);
    take(close, FFD_SLOT_CLOSE);
    take(get_dictation_file_size, FFD_SLOT_GET_DICTATION_FILE_SIZE);
    take(get_wfx, FFD_SLOT_GET_WFX);
    take(get_current_pos, FFD_SLOT_GET_CURRENT_POS);
    take(audio_seek, FFD_SLOT_AUDIO_SEEK);
    take(get_size_of_data, FFD_SLOT_GET_SIZE_OF_DATA);
    take(read_data, FFD_SLOT_READ_DATA);
    take(write_data, FFD_SLOT_WRITE_DATA);
    take(delete_data, FFD_SLOT_DELETE_DATA);
    take(undo_last, FFD_SLOT_UNDO_LAST);
    take(store_actual_file_status, FFD_SLOT_STORE_ACTUAL_FILE_STATUS);
    take(restore_file_status, FFD_SLOT_RESTORE_FILE_STATUS);
}

} // namespace ffdhost
