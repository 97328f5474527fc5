#pragma once

#include "bytes.hpp"
#include "common/files.hpp"
#include "error.hpp"

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace pack
{

/** The largest file that is read into memory whole. */
inline constexpr std::uint64_t LARGEST_FILE_IN_MEMORY = 16U << 20;

using Consumer = std::function<void(Bytes)>;

/** Bytes to read: a regular file, or a copy of what is in memory. */
class Source
{
  public:
    /** The name stands for the file in messages; empty, its path does. */
    explicit Source(const std::filesystem::path& path, std::string name = {});
    explicit Source(Bytes content, std::string name = "memory");

    const std::string& name() const { return name_; }
    std::uint64_t size() const { return size_; }
    int fileDescriptor() const { return file_.get(); }

    /** Leaves out what stands behind the first @p size bytes. */
    void shorten(std::uint64_t size) { size_ = std::min(size_, size); }

    void read(std::uint64_t offset, std::span<std::byte> into) const;
    Buffer read(std::uint64_t offset, std::uint64_t size) const;
    Buffer readAll() const { return read(0, size_); }
    /** Passes the first @p size bytes on, piece by piece. */
    void stream(std::uint64_t size, const Consumer& consume) const;

  private:
    std::string name_;
    FileDescriptor file_;
    std::uint64_t size_ = 0;
};

/** A file or directory that is made beside its target. It appears under that
 *  name only when it is complete. */
class Output
{
  public:
    /** @param force it may replace a file */
    explicit Output(const std::filesystem::path& target, bool force = false);

    /** Where it is made. */
    const std::filesystem::path& path() const { return path_; }
    /** The file that was made. */
    Source readBack() const { return Source(path(), target_.string()); }
    /** Gives it its name.
     *
     *  @throws Error when there is something of that name; a file may be
     *          replaced by force, and a directory that is empty */
    void renameToTarget() const;

  private:
    std::filesystem::path target_;
    bool force_;
    tools::TemporaryDirectory directory_;
    std::filesystem::path path_;
};

/** Writes the source and then the tail.
 *
 *  @param check reads what was written, and throws when that must not
 *         become the target */
void writeFile(
    const std::filesystem::path& target, bool force, const Source& source,
    Bytes tail = {},
    const std::function<void(const Source&)>& check = [](const Source&) {});

/** The time that SOURCE_DATE_EPOCH gives, in seconds. */
std::optional<std::int32_t> sourceDateEpoch();

/** An output must not take the place of what it is made from, nor of anything
 *  else that is not to be replaced; in a payload's directory, it would be
 *  packed the next time.
 *
 *  @param inputs some may be empty
 *  @throws Error when it is one of them or in one, or exists without
 *          @p force */
void refuseOverwrite(const std::filesystem::path& output,
                     const std::vector<std::filesystem::path>& inputs,
                     bool force);

/** @throws Error unless it is absent, or an empty directory */
void expectNewDirectory(const std::filesystem::path& output);

/** What is shipped must not hold a private key, as it would when the wrong
 *  file was named.
 *
 *  @throws Error when the start of @p source has one in PEM or OpenPGP's
 *          armour */
void expectNoPrivateKey(const Source& source);

} // namespace pack
