#include "archive.hpp"

#include "error.hpp"
#include "progress.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

namespace fs = std::filesystem;

namespace tools
{
namespace
{

// Records of a ZIP: PKWARE's APPNOTE.TXT, 4.3.7, 4.3.12 and 4.3.14 to 4.3.16.
constexpr std::string_view LOCAL_MAGIC = "PK\3\4";
constexpr std::size_t LOCAL_SIZE = 30;
constexpr std::string_view ENTRY_MAGIC = "PK\1\2";
constexpr std::size_t ENTRY_SIZE = 46;
/** In front of the fields that a member's own header and its entry in the
 *  directory both have. */
constexpr std::size_t LOCAL_START = 4;
constexpr std::size_t ENTRY_START = 6;
// Their offsets behind that.
constexpr std::size_t FLAGS = 2;
constexpr std::size_t METHOD = 4;
constexpr std::size_t CHECKSUM = 10;
constexpr std::size_t PACKED_SIZE = 14;
constexpr std::size_t UNPACKED_SIZE = 18;
constexpr std::size_t NAME_LENGTH = 22;
constexpr std::size_t EXTRA_LENGTH = 24;
constexpr std::size_t COMMENT_LENGTH = 26;
constexpr std::size_t ATTRIBUTES = 32;
constexpr std::size_t OWN_HEADER = 36;
constexpr std::uint64_t IS_ENCRYPTED = 1;
constexpr std::uint64_t SIZES_FOLLOW = 8;
constexpr std::size_t EXTRA_HEADER_SIZE = 4;
constexpr std::uint64_t ZIP64_EXTRA = 1;
// From the Info-ZIP project's proginfo/extrafld.txt: another name, behind a
// version and a checksum; and a type for a member that lists none.
constexpr std::uint64_t UNICODE_PATH_EXTRA = 0x7075;
constexpr std::size_t UNICODE_PATH_START = 5;
constexpr std::uint64_t ASI_UNIX_EXTRA = 0x756e;
constexpr std::string_view END_MAGIC = "PK\5\6";
constexpr std::size_t END_SIZE = 22;
constexpr std::size_t END_COUNT = 10;
constexpr std::size_t END_DIRECTORY_SIZE = 12;
constexpr std::size_t END_DIRECTORY_START = 16;
constexpr std::size_t END_COMMENT_LENGTH = 20;
constexpr std::string_view LOCATOR_MAGIC = "PK\6\7";
constexpr std::size_t LOCATOR_SIZE = 20;
constexpr std::uint64_t MARKS_ZIP64 = 0xFFFFFFFF;
constexpr std::size_t LOCATOR_OFFSET = 8;
constexpr std::size_t END64_SIZE = 56;
constexpr std::size_t END64_DIRECTORY_SIZE = 40;
constexpr std::size_t END64_DIRECTORY_START = 48;
/** Where the end record is looked for, with a locator in front of it. */
constexpr std::uint64_t TAIL_SIZE = END_SIZE + 65535 + LOCATOR_SIZE;
/** libzip keeps it in memory. */
constexpr std::uint64_t LARGEST_DIRECTORY = 8U << 20;
constexpr std::size_t PIECE_SIZE = 64U << 10;
constexpr std::uint32_t DOS_DIRECTORY = 0x10;

// Of the members of what is made here.
constexpr zip_uint32_t MEMBER_MODE = S_IFREG | 0644;
constexpr std::int32_t EARLIEST_TIME = 315532800; // 1980-01-01
constexpr double PROGRESS_STEP = 0.001;

using MemberFile = Handle<zip_file_t, zip_fclose>;

/** A little-endian number. */
std::uint64_t load(std::string_view bytes, std::size_t offset, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t i = size; i > 0; --i)
    {
        value = value << 8 | static_cast<unsigned char>(bytes[offset + i - 1]);
    }
    return value;
}

fs::file_type typeOf(const std::string& name, std::uint64_t attributes)
{
    const auto mode = static_cast<mode_t>(attributes >> 16 & S_IFMT);
    if (S_ISLNK(mode))
    {
        return fs::file_type::symlink;
    }
    if (name.ends_with('/') || S_ISDIR(mode) ||
        (attributes & DOS_DIRECTORY) != 0)
    {
        return fs::file_type::directory;
    }
    // Many programs store no type.
    return mode == 0 || S_ISREG(mode) ? fs::file_type::regular
                                      : fs::file_type::unknown;
}

std::string compressionName(std::uint16_t method)
{
    constexpr std::array NAMES{std::pair{ZIP_CM_STORE, "stored"},
                               std::pair{ZIP_CM_DEFLATE, "deflated"},
                               std::pair{ZIP_CM_DEFLATE64, "Deflate64"},
                               std::pair{ZIP_CM_BZIP2, "bzip2"},
                               std::pair{ZIP_CM_LZMA, "LZMA"},
                               std::pair{93, "Zstandard"},
                               std::pair{ZIP_CM_XZ, "XZ"}};
    const auto* const found =
        std::ranges::find(NAMES, method, &std::pair<int, const char*>::first);
    return found == NAMES.end() ? "method " + std::to_string(method)
                                : found->second;
}

} // namespace

