#include "cause_table.hpp"

#include "common/error.hpp"
#include "common/handles.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <gelf.h>
#include <link.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

namespace velmora::front
{

namespace
{

constexpr const char* LIBRARY = "libvelmora.so.1";
constexpr std::string_view SECTION = ".velmora.causes";
/** Numbers that each source of the library has. */
constexpr int BLOCK = 1000;
/** The highest beginning of a block that is believed. */
constexpr int MAX_BLOCK = 1'000'000;
/** What no library is larger than; in bytes. */
constexpr off_t MAX_LIBRARY = off_t{256} << 20;
/** Of what is looked at, all together; in bytes. */
constexpr std::uint64_t MAX_SECTIONS = 1 << 20;
/** Of a record that cannot be read. */
constexpr std::size_t MAX_SHOWN = 100;

constexpr std::array KINDS{
    std::pair("cause", Kind::CAUSE),     std::pair("echo", Kind::PASSED_ON),
    std::pair("pardon", Kind::PARDON),   std::pair("note", Kind::NOTE),
    std::pair("success", Kind::SUCCESS), std::pair("answer", Kind::ANSWER),
};

std::string_view contentOf(Elf_Scn* section)
{
    const Elf_Data* data = elf_rawdata(section, nullptr);
    return data != nullptr && data->d_buf != nullptr
               ? std::string_view(static_cast<const char*>(data->d_buf),
                                  data->d_size)
               : std::string_view();
}

void readBuildId(Elf_Scn* section, std::string& id)
{
    GElf_Nhdr note{};
    std::size_t name = 0;
    std::size_t description = 0;
    Elf_Data* data = elf_getdata(section, nullptr);
    if (data == nullptr ||
        gelf_getnote(data, 0, &note, &name, &description) == 0 ||
        note.n_type != NT_GNU_BUILD_ID)
    {
        return;
    }
    id = tools::hexadecimal(
        contentOf(section).substr(description, note.n_descsz));
}

/** @return whether it is one */
bool readRecord(const std::string& record, Site& site)
{
    std::istringstream words(record);
    std::string kind;
    int block = 0;
    if (!(words >> site.file >> block >> site.line >> kind >> std::ws) ||
        !std::getline(words, site.text))
    {
        return false;
    }
    std::getline(words, site.message);
    const auto end = std::min(kind.find(':'), kind.size());
    const auto* known = std::ranges::find(KINDS, kind.substr(0, end),
                                          &std::pair<const char*, Kind>::first);
    if (known == KINDS.end() || block < 0 || block > MAX_BLOCK ||
        site.line < 0 || site.line >= BLOCK)
    {
        return false;
    }
    site.kind = known->second;
    site.number = block + site.line;
    site.source = kind.substr(std::min(end + 1, kind.size()));
    return true;
}

void readRecords(std::string_view content, CauseTable& table)
{
    std::istringstream records{std::string(content)};
    std::set<std::string> judging;
    for (std::string record; std::getline(records, record, '\0');)
    {
        Site site;
        if (record.empty())
        {
            // The linker fills gaps.
            continue;
        }
        if (!readRecord(record, site))
        {
            throw tools::Error(table.library,
                               "a record of its causes cannot be read: " +
                                   record.substr(0, MAX_SHOWN));
        }
        if (site.kind == Kind::SUCCESS)
        {
            judging.insert(site.file);
        }
        // Identical records do no harm.
        if (!(table.sites.try_emplace(site.number, site).first->second == site))
        {
            throw tools::Error(table.library,
                               "two statements share the number " +
                                   std::to_string(site.number));
        }
    }
    for (auto& [number, site] : table.sites)
    {
        site.judges = judging.contains(site.file);
    }
}

/** Path of the library that this program runs with. */
std::string linkedLibrary()
{
    const tools::Handle<void, dlclose> library(
        dlopen(LIBRARY, RTLD_LAZY | RTLD_NOLOAD));
    link_map* entry = nullptr;
    if (library == nullptr ||
        dlinfo(library.get(), RTLD_DI_LINKMAP, &entry) != 0)
    {
        throw tools::Error(LIBRARY, "it is not loaded");
    }
    return std::filesystem::canonical(entry->l_name);
}

} // namespace

const Site* CauseTable::inBlockOf(int number) const
{
    const int block = number / BLOCK;
    const auto first = sites.lower_bound(block * BLOCK);
    return first != sites.end() && first->first / BLOCK == block
               ? &first->second
               : nullptr;
}

CauseTable readCauses(const std::string& library)
{
    CauseTable table;
    table.library = library;
    const tools::FileDescriptor file(
        open(library.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0)
    {
        throw tools::systemError(library);
    }
    struct stat status{};
    if (fstat(file.get(), &status) != 0 || status.st_size > MAX_LIBRARY)
    {
        throw tools::Error(library, "it is too large for a library");
    }
    elf_version(EV_CURRENT);
    const tools::Handle<Elf, elf_end> elf(
        elf_begin(file.get(), ELF_C_READ, nullptr));
    std::uint64_t left = MAX_SECTIONS;
    std::size_t names = 0;
    GElf_Shdr header{};
    const bool isNamed =
        elf_getshdrstrndx(elf.get(), &names) == 0 &&
        gelf_getshdr(elf_getscn(elf.get(), names), &header) != nullptr;
    if (header.sh_size > MAX_SECTIONS)
    {
        // A name is looked for in all of it, section by section.
        throw tools::Error(library, "its names of sections are too large");
    }
    Elf_Scn* section = nullptr;
    while (isNamed && (section = elf_nextscn(elf.get(), section)) != nullptr)
    {
        gelf_getshdr(section, &header);
        const char* name = elf_strptr(elf.get(), names, header.sh_name);
        const bool isTable = name != nullptr && name == SECTION;
        if (!isTable && header.sh_type != SHT_NOTE)
        {
            continue;
        }
        if (header.sh_size > left)
        {
            throw tools::Error(library, "its table of causes is too large");
        }
        left -= header.sh_size;
        if (isTable)
        {
            readRecords(contentOf(section), table);
        }
        else
        {
            readBuildId(section, table.buildId);
        }
    }
    return table;
}

const CauseTable& linkedCauses()
{
    static const CauseTable TABLE = readCauses(linkedLibrary());
    return TABLE;
}

std::string versionText()
{
    return "velmora " VELMORA_VERSION ", with " + linkedCauses().library +
           ", build-id " + linkedCauses().buildId;
}

} // namespace velmora::front
