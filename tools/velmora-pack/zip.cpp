#include "zip.hpp"

#include <archive_entry.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace pack
{

namespace
{

/** 1980-01-01, the first time that a ZIP can hold. */
constexpr std::int32_t earliestTime = 315532800;
constexpr mode_t memberMode = 0644;
constexpr std::size_t readBlock = 64U << 10;
/** A small archive can unpack to a great deal. */
constexpr std::uint64_t mostUnpacked = std::uint64_t{64} << 30;

constexpr std::uint64_t largestDirectory = 8U << 20;
constexpr std::size_t endRecordSize = 22;
constexpr std::size_t endRecordDirectory = 16;
constexpr std::size_t largestComment = 0xffff;
constexpr std::size_t locatorSize = 20;
constexpr std::size_t locatorRecord = 8;
constexpr std::size_t record64Size = 56;
constexpr std::size_t record64Directory = 48;
constexpr std::uint32_t seeRecord64 = 0xffffffff;

using Entry = Handle<archive_entry, archive_entry_free>;
using Reader = Handle<archive, archive_read_free>;

std::string reasonOf(archive* handle)
{
    const int number = archive_errno(handle);
    const char* const text = archive_error_string(handle);
    // EILSEQ is the library's own mark for a malformed archive.
    if (number > 0 && number != EILSEQ)
    {
        return std::generic_category().message(number);
    }
    return text == nullptr ? "cannot be read as a ZIP" : text;
}

void expectSmallDirectory(const Source& source, std::uint64_t offset)
{
    if (offset < source.size() && source.size() - offset > largestDirectory)
    {
        throw Error(source.name(), "has too large a central directory");
    }
}

/** The archive library keeps the whole central directory in memory: how long
 *  it can be at most is therefore looked at first. */
void boundDirectory(const Source& source)
{
    const std::uint64_t size =
        std::min<std::uint64_t>(source.size(), largestComment + endRecordSize);
    const Buffer tail = source.read(source.size() - size, size);
    const std::size_t end = textOf(tail).rfind("PK\5\6");
    if (end == std::string_view::npos || tail.size() - end < endRecordSize)
    {
        return;
    }
    const auto directory =
        loadLittle<std::uint32_t>(tail, end + endRecordDirectory);
    if (directory != seeRecord64)
    {
        expectSmallDirectory(source, directory);
    }
    if (end >= locatorSize &&
        textOf(tail).substr(end - locatorSize).starts_with("PK\6\7"))
    {
        const auto record =
            loadLittle<std::uint64_t>(tail, end - locatorSize + locatorRecord);
        if (record <= source.size() && source.size() - record >= record64Size)
        {
            expectSmallDirectory(source, loadLittle<std::uint64_t>(
                                             source.read(record, record64Size),
                                             record64Directory));
        }
    }
}

/** One pass over the members of an archive. */
class ZipReader
{
  public:
    explicit ZipReader(const Source& file) :
        source(file), reader(archive_read_new()),
        progress("reading", file.name(), file.size())
    {
        boundDirectory(source);
        check(archive_read_support_format_zip(reader.get()));
        const auto descriptor = source.descriptor();
        check(descriptor
                  ? archive_read_open_fd(reader.get(), *descriptor, readBlock)
                  : archive_read_open_memory(reader.get(),
                                             source.memory().data(),
                                             source.memory().size()));
    }

    bool next(ZipMember& member)
    {
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(reader.get(), &entry);
        if (result == ARCHIVE_EOF)
        {
            return false;
        }
        check(result);
        if (++members > mostMembers)
        {
            throw Error(source.name(), "has too many members");
        }
        const char* const name = archive_entry_pathname(entry);
        member.name = name == nullptr ? "" : name;
        member.offset =
            static_cast<std::uint64_t>(archive_filter_bytes(reader.get(), 0));
        member.regular = archive_entry_filetype(entry) == AE_IFREG &&
                         archive_entry_symlink(entry) == nullptr;
        return true;
    }

    void content(const Consumer& consume)
    {
        while (true)
        {
            throwIfInterrupted();
            const void* block = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            const int result =
                archive_read_data_block(reader.get(), &block, &size, &offset);
            if (result == ARCHIVE_EOF)
            {
                return;
            }
            check(result);
            unpacked += size;
            if (unpacked > mostUnpacked)
            {
                throw Error(source.name(), "unpacks to too much");
            }
            progress.advance(size);
            consume({static_cast<const std::byte*>(block), size});
        }
    }

  private:
    void check(int result) const
    {
        // A warning is about a name that the locale cannot show.
        if (result != ARCHIVE_OK && result != ARCHIVE_WARN)
        {
            throw Error(source.name(), reasonOf(reader.get()));
        }
    }

    const Source& source;
    Reader reader;
    Progress progress;
    std::size_t members = 0;
    std::uint64_t unpacked = 0;
};

} // namespace

ZipWriter::ZipWriter(OutputFile& file) :
    output(file), writer(archive_write_new())
{
    // A ZIP holds local times: the zone must not show in its bytes.
    setenv("TZ", "UTC0", 1);
    tzset();
    check(archive_write_set_format_zip(writer.get()));
    // Firmware hardly compresses, and a compressor's output changes with its
    // version.
    check(archive_write_zip_set_compression_store(writer.get()));
    check(archive_write_open_fd(writer.get(), output.descriptor()));
}

void ZipWriter::check(int result)
{
    if (result != ARCHIVE_OK)
    {
        throw Error(output.path().string(), reasonOf(writer.get()));
    }
}

void ZipWriter::add(const std::string& name, const Source& source)
{
    const Entry entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), memberMode);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(source.size()));
    archive_entry_set_mtime(
        entry.get(),
        std::max(sourceDateEpoch().value_or(earliestTime), earliestTime), 0);
    check(archive_write_header(writer.get(), entry.get()));
    source.stream(
        0, source.size(), "packing",
        [&](Bytes piece)
        {
            if (archive_write_data(writer.get(), piece.data(), piece.size()) !=
                static_cast<la_ssize_t>(piece.size()))
            {
                throw Error(output.path().string(), reasonOf(writer.get()));
            }
        });
    check(archive_write_finish_entry(writer.get()));
}

void ZipWriter::finish() { check(archive_write_close(writer.get())); }

void readZip(const Source& source,
             const std::function<Consumer(const ZipMember&)>& visit)
{
    ZipReader reader(source);
    ZipMember member;
    while (reader.next(member))
    {
        if (const Consumer consume = visit(member))
        {
            reader.content(consume);
        }
    }
}

} // namespace pack