/** What libzip reads from. */
struct Archive::Input
{
    FileDescriptor file;
    std::uint64_t size = 0;
    std::uint64_t position = 0;
    /** Releases of libzip differ in which of several end records they take.
     *  While the directory is looked for, all but the last are hidden. */
    std::vector<std::uint64_t> hidden;
    zip_error_t error{};

    /** Fewer at the end of the file, and none that cannot be read. */
    std::string readAt(std::uint64_t offset, std::uint64_t length) const
    {
        std::string bytes(static_cast<std::size_t>(length), '\0');
        const ssize_t count = pread(file.get(), bytes.data(), bytes.size(),
                                    static_cast<off_t>(offset));
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return bytes;
    }

    zip_int64_t readNext(std::span<char> into)
    {
        const ssize_t count = pread(file.get(), into.data(), into.size(),
                                    static_cast<off_t>(position));
        if (count < 0)
        {
            zip_error_set(&error, ZIP_ER_READ, errno);
            return -1;
        }
        const std::uint64_t end = position + static_cast<std::uint64_t>(count);
        for (auto place = std::ranges::lower_bound(hidden, position);
             place != hidden.end() && *place < end; ++place)
        {
            into[static_cast<std::size_t>(*place - position)] = 0;
        }
        position = end;
        return count;
    }

    static zip_int64_t serve(void* state, void* data, zip_uint64_t size,
                             zip_source_cmd_t command)
    {
        Input& input = *static_cast<Input*>(state);
        switch (command)
        {
            case ZIP_SOURCE_OPEN:
                input.position = 0;
                return 0;
            case ZIP_SOURCE_READ:
                return input.readNext(
                    {static_cast<char*>(data), static_cast<std::size_t>(size)});
            case ZIP_SOURCE_SEEK:
            {
                const zip_int64_t target = zip_source_seek_compute_offset(
                    input.position, input.size, data, size, &input.error);
                input.position = static_cast<std::uint64_t>(
                    std::max<zip_int64_t>(target, 0));
                return target < 0 ? -1 : 0;
            }
            case ZIP_SOURCE_TELL:
                return static_cast<zip_int64_t>(input.position);
            case ZIP_SOURCE_STAT:
            {
                auto& status = *static_cast<zip_stat_t*>(data);
                zip_stat_init(&status);
                status.valid = ZIP_STAT_SIZE;
                status.size = input.size;
                return sizeof(status);
            }
            case ZIP_SOURCE_ERROR:
                return zip_error_to_data(&input.error, data, size);
            case ZIP_SOURCE_SUPPORTS:
                return ZIP_SOURCE_SUPPORTS_SEEKABLE;
            case ZIP_SOURCE_CLOSE:
            case ZIP_SOURCE_FREE:
                return 0;
            default:
                zip_error_set(&input.error, ZIP_ER_OPNOTSUPP, 0);
                return -1;
        }
    }
};

