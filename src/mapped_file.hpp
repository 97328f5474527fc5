#pragma once

#include "handles.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

namespace velmora
{

/** An open file and its mapping. The destructor unmaps, then closes. */
class MappedFile
{
  public:
    explicit MappedFile(const char* path) :
        file_(open(path, O_RDONLY | O_CLOEXEC))
    {
    }

    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    ~MappedFile() { unmap(); }

    bool isOpen() const { return static_cast<bool>(file_); }

    bool measure()
    {
        struct stat status{};
        if (fstat(file_.get(), &status) == 0)
        {
            size_ = status.st_size;
            return true;
        }
        // Where time has 32 bits, a file dated 2038 or later has no such
        // status.
        struct statx known{};
        if (errno != EOVERFLOW ||
            statx(file_.get(), "", AT_EMPTY_PATH, STATX_SIZE, &known) != 0 ||
            known.stx_size > std::numeric_limits<std::int64_t>::max())
        {
            return false;
        }
        size_ = static_cast<std::int64_t>(known.stx_size);
        return true;
    }

    /** May be more than a 32-bit machine can map. */
    std::int64_t size() const { return size_; }

    bool map()
    {
        if (static_cast<std::uint64_t>(size_) >
            std::numeric_limits<std::size_t>::max())
        {
            errno = EFBIG;
            return false;
        }
        void* mapping = mmap(nullptr, static_cast<std::size_t>(size_),
                             PROT_READ, MAP_SHARED, file_.get(), 0);
        if (mapping == MAP_FAILED)
        {
            return false;
        }
        mapping_ = mapping;
        return true;
    }

    const void* data() const { return mapping_; }

    /** @return false when the system refuses */
    bool unmap()
    {
        void* mapping = std::exchange(mapping_, nullptr);
        return mapping == nullptr ||
               munmap(mapping, static_cast<std::size_t>(size_)) == 0;
    }

    bool close() { return file_.close(); }

  private:
    FileDescriptor file_;
    std::int64_t size_ = 0;
    void* mapping_ = nullptr;
};

} // namespace velmora
