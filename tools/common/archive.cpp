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
#include <string_view>
#include <utility>

namespace fs = std::filesystem;

namespace tools
{
namespace
{

// Records of a ZIP: PKWARE's APPNOTE.TXT, 4.3.7 and 4.3.14 to 4.3.16.
constexpr std::string_view LOCAL_MAGIC = "PK\3\4";
constexpr std::string_view END_MAGIC = "PK\5\6";
constexpr std::size_t END_SIZE = 22;
constexpr std::size_t END_COUNT = 10;
constexpr std::size_t END_DIRECTORY_SIZE = 12;
constexpr std::size_t END_COMMENT_LENGTH = 20;
constexpr std::string_view LOCATOR_MAGIC = "PK\6\7";
constexpr std::size_t LOCATOR_SIZE = 20;
constexpr std::uint64_t MARKS_ZIP64 = 0xFFFFFFFF;
constexpr std::size_t LOCATOR_OFFSET = 8;
constexpr std::size_t END64_SIZE = 56;
constexpr std::size_t END64_DIRECTORY_SIZE = 40;
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

fs::file_type typeOf(const std::string& name, std::uint32_t attributes)
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

    /** @return how many bytes there were, or -1 with errno */
    ssize_t readAt(std::uint64_t offset, std::span<char> into) const
    {
        return pread(file.get(), into.data(), into.size(),
                     static_cast<off_t>(offset));
    }

    zip_int64_t readNext(std::span<char> into)
    {
        const ssize_t count = readAt(position, into);
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

Archive::Archive(const fs::path& path) :
    // Opening a FIFO would wait for a writer before it could be refused.
    Archive(FileDescriptor(open(path.c_str(),
                                O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)),
            path.string())
{
}

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
    openDirectory();
    listMembers();
}

Archive::~Archive() = default;

/** As the end record says, or that of a ZIP64 if it says more. */
std::uint64_t Archive::directorySize(std::string_view tail,
                                     std::size_t last) const
{
    const std::uint64_t size = load(tail, last + END_DIRECTORY_SIZE, 4);
    const std::string_view locator =
        tail.substr(last - std::min(last, LOCATOR_SIZE));
    std::string record(END64_SIZE, '\0');
    if (!locator.starts_with(LOCATOR_MAGIC) ||
        input_->readAt(load(locator, LOCATOR_OFFSET, 8), record) < 0)
    {
        return size;
    }
    return std::max(size == MARKS_ZIP64 ? 0 : size,
                    load(record, END64_DIRECTORY_SIZE, 8));
}

void Archive::openDirectory()
{
    const std::uint64_t start =
        input_->size - std::min(input_->size, TAIL_SIZE);
    std::string tail(static_cast<std::size_t>(input_->size - start), '\0');
    if (input_->readAt(start, tail) < 0)
    {
        throw systemError(name_);
    }
    const std::size_t last =
        tail.size() < END_SIZE ? std::string::npos
                               : tail.rfind(END_MAGIC, tail.size() - END_SIZE);
    if (last == std::string::npos)
    {
        throw Error(name_, "is no ZIP, or is cut short");
    }
    if (directorySize(tail, last) > LARGEST_DIRECTORY)
    {
        throw Error(name_, "has a directory larger than 8 MiB");
    }
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
    listOddities(std::string_view(tail).substr(last));
}

void Archive::listOddities(std::string_view end)
{
    std::array<char, LOCAL_MAGIC.size()> first{};
    const auto count =
        static_cast<std::size_t>(zip_get_num_entries(zip_.get(), 0));
    input_->readAt(0, first);
    if (count > 0 && !std::ranges::equal(first, LOCAL_MAGIC))
    {
        oddities_.emplace_back("something stands in front of its first member");
    }
    // The count of a ZIP64 that needs it is kept elsewhere.
    const std::uint64_t counted = load(end, END_COUNT, 2);
    if (counted != 0xFFFF && counted != count)
    {
        oddities_.push_back("its end record counts " + std::to_string(counted) +
                            " members, and its directory lists " +
                            std::to_string(count));
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

void Archive::listMembers()
{
    const zip_int64_t count = zip_get_num_entries(zip_.get(), 0);
    for (zip_uint64_t i = 0; std::cmp_less(i, count); ++i)
    {
        const char* const name = zip_get_name(zip_.get(), i, ZIP_FL_ENC_RAW);
        zip_stat_t status{};
        zip_uint32_t attributes = 0;
        if (name == nullptr || zip_stat_index(zip_.get(), i, 0, &status) != 0 ||
            zip_file_get_external_attributes(zip_.get(), i, 0, nullptr,
                                             &attributes) != 0)
        {
            throw Error(name_, "cannot be read as a ZIP: " +
                                   std::string(zip_strerror(zip_.get())));
        }
        members_.push_back({name, typeOf(name, attributes), status.size,
                            compressionName(status.comp_method),
                            status.encryption_method != ZIP_EM_NONE});
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
        return zip_source_zip(zip, member.archive->zip(), member.index, 0, 0,
                              -1);
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

void writeArchive(const fs::path& path, std::int32_t time,
                  const std::vector<NewMember>& members)
{
    int error = 0;
    Handle<zip_t, zip_discard> zip(
        zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &error));
    if (!zip)
    {
        throw systemError(path.string());
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
        throw Error(path.string(), zip_strerror(zip.get()));
    }
    static_cast<void>(zip.release());
}

} // namespace tools