Archive::Archive(FileDescriptor file, std::string name) :
    name_(std::move(name)), input_(std::make_unique<Input>())
{
    struct stat status{};
    if (file.get() < 0 || fstat(file.get(), &status) != 0)
    {
        throw systemError(name_);
    }
    if (!S_ISREG(status.st_mode))
    {
        throw Error(name_, "is not a regular file");
    }
    input_->file = std::move(file);
    input_->size = static_cast<std::uint64_t>(status.st_size);
    open();
}

Archive::~Archive() = default;

namespace
{

/** What the extra fields of a header say besides it. */
struct Extras
{
    explicit Extras(std::string_view extra, std::string_view name)
    {
        while (extra.size() >= EXTRA_HEADER_SIZE)
        {
            const std::uint64_t kind = load(extra, 0, 2);
            const auto size = static_cast<std::size_t>(load(extra, 2, 2));
            const std::string_view field =
                extra.substr(EXTRA_HEADER_SIZE, size);
            if (kind == ZIP64_EXTRA && zip64.empty())
            {
                zip64 = field;
            }
            hasOtherName |= kind == UNICODE_PATH_EXTRA &&
                            (field.size() < UNICODE_PATH_START ||
                             field.substr(UNICODE_PATH_START) != name);
            hasOtherType |= kind == ASI_UNIX_EXTRA;
            extra.remove_prefix(
                std::min(extra.size(), EXTRA_HEADER_SIZE + size));
        }
    }

    /** The numbers that do not fit into 32 bits, behind one another. */
    std::string_view zip64;
    /** Extractors differ in which of several they take. */
    bool hasOtherName = false;
    bool hasOtherType = false;
};

std::uint64_t takeNumber(std::string_view fields, std::size_t offset,
                         std::string_view& zip64)
{
    const std::uint64_t number = load(fields, offset, 4);
    if (number != MARKS_ZIP64 || zip64.size() < sizeof(std::uint64_t))
    {
        return number;
    }
    const std::uint64_t large = load(zip64, 0, sizeof(std::uint64_t));
    zip64.remove_prefix(sizeof(std::uint64_t));
    return large;
}

} // namespace

/** What an extractor goes by: a member's own header, or its entry in the
 *  directory. */
struct Archive::Header
{
    std::uint64_t flags = 0;
    std::uint64_t method = 0;
    std::uint64_t checksum = 0;
    std::uint64_t size = 0;
    std::uint64_t packedSize = 0;
    std::string name;
    /** What makes something else of the member, or empty. */
    const char* oddity = "";
    // Of an entry.
    std::uint64_t attributes = 0;
    /** Where the member's own header stands. */
    std::uint64_t own = 0;
    /** Where what follows begins. */
    std::uint64_t end = 0;

    /** @return nothing when none stands there */
    static std::optional<Header> at(const Input& input, std::uint64_t place,
                                    bool isEntry)
    {
        const std::size_t size = isEntry ? ENTRY_SIZE : LOCAL_SIZE;
        const std::string record = input.readAt(place, size);
        if (record.size() < size ||
            !record.starts_with(isEntry ? ENTRY_MAGIC : LOCAL_MAGIC))
        {
            return std::nullopt;
        }
        const auto fields = std::string_view(record).substr(
            isEntry ? ENTRY_START : LOCAL_START);
        Header header;
        header.flags = load(fields, FLAGS, 2);
        header.method = load(fields, METHOD, 2);
        header.checksum = load(fields, CHECKSUM, 4);
        header.name = input.readAt(place + size, load(fields, NAME_LENGTH, 2));
        header.end = place + size + header.name.size();
        const std::string extra =
            input.readAt(header.end, load(fields, EXTRA_LENGTH, 2));
        header.end += extra.size();
        Extras extras(extra, header.name);
        header.oddity = extras.hasOtherName ? "it has two names"
                        : extras.hasOtherType
                            ? "an extra field gives it a type of its own"
                            : "";
        header.size = takeNumber(fields, UNPACKED_SIZE, extras.zip64);
        header.packedSize = takeNumber(fields, PACKED_SIZE, extras.zip64);
        if (isEntry)
        {
            header.attributes = load(fields, ATTRIBUTES, 4);
            header.own = takeNumber(fields, OWN_HEADER, extras.zip64);
            header.end += load(fields, COMMENT_LENGTH, 2);
        }
        return header;
    }

