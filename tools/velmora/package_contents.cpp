#include "package_contents.hpp"

#include <unistd.h>

#include <system_error>

namespace fs = std::filesystem;

namespace velmora::front
{

namespace
{

/** None of a directory that cannot be opened: the library complains then. */
fs::directory_iterator entriesOf(const fs::path& directory)
{
    std::error_code ignored;
    return fs::directory_iterator(directory, ignored);
}

void add(PackageContents& contents, const fs::directory_entry& entry,
         const std::string& name, bool belongs)
{
    if (belongs && !entry.is_symlink() && entry.is_regular_file() &&
        access(entry.path().c_str(), R_OK) == 0)
    {
        contents.size += entry.file_size();
        return;
    }
    contents.uncovered.push_back(name +
                                 (entry.is_symlink() ? " (a link)" : ""));
}

} // namespace

PackageContents contentsOfPayload(const fs::path& payload)
{
    PackageContents contents;
    for (const auto& entry : entriesOf(payload))
    {
        add(contents, entry, "payload" / entry.path().filename(), true);
        ++contents.payloadFiles;
    }
    return contents;
}

PackageContents contentsOfPackage(const fs::path& package)
{
    const fs::path payload = package / "payload";
    const bool hasPayload =
        !fs::is_symlink(payload) && fs::is_directory(payload);
    auto contents = hasPayload ? contentsOfPayload(payload) : PackageContents();
    for (const auto& entry : entriesOf(package))
    {
        const std::string name = entry.path().filename();
        if (name != "payload" || !hasPayload)
        {
            add(contents, entry, name,
                name == "package.xml" || name == "package.xml.sign");
        }
    }
    return contents;
}

std::string PackageContents::remark() const
{
    const std::size_t count = uncovered.size();
    return count == 0 ? ""
           : count == 1
               ? "1 entry is not covered: " + uncovered.front()
               : std::to_string(count) + " entries are not covered, first " +
                     uncovered.front();
}

} // namespace velmora::front
