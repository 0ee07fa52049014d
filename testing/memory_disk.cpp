#include "testing/memory_disk.h"

#include <cstdlib>

namespace memory_disk {

void begin(Files const& files) {
    dry::start(dry::Disk::Empty);
    for (auto const& [path, bytes] : files) {
        put(path, bytes);
    }
}

void put(std::string const& path, std::string const& bytes) {
    HANDLE const hFile =
        CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD dwWritten = 0;
    if (!WriteFile(hFile, bytes.data(), static_cast<DWORD>(bytes.size()), &dwWritten, nullptr) ||
        !CloseHandle(hFile)) {
        abort();
    }
}

std::string get(std::string const& path) {
    dry::Contents const* const pContents = dry::find(path);
    if (pContents == nullptr) {
        abort();
    }
    std::string bytes(static_cast<size_t>(pContents->size()), '\0');
    DWORD dwRead = 0;
    pContents->read(0, bytes.data(), static_cast<DWORD>(bytes.size()), dwRead);
    return bytes;
}

bool has(std::string const& path) {
    return dry::find(path) != nullptr;
}

Files all() {
    Files files;
    for (std::string const& name : dry::names()) {
        files.emplace(name, get(name));
    }
    return files;
}

Files left_by_crash() {
    Files files = all();
    std::erase_if(files, [](auto const& file) { return file.first.ends_with(".csf"); });
    return files;
}

} // namespace memory_disk
