#pragma once

#include "handles.hpp"

#include <filesystem>
#include <string>
#include <string_view>

namespace tools
{

/** A private directory that is gone, with its content, when this is, or when
 *  a signal ends the program. */
class TemporaryDirectory
{
  public:
    /** Makes one in TMPDIR, or in /tmp.
     *
     *  @throws Error when it cannot be made */
    TemporaryDirectory();
    /** @param pattern its path, which ends in XXXXXX */
    explicit TemporaryDirectory(std::string pattern);
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

/** Has no file that is opened later, nor a pipe, take the number of a standard
 *  stream that was closed. Nothing can be written to what stands there. */
void openStandardStreams();

/** A file in memory that no path leads to.
 *
 *  @throws Error when it cannot be made */
FileDescriptor memoryFile(std::string_view content = {});

/** What is left to read.
 *
 *  @param name stands for the file in messages
 *  @throws Error when it cannot be read */
std::string readAll(const FileDescriptor& file, std::string_view name);

/** @throws Error when not all can be written */
void writeAll(const FileDescriptor& file, std::string_view content,
              std::string_view name);

/** A file's whole content.
 *
 *  @throws Error when it cannot be had */
std::string readFile(const std::filesystem::path& path);

} // namespace tools
