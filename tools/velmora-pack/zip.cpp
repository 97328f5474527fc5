#include "zip.hpp"

#include <archive_entry.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <limits>
#include <optional>
#include <system_error>

namespace pack
{
namespace
{

/** 1980-01-01, the first time that a ZIP can hold. */
constexpr std::int32_t EARLIEST_TIME = 315532800;
constexpr mode_t MEMBER_MODE = 0644;
constexpr std::size_t READ_BLOCK = 64U << 10;
/** The archive library keeps the whole central directory in memory. */
constexpr std::uint64_t LARGEST_DIRECTORY = 8U << 20;
/** A small archive can unpack to a great deal. */
constexpr std::uint64_t MOST_UNPACKED = std::uint64_t{8} << 30;

using Entry = Handle<archive_entry, archive_entry_free>;
using Reader = Handle<archive, archive_read_free>;

/** What the archive library reads from. */
struct Input
{
    int fileDescriptor;
    Buffer block = Buffer(READ_BLOCK);
    /** So many bytes may still be read. */
    std::uint64_t budget = LARGEST_DIRECTORY;
};

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

la_ssize_t readInput(archive* handle, void* data, const void** block)
{
    Input& input = *static_cast<Input*>(data);
    const ssize_t count = read(input.fileDescriptor, input.block.data(),
                               static_cast<std::size_t>(std::min<std::uint64_t>(
                                   input.block.size(), input.budget)));
    if (count < 0)
    {
        archive_set_error(handle, errno, "cannot be read");
        return ARCHIVE_FATAL;
    }
    input.budget -= static_cast<std::uint64_t>(count);
    *block = input.block.data();
    return count;
}

la_int64_t seekInput(archive* /*handle*/, void* data, la_int64_t offset,
                     int whence)
{
    return lseek(static_cast<Input*>(data)->fileDescriptor, offset, whence);
}

/** What the central directory says of a member. */
struct Listed
{
    /** Of its local header. */
    std::uint64_t offset = 0;
    std::string name;
};

// Records of a ZIP: PKWARE's APPNOTE.TXT, 4.3.7, 4.3.12 and 4.3.16.
constexpr std::size_t LOCAL_SIZE = 30;
constexpr std::size_t LISTED_SIZE = 46;
constexpr std::size_t END_SIZE = 22;
constexpr std::uint64_t MOST_COMMENT = 65535;

/** A record's name, which stands behind its @p size bytes. */
std::string nameBehind(const Source& source, std::uint64_t record,
                       std::size_t size, std::size_t lengthField)
{
    const auto length =
        loadLittle<std::uint16_t>(source.read(record + lengthField, 2), 0);
    return std::string(textOf(source.read(record + size, length)));
}

/** Where the record is that ends the directory. */
std::optional<std::uint64_t> findEnd(const Source& source)
{
    const std::uint64_t start =
        source.size() - std::min(source.size(), END_SIZE + MOST_COMMENT);
    const Buffer tail = source.read(start, source.size() - start);
    const std::size_t found =
        tail.size() < END_SIZE
            ? std::string_view::npos
            : textOf(tail).rfind("PK\5\6", tail.size() - END_SIZE);
    return found == std::string_view::npos ? std::nullopt
                                           : std::optional(start + found);
}

/** The members in the order of their places, as the archive library gives
 *  them. That library changes some letters and backslashes in names; the
 *  extractor does not. */
std::vector<Listed> readDirectory(const Source& source, Remarks& remarks)
{
    std::vector<Listed> all;
    const auto end = findEnd(source);
    if (!end)
    {
        return all;
    }
    const Buffer record = source.read(*end, END_SIZE);
    const auto count = loadLittle<std::uint16_t>(record, 10);
    const std::uint64_t size = loadLittle<std::uint32_t>(record, 12);
    const std::uint64_t offset = loadLittle<std::uint32_t>(record, 16);
    if (size > *end || offset > *end - size || size > LARGEST_DIRECTORY)
    {
        return all;
    }
    // Something else may stand in front of the archive.
    const std::uint64_t before = *end - size - offset;
    for (std::uint64_t at = *end - size; *end - at >= LISTED_SIZE;)
    {
        const Buffer member = source.read(at, LISTED_SIZE);
        if (!textOf(member).starts_with("PK\1\2"))
        {
            break;
        }
        all.push_back({before + loadLittle<std::uint32_t>(member, 42),
                       nameBehind(source, at, LISTED_SIZE, 28)});
        at += LISTED_SIZE + all.back().name.size() +
              loadLittle<std::uint16_t>(member, 30) +
              loadLittle<std::uint16_t>(member, 32);
        at = std::min(at, *end);
    }
    if (all.size() != count)
    {
        remarks.push_back("the directory's end counts " +
                          std::to_string(count) + " members, and it has " +
                          std::to_string(all.size()));
    }
    std::ranges::stable_sort(all, {}, &Listed::offset);
    const auto shared = std::ranges::unique(all, {}, &Listed::offset);
    for (const Listed& member : shared)
    {
        remarks.push_back("member " + member.name +
                          ": shares its place with another");
    }
    all.erase(shared.begin(), shared.end());
    return all;
}

/** One pass over the members of an archive. */
class ZipReader
{
  public:
    ZipReader(const Source& source, Remarks& remarks) :
        source_(source), remarks_(remarks),
        listed_(readDirectory(source, remarks)),
        input_{source.fileDescriptor()}, reader_(archive_read_new())
    {
        // Without it the archive library refuses names in UTF-8.
        std::setlocale(LC_CTYPE, "C.UTF-8");
        archive* const reader = reader_.get();
        // The extractor too goes by the central directory alone.
        check(archive_read_support_format_zip_seekable(reader));
        check(archive_read_set_callback_data(reader, &input_));
        check(archive_read_set_read_callback(reader, readInput));
        check(archive_read_set_seek_callback(reader, seekInput));
        check(archive_read_open1(reader));
    }

