#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <velmora.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

/** @file One round of an update daemon: takes a package, has it judged, and
 *  publishes what it holds.
 *
 *  Everything happens in $STATE_DIRECTORY, which the service manager makes for
 *  the daemon alone. It lies where the firmware is used from, so that what was
 *  checked is used in place and not copied once more. */

namespace
{

namespace fs = std::filesystem;

constexpr std::size_t PIECE_SIZE = 65536;
/** What a package may have when it is packed, and when it is unpacked; no file
 *  can grow beyond it. In bytes. */
constexpr std::uintmax_t MAX_SIZE = std::uintmax_t{256} * 1024 * 1024;

enum ExitStatus
{
    ACCEPTED = 0,
    REFUSED = 1,
    WRONG_USAGE = 2,
    NOT_CHECKED = 3,
};

class Refusal : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

[[noreturn]] void failWithErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

class FileDescriptor
{
  public:
    FileDescriptor(const fs::path& path, int flags) :
        number_(open(path.c_str(), flags | O_CLOEXEC, 0600))
    {
        if (number_ < 0)
        {
            failWithErrno(path.string());
        }
    }

    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    ~FileDescriptor() { close(number_); }

    int get() const { return number_; }

  private:
    int number_;
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

/** A package may hold directories that do not let their owner in. */
void removeTree(const fs::path& path)
{
    std::error_code ignored;
    for (fs::recursive_directory_iterator entry(path, ignored), end;
         !ignored && entry != end; entry.increment(ignored))
    {
        if (fs::is_directory(entry->symlink_status(ignored)))
        {
            fs::permissions(entry->path(), fs::perms::owner_all,
                            fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(path);
}

/** A directory that nobody else can look into; fresh, and gone afterwards. */
class PrivateDirectory
{
  public:
    explicit PrivateDirectory(fs::path path) : path_(std::move(path))
    {
        removeTree(path_);
        if (mkdir(path_.c_str(), 0700) != 0)
        {
            failWithErrno(path_.string());
        }
    }

    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    ~PrivateDirectory()
    {
        try
        {
            removeTree(path_);
        }
        catch (const std::exception& e)
        {
            std::cerr << "cannot remove the private copy: " << e.what() << '\n';
        }
    }

    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

void writeAll(int file, const char* data, std::size_t size)
{
    while (size > 0)
    {
        const ssize_t written = write(file, data, size);
        if (written < 0)
        {
            failWithErrno("cannot write the private copy");
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

/** Copies the package, which whoever sent it can still change. Its own name
 *  never reaches the extractor, for which some characters are special. */
void takeOver(const fs::path& package, const fs::path& copy)
{
    // Opening a FIFO must not block.
    const FileDescriptor from(package, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat status = {};
    if (fstat(from.get(), &status) != 0)
    {
        failWithErrno(package.string());
    }
    if (!S_ISREG(status.st_mode))
    {
        throw Refusal("the package is not a regular file");
    }
    const FileDescriptor to(copy, O_WRONLY | O_CREAT | O_EXCL);
    std::array<char, PIECE_SIZE> piece{};
    ssize_t size = 0;
    while ((size = read(from.get(), piece.data(), piece.size())) > 0)
    {
        writeAll(to.get(), piece.data(), static_cast<std::size_t>(size));
    }
    if (size < 0)
    {
        failWithErrno(package.string());
    }
}

bool isPartOfPackage(const std::string& name, fs::file_type type)
{
    if (name == "payload")
    {
        return type == fs::file_type::directory;
    }
    return type == fs::file_type::regular &&
           (name == "package.xml" || name == "package.xml.sign");
}

/** Refuses what the signed digest does not cover: links, subdirectories of
 *  the payload, files that cannot be read, and files beside it. */
void expectNothingElse(const fs::path& directory)
{
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
    {
        if (!isPartOfPackage(entry.path().filename().string(),
                             entry.symlink_status().type()))
        {
            throw Refusal("the package holds something besides descriptor, "
                          "signature and payload directory");
        }
    }
    std::uintmax_t size = 0;
    std::size_t files = 0;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(directory / "payload"))
    {
        if (entry.symlink_status().type() != fs::file_type::regular ||
            access(entry.path().c_str(), R_OK) != 0)
        {
            throw Refusal("the payload holds something besides plain, readable "
                          "files");
        }
        size += entry.file_size();
        ++files;
    }
    if (files == 0 || size > MAX_SIZE)
    {
        throw Refusal("the payload is empty or too large");
    }
}

/** Without a `Model` the package would be for any system. */
void expectModel(const fs::path& unpacked)
{
    if (ValidateQOR::getStrFromPkgXML((unpacked / "package.xml").string(),
                                      "//Model", "systemID")
            .empty())
    {
        throw Refusal("the descriptor names no Model");
    }
}

void validate(const fs::path& copy, const fs::path& unpacked)
try
{
    if (!ValidateQOR::unZip(copy.string(), unpacked.string()))
    {
        throw Refusal("the package cannot be unpacked");
    }
    expectNothingElse(unpacked);
    if (!ValidateQOR::validateExtractedQOR(unpacked.string()))
    {
        throw Refusal("the package is not for this system, not signed by a "
                      "trusted key, or not what was signed");
    }
    expectModel(unpacked);
}
catch (const std::logic_error&)
{
    // A hostile descriptor makes the conversion of a system's identifier throw.
    throw Refusal("the descriptor lists a system that is no 16-bit number");
}

/** Bounds every file that this process and the extractor write. */
void limitFiles()
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, MAX_SIZE);
    setrlimit(RLIMIT_FSIZE, &limit);
    // A write beyond fails then; the signal would end the process, and an
    // extractor that a signal ends counts as successful.
    std::signal(SIGXFSZ, SIG_IGN);
}

/** An object path has letters, digits and underscores only. */
std::string inventoryPath(std::string model)
{
    for (char& c : model)
    {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0)
        {
            c = '_';
        }
    }
    return "/xyz/openbmc_project/inventory/system/" + model;
}

void publish(const std::string& model, const std::string& version,
             ValidateQOR::VersionPurpose purpose)
{
    const std::string path = inventoryPath(model);
    // The object of the version before, if there is one.
    if (!ValidateQOR::getInventoryModel(path).empty() &&
        ValidateQOR::deRegisterSWInv(path) != 1)
    {
        throw std::runtime_error("the version before cannot be withdrawn");
    }
    if (ValidateQOR::registerSWInv(path, model, version, purpose,
                                   ValidateQOR::ReleaseType::Other) != 1)
    {
        throw std::runtime_error("the inventory manager does not take it");
    }
}

void update(const fs::path& package, const fs::path& stateDirectory)
{
    const OneAtATime lock(stateDirectory);
    const PrivateDirectory work(stateDirectory / "incoming");
    const fs::path copy = work.path() / "package.zip";
    const PrivateDirectory unpacked(work.path() / "unpacked");

    takeOver(package, copy);
    validate(copy, unpacked.path());

    // From here on the descriptor is trusted.
    const std::string directory = unpacked.path().string();
    const std::string model = ValidateQOR::getImageModel(directory);
    const std::string version = ValidateQOR::getImageVersion(directory);
    if (model.empty() || version.empty())
    {
        throw Refusal("the descriptor names no model or no version");
    }
    const auto purpose = ValidateQOR::getImagePurpose(directory);
    if (purpose == ValidateQOR::VersionPurpose::Unknown)
    {
        throw Refusal("nobody knows what the package is for");
    }
    // Here a real daemon compares the version with the installed one, which
    // no signature does for it, and applies the files of unpacked/payload.
    publish(model, version, purpose);
    std::cout << "accepted: model " << model << ", version " << version << '\n';
}

} // namespace

int main(int argc, char** argv)
{
    const char* stateDirectory = std::getenv("STATE_DIRECTORY");
    if (argc != 2 || stateDirectory == nullptr || *stateDirectory != '/')
    {
        std::cerr << "usage: STATE_DIRECTORY=/... update_daemon PACKAGE\n";
        return WRONG_USAGE;
    }
    // An extractor whose end cannot be waited for counts as successful, and a
    // reader of the log that has gone must not end the daemon.
    std::signal(SIGCHLD, SIG_DFL);
    std::signal(SIGPIPE, SIG_IGN);
    umask(077);
    limitFiles();
    try
    {
        update(argv[1], stateDirectory);
    }
    catch (const Refusal& refusal)
    {
        std::cerr << "refused: " << refusal.what() << '\n';
        return REFUSED;
    }
    catch (const std::exception& e)
    {
        std::cerr << "could not be checked: " << e.what() << '\n';
        return NOT_CHECKED;
    }
    return ACCEPTED;
}
