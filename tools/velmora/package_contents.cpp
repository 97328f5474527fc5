#include "package_contents.hpp"

#include <unistd.h>

#include <system_error>

namespace fs = std::filesystem;

namespace velmora::front
{

namespace
{

constexpr std::size_t MAX_NAMES = 64;

/** None of a directory that cannot be opened: the library complains then. */
fs::directory_iterator entriesOf(const fs::path& directory)
{
    std::error_code ignored;
    return fs::directory_iterator(directory, ignored);
}

} // namespace

void PackageContents::add(const fs::directory_entry& entry, bool belongs,
                          const std::string& name)
{
    if (belongs && entry.symlink_status().type() == fs::file_type::regular &&
        access(entry.path().c_str(), R_OK) == 0)
    {
        size += entry.file_size();
        return;
    }
    ++uncoveredCount;
    if (uncovered.size() < MAX_NAMES)
    {
        uncovered.push_back(name + (entry.is_symlink() ? " (a link)" : ""));
    }
}

void PackageContents::addPayload(const fs::path& payload)
{
    for (const auto& entry : entriesOf(payload))
    {
        add(entry, true, "payload" / entry.path().filename());
        ++payloadFiles;
    }
}

void PackageContents::addPackage(const fs::path& package)
{
    for (const auto& entry : entriesOf(package))
    {
        const std::string name = entry.path().filename();
        if (name == "payload" && !entry.is_symlink() && entry.is_directory())
        {
            addPayload(entry.path());
            continue;
        }
        add(entry, name == "package.xml" || name == "package.xml.sign", name);
    }
}

std::string PackageContents::remark() const
{
    return uncoveredCount == 0 ? ""
           : uncoveredCount == 1
               ? "1 entry is not covered: " + uncovered.front()
               : std::to_string(uncoveredCount) +
                     " entries are not covered, first " + uncovered.front();
}

} // namespace velmora::front
