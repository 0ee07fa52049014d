// A folder can't be renamed or replaced here while it is open without the right to delete it, and
// permissions come from the folder that something is made in.
#include "OpenFolder.h"

#include <windows.h>

#include <cstdint>
#include <io.h>
#include <system_error>
#include <utility>

namespace ffdhost {

namespace {

[[noreturn]] void fail(std::filesystem::path const& path) {
    fail_to_copy(path, std::system_category().message(static_cast<int>(GetLastError())));
}

HANDLE hold(std::filesystem::path const& path) {
    return CreateFileW(path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, OPEN_EXISTING,
                       FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

} // namespace

OpenFolder::OpenFolder(std::filesystem::path path) : m_path(std::move(path)) {
    HANDLE const folder = hold(m_path.empty() ? std::filesystem::path(".") : m_path);
    if (folder == INVALID_HANDLE_VALUE) {
        fail(m_path);
    }
    m_folder = Descriptor(_open_osfhandle(reinterpret_cast<intptr_t>(folder), 0));
}

OpenFolder::OpenFolder(std::filesystem::path path, Descriptor folder)
    : m_path(std::move(path)), m_folder(std::move(folder)) {}

std::optional<OpenFolder> OpenFolder::make_folder(std::string const& name) const {
    std::filesystem::path const path = m_path / name;
    if (CreateDirectoryW(path.c_str(), nullptr) == 0) {
        if (GetLastError() == ERROR_ALREADY_EXISTS) {
            return std::nullopt;
        }
        fail(path);
    }
    return OpenFolder(path);
}

bool OpenFolder::copy_file(std::string const& name, OpenFolder const& target) const {
    std::filesystem::path const path = m_path / name;
    DWORD const attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND) {
            return false;
        }
        fail(path);
    }
    if ((attributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0) {
        fail_to_copy(path, "it is no regular file");
    }
    if (CopyFileExW(path.c_str(), (target.m_path / name).c_str(), nullptr, nullptr, nullptr,
                    COPY_FILE_FAIL_IF_EXISTS) == 0) {
        fail(path);
    }
    return true;
}

void OpenFolder::let_in_readers_of(std::string const& /*name*/) const {}

bool OpenFolder::leads_to(std::string const& name, OpenFolder const& folder) const {
    std::error_code error;
    return std::filesystem::equivalent(m_path / name, folder.m_path, error);
}

void OpenFolder::remove_file(std::string const& name) const {
    DeleteFileW((m_path / name).c_str());
}

void OpenFolder::remove_folder(std::string const& name) const {
    RemoveDirectoryW((m_path / name).c_str());
}

} // namespace ffdhost
