#pragma once

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <utility>

/** @file Files and directories that have one owner, and are complete or not
 *  there. */

namespace update_daemon
{

namespace fs = std::filesystem;

constexpr std::size_t PIECE_SIZE = 65536;

[[noreturn]] inline void failWithErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

class FileDescriptor
{
  public:
    /** @p number has just been acquired, from what @p name says. */
    FileDescriptor(int number, std::string name) :
        number_(number), name_(std::move(name))
    {
        if (number_ < 0)
        {
            failWithErrno(name_);
        }
    }

    FileDescriptor(const fs::path& path, int flags) :
        FileDescriptor(open(path.c_str(), flags | O_CLOEXEC, 0600),
                       path.string())
    {
    }

    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    ~FileDescriptor() { close(number_); }

    int get() const { return number_; }

    const std::string& name() const { return name_; }

  private:
    int number_;
    std::string name_;
};

/** Only one update at a time may use the fixed files and the bus objects. */
class OneAtATime
{
  public:
    explicit OneAtATime(const fs::path& directory) :
        directory_(directory, O_RDONLY | O_DIRECTORY)
    {
        if (flock(directory_.get(), LOCK_EX | LOCK_NB) != 0)
        {
            failWithErrno("another update is under way");
        }
    }

  private:
    FileDescriptor directory_;
};

/** A directory that nobody else can look into: empty now, whatever a run that
 *  was killed has left, and empty afterwards. It may be a mount, so it is never
 *  removed itself. */
class PrivateDirectory
{
  public:
    explicit PrivateDirectory(fs::path path) : path_(std::move(path))
    {
        if (mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST)
        {
            failWithErrno(path_.string());
        }
        clear();
    }

    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    ~PrivateDirectory()
    {
        try
        {
            clear();
        }
        catch (const std::exception& e)
        {
            std::cerr << "cannot remove the private copy: " << e.what() << '\n';
        }
    }

    const fs::path& path() const { return path_; }

  private:
    void clear() const
    {
        // A package says which rights its directories have. The iterator goes
        // into each after this.
        for (const fs::directory_entry& entry :
             fs::recursive_directory_iterator(path_))
        {
            if (fs::is_directory(entry.symlink_status()))
            {
                fs::permissions(entry.path(), fs::perms::owner_all,
                                fs::perm_options::add);
            }
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(path_))
        {
            fs::remove_all(entry.path());
        }
    }

    fs::path path_;
};

inline void writeAll(const FileDescriptor& file, const char* data,
                     std::size_t size)
{
    while (size > 0)
    {
        const ssize_t written = write(file.get(), data, size);
        if (written < 0)
        {
            failWithErrno("cannot write " + file.name());
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

inline std::string contentOf(int file)
{
    std::string content;
    std::array<char, PIECE_SIZE> piece{};
    ssize_t size = 0;
    while ((size = pread(file, piece.data(), piece.size(),
                         static_cast<off_t>(content.size()))) > 0)
    {
        content.append(piece.data(), static_cast<std::size_t>(size));
    }
    return content;
}

inline void sync(const fs::path& path)
{
    const FileDescriptor file(path, O_RDONLY);
    if (fsync(file.get()) != 0)
    {
        failWithErrno(path.string());
    }
}

/** There is the old file or the new one, even if the power fails. */
inline void replaceFile(const fs::path& path, const nlohmann::json& content)
{
    const fs::path fresh = path.string() + ".new";
    const std::string text =
        content.dump(4, ' ', true, nlohmann::json::error_handler_t::replace) +
        '\n';
    try
    {
        const FileDescriptor file(fresh, O_WRONLY | O_CREAT | O_TRUNC);
        writeAll(file, text.data(), text.size());
        sync(fresh);
        fs::rename(fresh, path);
    }
    catch (const std::exception&)
    {
        unlink(fresh.c_str());
        throw;
    }
    sync(path.parent_path());
}

} // namespace update_daemon
