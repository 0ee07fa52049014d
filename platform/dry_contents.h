// The bytes of a file as the dry layer sees them: runs of bytes that are elsewhere already, in a
// real file or in memory. So a copy of a real file costs a few words, however large it is.
#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace dry {

// Where the bytes of a run are.
class Source {
public:
    virtual ~Source() = default;
    // Fills the buffer from an offset on. NO_ERROR, or the error; a source that has become shorter
    // than it was gives error 38.
    virtual DWORD read(uint64_t ullOffset, void* pBuffer, size_t nBytes) const = 0;
    // The path of the real file; empty for bytes in memory.
    virtual std::string const& path() const = 0;
};

// A real file, open as PlatformLookAtFile opens it.
class RealFile final : public Source {
public:
    // Takes over the handle. A file whose size cannot be had is empty, with its error in error().
    RealFile(HANDLE hFile, std::string path);
    ~RealFile() override;
    RealFile(RealFile const&) = delete;
    RealFile& operator=(RealFile const&) = delete;

    DWORD read(uint64_t ullOffset, void* pBuffer, size_t nBytes) const override;
    std::string const& path() const override { return m_path; }
    uint64_t size() const { return m_ullBytes; }
    DWORD error() const { return m_dwError; }

private:
    HANDLE m_hFile;
    std::string m_path;
    uint64_t m_ullBytes = 0;
    DWORD m_dwError = NO_ERROR;
};

// Bytes that were written. Runs may share one: it only grows, or is changed by its one owner.
class Held final : public Source {
public:
    DWORD read(uint64_t ullOffset, void* pBuffer, size_t nBytes) const override;
    std::string const& path() const override;

    std::string bytes;
};

struct Run {
    uint64_t ullFileOffset; // of its first byte; it ends where the next one begins
    uint64_t ullSourceOffset;
    std::shared_ptr<Source const> pSource; // null: bytes of 0
};

class Contents {
public:
    Contents() = default;
    explicit Contents(std::shared_ptr<RealFile const> pFile);

    uint64_t size() const { return m_ullBytes; }
    std::vector<Run> const& runs() const { return m_runs; }
    uint64_t end_of(size_t nRun) const; // file offset

    // Reads up to so many bytes and counts them: fewer only at the end. NO_ERROR, or the error.
    DWORD read(uint64_t ullFileOffset, void* pBuffer, DWORD dwBytes, DWORD& dwBytesRead) const;

    // Writes, and fills up with zeros what lies between the end and a file offset behind it.
    void write(uint64_t ullFileOffset, void const* pBytes, size_t nBytes);

    // The same with bytes of `from`, which stay where they are.
    void write_range(uint64_t ullFileOffset, Contents const& from, uint64_t ullFrom,
                     uint64_t ullBytes);

    void resize(uint64_t ullBytes);

private:
    size_t find_run(uint64_t ullFileOffset) const;
    bool overwrite(uint64_t ullFileOffset, void const* pBytes, size_t nBytes);
    size_t open_gap(uint64_t ullFileOffset, uint64_t ullBytes);
    void split_at(uint64_t ullFileOffset);
    std::shared_ptr<Held> room_for(size_t nBytes);

    std::vector<Run> m_runs; // in file order, without a gap from 0 on
    uint64_t m_ullBytes = 0;
    std::shared_ptr<Held> m_pHeld; // where small pieces that are written gather
};

} // namespace dry