    /** Of checksum and sizes, or zeros where they follow the content.
     *
     *  @param header the member's own header, where this is its entry */
    bool hasNumbersOf(const Header& header) const
    {
        const bool isLater = (header.flags & SIZES_FOLLOW) != 0;
        const auto agrees = [isLater](std::uint64_t here, std::uint64_t there)
        { return there == here || (isLater && there == 0); };
        return agrees(checksum, header.checksum) && agrees(size, header.size) &&
               agrees(packedSize, header.packedSize);
    }

    /** @return why the member, whose entry this is, cannot be extracted as
     *          the directory lists it; or empty */
    std::string objectionTo(const std::optional<Header>& header) const
    {
        const bool isEncrypted = (flags & IS_ENCRYPTED) != 0;
        const bool agrees =
            header && header->name == name && header->method == method &&
            (header->flags & IS_ENCRYPTED) == (flags & IS_ENCRYPTED) &&
            hasNumbersOf(*header);
        return !agrees ? "its own header says otherwise than the directory"
               : *oddity != '\0'         ? oddity
               : *header->oddity != '\0' ? header->oddity
               : isEncrypted             ? "it is encrypted"
               : method == ZIP_CM_STORE && size != packedSize
                   ? "its content is not as long as the directory says"
                   : "";
    }
};

/** @param last where in the file's @p tail the end record stands
 *  @return where the directory begins
 *  @throws Error unless it ends where the end record begins, and the two
 *          records of a ZIP64 say the same: who reads it takes either */
std::uint64_t Archive::findDirectory(std::string_view tail,
                                     std::size_t last) const
{
    std::uint64_t end = input_->size - (tail.size() - last);
    std::uint64_t start = load(tail, last + END_DIRECTORY_START, 4);
    std::uint64_t size = load(tail, last + END_DIRECTORY_SIZE, 4);
    bool isClear = true;
    const std::string_view locator =
        tail.substr(last - std::min(last, LOCATOR_SIZE));
    if (locator.starts_with(LOCATOR_MAGIC))
    {
        end = load(locator, LOCATOR_OFFSET, 8);
        std::string record = input_->readAt(end, END64_SIZE);
        record.resize(END64_SIZE);
        const std::uint64_t start64 = load(record, END64_DIRECTORY_START, 8);
        const std::uint64_t size64 = load(record, END64_DIRECTORY_SIZE, 8);
        isClear = (start == MARKS_ZIP64 || start == start64) &&
                  (size == MARKS_ZIP64 || size == size64);
        start = start64;
        size = size64;
    }
    if (size > LARGEST_DIRECTORY)
    {
        throw Error(name_, "has a directory larger than 8 MiB");
    }
    if (!isClear || start > end || size != end - start)
    {
        throw Error(name_, "cannot be read as a ZIP: its directory is not "
                           "where its end says");
    }
    return start;
}

