#include "package_contents.hpp"

#include "common/openpgp.hpp"

#include <libxml/xmlreader.h>
#include <strings.h>
#include <unistd.h>

#include <set>
#include <string_view>
#include <system_error>

namespace fs = std::filesystem;

namespace velmora::front
{

namespace
{

constexpr std::string_view PAYLOAD = "payload/";

void freeText(xmlChar* text) { xmlFree(text); }

using Reader = tools::Handle<xmlTextReader, xmlFreeTextReader>;
using Text = tools::Handle<xmlChar, freeText>;

bool isNameOfFile(std::string_view name)
{
    return name == "package.xml" || name == "package.xml.sign" ||
           (name.size() > PAYLOAD.size() && name.starts_with(PAYLOAD) &&
            name.find('/', PAYLOAD.size()) == std::string_view::npos);
}

const char* problemOf(const tools::ArchiveMember& member)
{
    return member.type == fs::file_type::symlink   ? " (a link)"
           : member.isEncrypted                    ? " (encrypted)"
           : member.type != fs::file_type::regular ? " (no regular file)"
                                                   : "";
}

/** Adds what lies in @p directory, in whose place in the package the names
 *  begin with @p prefix. */
void addEntries(PackageContents& contents, const fs::path& directory,
                const std::string& prefix, bool isPayload)
{
    std::error_code ignored;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(directory, ignored))
    {
        const std::string file = entry.path().filename();
        const auto type = entry.symlink_status().type();
        const bool isDirectory = type == fs::file_type::directory;
        const bool isRead =
            access(entry.path().c_str(), isDirectory ? R_OK | X_OK : R_OK) == 0;
        if (!isPayload && file == "payload" &&
            type == fs::file_type::directory && isRead)
        {
            addEntries(contents, entry.path(), std::string(PAYLOAD), true);
        }
        else if (type == fs::file_type::regular && isRead &&
                 (isPayload || isNameOfFile(file)))
        {
            contents.files.emplace(prefix + file, entry.file_size());
        }
        else
        {
            const bool isLink = type == fs::file_type::symlink;
            contents.uncovered.push_back(prefix + file +
                                         (isLink ? " (a link)" : ""));
        }
    }
}

} // namespace

PackageContents contentsOf(const tools::Archive& archive)
{
    PackageContents contents;
    for (const tools::ArchiveMember& member : archive.members())
    {
        const std::string problem = problemOf(member);
        if (member.name == PAYLOAD && member.type == fs::file_type::directory &&
            member.size == 0)
        {
            continue;
        }
        if (!problem.empty() || !isNameOfFile(member.name))
        {
            contents.uncovered.push_back(member.name + problem);
        }
        // The last one is what stays.
        else if (!contents.files.insert_or_assign(member.name, member.size)
                      .second)
        {
            contents.uncovered.push_back(member.name + " (a second time)");
        }
    }
    return contents;
}

/** Empty for a directory that cannot be opened. The library reports that. */
PackageContents contentsOf(const fs::path& directory, bool isPayload)
{
    PackageContents contents;
    addEntries(contents, directory, "", isPayload);
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

std::string PackageContents::objection() const
{
    const auto isBefore = [](const std::string& one, const std::string& other)
    { return strcasecmp(one.c_str(), other.c_str()) < 0; };
    std::set<std::string, decltype(isBefore)> seen;
    bool hasPayload = false;
    for (const auto& [name, size] : files)
    {
        if (!seen.insert(name).second)
        {
            return name + " differs from another name in case only";
        }
        if (name == "package.xml.sign" && size > tools::LARGEST_SIGNATURE)
        {
            return name + " has more than 64 KiB";
        }
        hasPayload = hasPayload || name.starts_with(PAYLOAD);
    }
    return !uncovered.empty() ? remark()
           : !hasPayload      ? "its payload is empty"
                              : "";
}

std::uint64_t PackageContents::size() const
{
    std::uint64_t sum = 0;
    for (const auto& [name, size] : files)
    {
        sum += size;
    }
    return sum;
}

std::vector<std::string> systemsOf(const std::string& descriptor)
{
    std::vector<std::string> systems;
    const Reader reader(xmlReaderForFile(descriptor.c_str(), nullptr,
                                         XML_PARSE_NONET | XML_PARSE_NOERROR |
                                             XML_PARSE_NOWARNING));
    const auto* const element = reinterpret_cast<const xmlChar*>("Model");
    const auto* const attribute = reinterpret_cast<const xmlChar*>("systemID");
    while (reader != nullptr && xmlTextReaderRead(reader.get()) == 1)
    {
        if (xmlTextReaderNodeType(reader.get()) != XML_READER_TYPE_ELEMENT ||
            xmlStrEqual(xmlTextReaderConstName(reader.get()), element) == 0 ||
            xmlTextReaderConstNamespaceUri(reader.get()) != nullptr)
        {
            continue;
        }
        const Text system(xmlTextReaderGetAttribute(reader.get(), attribute));
        if (system != nullptr && *system != '\0')
        {
            systems.emplace_back(reinterpret_cast<const char*>(system.get()));
        }
    }
    return systems;
}

} // namespace velmora::front