    std::optional<ZipMember> next()
    {
        archive_entry* entry = nullptr;
        input_.budget = LARGEST_DIRECTORY;
        const int result = archive_read_next_header(reader_.get(), &entry);
        if (result == ARCHIVE_EOF)
        {
            return std::nullopt;
        }
        check(result);
        if (members_ == MOST_MEMBERS)
        {
            throw Error(source_.name(), "has more than 10000 members");
        }
        const char* const name = archive_entry_pathname(entry);
        name_ = name == nullptr ? "" : name;
        remarkOnName();
        remarkOnMethod();
        ++members_;
        return ZipMember{
            name_,
            static_cast<std::uint64_t>(archive_filter_bytes(reader_.get(), 0)),
            archive_entry_filetype(entry) == AE_IFREG &&
                archive_entry_symlink(entry) == nullptr};
    }

    void content(const Consumer& consume)
    {
        input_.budget = std::numeric_limits<std::uint64_t>::max();
        for (;;)
        {
            throwIfInterrupted();
            const void* block = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            const int result =
                archive_read_data_block(reader_.get(), &block, &size, &offset);
            if (result == ARCHIVE_WARN || result == ARCHIVE_FAILED)
            {
                remark(reasonOf(reader_.get()));
            }
            if (result == ARCHIVE_EOF || result == ARCHIVE_FAILED)
            {
                return;
            }
            check(result, "member " + name_ + ": ");
            unpacked_ += size;
            if (unpacked_ > MOST_UNPACKED)
            {
                throw Error(source_.name(), "unpacks to more than 8 GiB");
            }
            consume({static_cast<const std::byte*>(block), size});
        }
    }

  private:
    void check(int result, const std::string& where = {}) const
    {
        // A warning is about a name that the locale cannot show.
        if (result != ARCHIVE_OK && result != ARCHIVE_WARN)
        {
            throw Error(source_.name(),
                        input_.budget == 0
                            ? "has a central directory larger than 8 MiB"
                            : where + reasonOf(reader_.get()));
        }
    }

    void remark(const std::string& what)
    {
        remarks_.push_back("member " + name_ + ": " + what);
    }

    void remarkOnName()
    {
        if (members_ >= listed_.size())
        {
            remark("extractors may not find it in the directory");
            return;
        }
        const auto& [offset, name] = listed_[members_];
        name_ = name;
        if (name.find('\\') != std::string::npos)
        {
            remark("extractors differ in what a backslash in a name means");
        }
        if (offset + LOCAL_SIZE > source_.size() ||
            nameBehind(source_, offset, LOCAL_SIZE, 26) != name)
        {
            remark("has another name in front of its content");
        }
    }

    void remarkOnMethod()
    {
        // "ZIP 2.0 (deflation)", for instance
        const std::string format = archive_format_name(reader_.get());
        if (!format.ends_with("(uncompressed)") &&
            !format.ends_with("(deflation)"))
        {
            remark("not every extractor can read its compression, " + format);
        }
    }

    const Source& source_;
    Remarks& remarks_;
    std::vector<Listed> listed_;
    Input input_;
    Reader reader_;
    std::string name_;
    std::size_t members_ = 0;
    std::uint64_t unpacked_ = 0;
};

} // namespace

ZipWriter::ZipWriter(OutputFile& output) :
    output_(output), writer_(archive_write_new())
{
    // A ZIP holds local times: the zone must not show in its bytes.
    setenv("TZ", "UTC0", 1);
    tzset();
    check(archive_write_set_format_zip(writer_.get()));
    // Firmware hardly compresses, and a compressor's output changes with its
    // version.
    check(archive_write_zip_set_compression_store(writer_.get()));
    check(archive_write_open_fd(writer_.get(), output_.fileDescriptor()));
}

void ZipWriter::check(int result)
{
    if (result != ARCHIVE_OK)
    {
        throw Error(output_.target().string(), reasonOf(writer_.get()));
    }
}

void ZipWriter::add(const std::string& name, const Source& source)
{
    const Entry entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), MEMBER_MODE);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(source.size()));
    archive_entry_set_mtime(
        entry.get(),
        std::max(sourceDateEpoch().value_or(EARLIEST_TIME), EARLIEST_TIME), 0);
    check(archive_write_header(writer_.get(), entry.get()));
    source.stream(
        source.size(),
        [&](Bytes piece)
        {
            if (archive_write_data(writer_.get(), piece.data(), piece.size()) !=
                static_cast<la_ssize_t>(piece.size()))
            {
                throw Error(output_.target().string(), reasonOf(writer_.get()));
            }
        });
    check(archive_write_finish_entry(writer_.get()));
}

void ZipWriter::finish() { check(archive_write_close(writer_.get())); }

void readZip(
    const Source& source, Remarks& remarks,
    const std::function<void(const ZipMember&, const ZipContent&)>& visit)
{
    ZipReader reader(source, remarks);
    while (const auto member = reader.next())
    {
        visit(*member,
              [&](const Consumer& consume) { reader.content(consume); });
    }
}

} // namespace pack