void Archive::open()
{
    const std::uint64_t start =
        input_->size - std::min(input_->size, TAIL_SIZE);
    const std::string tail = input_->readAt(start, TAIL_SIZE);
    const std::size_t last =
        tail.size() < END_SIZE ? std::string::npos
                               : tail.rfind(END_MAGIC, tail.size() - END_SIZE);
    if (last == std::string::npos)
    {
        throw Error(name_, "is no ZIP, or is cut short");
    }
    const std::uint64_t directory = findDirectory(tail, last);
    for (std::size_t other = tail.find(END_MAGIC); other != std::string::npos;
         other = tail.find(END_MAGIC, other + 1))
    {
        if (other != last)
        {
            input_->hidden.push_back(start + other);
        }
    }
    zip_error_t error{};
    zip_source_t* const source =
        zip_source_function_create(Input::serve, input_.get(), &error);
    zip_.reset(source == nullptr
                   ? nullptr
                   : zip_open_from_source(source, ZIP_RDONLY, &error));
    if (!zip_)
    {
        const std::string reason = zip_error_strerror(&error);
        zip_error_fini(&error);
        zip_source_free(source);
        throw Error(name_, "cannot be read as a ZIP: " + reason);
    }
    input_->hidden.clear();
    listMembers(directory);
    listOddities(std::string_view(tail).substr(last));
}

void Archive::listOddities(std::string_view end)
{
    // The count of a ZIP64 that needs it is kept elsewhere.
    const std::uint64_t counted = load(end, END_COUNT, 2);
    if (counted != 0xFFFF && counted != members_.size())
    {
        oddities_.push_back("its end record counts " + std::to_string(counted) +
                            " members, and its directory lists " +
                            std::to_string(members_.size()));
    }
    const std::uint64_t comment = load(end, END_COMMENT_LENGTH, 2);
    if (comment > 0)
    {
        oddities_.emplace_back("it has a comment");
    }
    if (comment != end.size() - END_SIZE)
    {
        oddities_.emplace_back("something stands behind its end record");
    }
}

/** libzip lists the directory, but not where a member's own header stands. */
void Archive::listMembers(std::uint64_t directory)
{
    std::uint64_t first = directory;
    std::uint64_t place = directory;
    std::uint64_t left = directory;
    const zip_int64_t count = zip_get_num_entries(zip_.get(), 0);
    for (zip_uint64_t i = 0; std::cmp_less(i, count); ++i)
    {
        const char* const name = zip_get_name(zip_.get(), i, ZIP_FL_ENC_RAW);
        const auto entry = Header::at(*input_, place, true);
        if (name == nullptr || !entry)
        {
            throw Error(name_, "cannot be read as a ZIP: its directory is "
                               "damaged");
        }
        if (entry->packedSize > left)
        {
            throw Error(name_, "cannot be read as a ZIP: its members lie over "
                               "one another");
        }
        left -= entry->packedSize;
        members_.push_back(
            {name, typeOf(name, entry->attributes), entry->size,
             compressionName(static_cast<std::uint16_t>(entry->method)),
             (entry->flags & IS_ENCRYPTED) != 0,
             entry->name != name
                 ? "it has two names"
                 : entry->objectionTo(Header::at(*input_, entry->own, false))});
        first = std::min(first, entry->own);
        place = entry->end;
    }
    if (first > 0)
    {
        oddities_.emplace_back("something stands in front of its first member");
    }
}

std::uint64_t Archive::totalSize() const
{
    std::uint64_t total = 0;
    for (const ArchiveMember& member : members_)
    {
        const std::uint64_t room =
            std::numeric_limits<std::uint64_t>::max() - total;
        total += std::min(member.size, room);
    }
    return total;
}

std::string Archive::read(std::size_t index,
                          const ContentConsumer& consume) const
{
    if (!members_.at(index).problem.empty())
    {
        return members_.at(index).problem;
    }
    const MemberFile file(zip_fopen_index(zip_.get(), index, 0));
    if (!file)
    {
        return zip_strerror(zip_.get());
    }
    std::uint64_t left = members_.at(index).size;
    std::vector<std::byte> piece(PIECE_SIZE);
    for (;;)
    {
        const zip_int64_t count =
            zip_fread(file.get(), piece.data(), piece.size());
        if (count < 0)
        {
            return zip_file_strerror(file.get());
        }
        const auto size = static_cast<std::size_t>(count);
        if (size > left || (size == 0 && left > 0))
        {
            return "its content is not as long as the directory says";
        }
        if (size == 0)
        {
            return {};
        }
        left -= size;
        Progress::advance(size);
        consume(std::span(piece).first(size));
    }
}

