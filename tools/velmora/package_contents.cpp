#include "package_contents.hpp"

#include <unistd.h>

#include <system_error>

namespace fs = std::filesystem;

namespace velmora::front
{

/** Empty for a directory that cannot be opened. The library reports that. */
PackageContents contentsOf(const fs::path& directory, bool isPayload)
{
    PackageContents contents;
    const int payloadDepth = isPayload ? 0 : 1;
    std::error_code ignored;
    for (fs::recursive_directory_iterator entry(
             directory, fs::directory_options::skip_permission_denied, ignored),
         end;
         entry != end; ++entry)
    {
        const std::string name = entry->path().lexically_relative(directory);
        const auto type = entry->symlink_status().type();
        if (entry.depth() < payloadDepth && name == "payload" &&
            type == fs::file_type::directory &&
            access(entry->path().c_str(), R_OK | X_OK) == 0)
        {
            continue;
        }
        entry.disable_recursion_pending();
        const bool belongs = entry.depth() == payloadDepth ||
                             name == "package.xml" ||
                             name == "package.xml.sign";
        contents.payloadFiles += entry.depth() == payloadDepth ? 1 : 0;
        if (belongs && type == fs::file_type::regular &&
            access(entry->path().c_str(), R_OK) == 0)
        {
            contents.size += entry->file_size();
        }
        else
        {
            const bool isLink = type == fs::file_type::symlink;
            contents.uncovered.push_back(name + (isLink ? " (a link)" : ""));
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
