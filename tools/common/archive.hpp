#pragma once

#include "handles.hpp"

#include <zip.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tools
{

/** A member of a ZIP as the archive's directory lists it. Nobody vouches for
 *  any of it. */
struct ArchiveMember
{
    /** Its bytes as they stand, in no known encoding. */
    std::string name;
    /** regular, directory or symlink, and unknown for anything else. */
    std::filesystem::file_type type = std::filesystem::file_type::unknown;
    /** Of its content once it is extracted, in bytes. */
    std::uint64_t size = 0;
    /** "stored" or "deflated", for instance. */
    std::string compression;
    bool isEncrypted = false;
    /** Why an extractor would make something else of it, or empty. */
    std::string problem;
};

/** Takes a piece of a member's content. */
using ContentConsumer = std::function<void(std::span<const std::byte>)>;

/** A ZIP that may be hostile, to look at before anything is unpacked. It is
 *  read as unzip does: by the directory that its last end record names. */
class Archive
{
  public:
    /** @param file a regular file, open for reading
     *  @param name stands for it in messages
     *  @throws Error when it cannot be read, or is no ZIP */
    Archive(FileDescriptor file, std::string name);
    ~Archive();

    /** In the order of the directory; one name can be there twice. */
    const std::vector<ArchiveMember>& members() const { return members_; }

    /** The sum of all sizes, in bytes; the largest number if none holds it. */
    std::uint64_t totalSize() const;

    /** What the file has beside members and directory, or says in two ways:
     *  "has a comment", for instance. */
    const std::vector<std::string>& oddities() const { return oddities_; }

    /** Hands on a member's content, which has at most the listed size, and
     *  moves the bar by it.
     *
     *  @param index in members()
     *  @return what is wrong with the content, or empty
     *  @throws what @p consume throws */
    std::string read(std::size_t index, const ContentConsumer& consume) const;

    /** For libzip, which copies members from it. */
    zip_t* zip() const { return zip_.get(); }

  private:
    struct Input;
    struct Header;

    void open();
    std::uint64_t findDirectory(std::string_view tail, std::size_t last) const;
    /** @param directory where in the file it begins */
    void listMembers(std::uint64_t directory);
    /** @param end the file from its end record on */
    void listOddities(std::string_view end);

    std::string name_;
    std::unique_ptr<Input> input_;
    Handle<zip_t, zip_discard> zip_;
    std::vector<ArchiveMember> members_;
    std::vector<std::string> oddities_;
};

/** What a member of a new archive is made from: a member of another archive,
 *  a file, or else the content that is given. */
struct NewMember
{
    std::string name;
    std::string_view content;
    // g++ warns of an initializer that is missing.
    // NOLINTNEXTLINE(readability-redundant-member-init)
    std::filesystem::path file = {};
    const Archive* archive = nullptr;
    std::size_t index = 0;
};

/** Makes a ZIP, always as the same bytes: nothing is compressed, and no file's
 *  own time or mode shows.
 *
 *  @param path of a file that does not exist; none is left after a failure
 *  @param name stands for it in messages
 *  @param time of all members, in seconds since 1970
 *  @throws Error when a file cannot be read or the archive not be written, or
 *          a signal has asked to end */
void writeArchive(const std::filesystem::path& path, const std::string& name,
                  std::int32_t time, const std::vector<NewMember>& members);

} // namespace tools