namespace
{

/** In the form that a ZIP holds: two numbers of MS-DOS, which has no time zone
 *  and starts in 1980. */
std::pair<zip_uint16_t, zip_uint16_t> dosTime(std::int32_t seconds)
{
    const std::time_t time = std::max(seconds, EARLIEST_TIME);
    std::tm parts{};
    gmtime_r(&time, &parts);
    return {static_cast<zip_uint16_t>(parts.tm_hour << 11 | parts.tm_min << 5 |
                                      parts.tm_sec / 2),
            static_cast<zip_uint16_t>((parts.tm_year - 80) << 9 |
                                      (parts.tm_mon + 1) << 5 | parts.tm_mday)};
}

zip_source_t* sourceOf(zip_t* zip, const NewMember& member)
{
    if (member.archive != nullptr)
    {
// It has had another name since then.
#if LIBZIP_VERSION_MAJOR == 1 && LIBZIP_VERSION_MINOR < 10
        return zip_source_zip(zip, member.archive->zip(), member.index, 0, 0,
                              -1);
#else
        return zip_source_zip_file(zip, member.archive->zip(), member.index, 0,
                                   0, -1, nullptr);
#endif
    }
    return member.file.empty()
               ? zip_source_buffer(zip, member.content.data(),
                                   member.content.size(), 0)
               : zip_source_file(zip, member.file.c_str(), 0, -1);
}

bool addMember(zip_t* zip, const NewMember& member, std::int32_t seconds)
{
    zip_source_t* const source = sourceOf(zip, member);
    const zip_int64_t added =
        source == nullptr
            ? -1
            // Marked as UTF-8, the same names give other bytes with
            // libzip 1.11.
            : zip_file_add(zip, member.name.c_str(), source, ZIP_FL_ENC_GUESS);
    if (added < 0)
    {
        zip_source_free(source);
        return false;
    }
    const auto index = static_cast<zip_uint64_t>(added);
    const auto [time, date] = dosTime(seconds);
    // A compressor's output changes with its version, and firmware hardly
    // shrinks.
    return zip_set_file_compression(zip, index, ZIP_CM_STORE, 0) == 0 &&
           zip_file_set_dostime(zip, index, time, date, 0) == 0 &&
           zip_file_set_external_attributes(zip, index, 0, ZIP_OPSYS_UNIX,
                                            MEMBER_MODE << 16) == 0;
}

std::uint64_t sizeOf(const NewMember& member)
{
    return member.archive != nullptr
               ? member.archive->members().at(member.index).size
           : member.file.empty() ? member.content.size()
                                 : fs::file_size(member.file);
}

/** How far libzip is, in bytes. */
struct Written
{
    double total = 0;
    double done = 0;
};

void advance(zip_t* /*zip*/, double fraction, void* state)
{
    auto& [total, done] = *static_cast<Written*>(state);
    Progress::advance(static_cast<std::uint64_t>(fraction * total - done));
    done = fraction * total;
}

} // namespace

void writeArchive(const fs::path& path, const std::string& name,
                  std::int32_t time, const std::vector<NewMember>& members)
{
    int error = 0;
    Handle<zip_t, zip_discard> zip(
        zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &error));
    if (!zip)
    {
        throw systemError(name);
    }
    std::uint64_t total = 0;
    bool isReady = true;
    for (const NewMember& member : members)
    {
        isReady = isReady && addMember(zip.get(), member, time);
        total += sizeOf(member);
    }
    const Progress progress(total);
    Written written{static_cast<double>(total)};
    zip_register_progress_callback_with_state(zip.get(), PROGRESS_STEP, advance,
                                              nullptr, &written);
    if (!isReady || zip_close(zip.get()) != 0)
    {
        throw Error(name, zip_strerror(zip.get()));
    }
    static_cast<void>(zip.release());
}

} // namespace tools
