#include "causes.hpp"

#include "common/error.hpp"
#include "common/handles.hpp"

#include <fcntl.h>
#include <gelf.h>
#include <link.h>
#include <sys/stat.h>

#include <cstddef>
#include <sstream>

namespace velmora::front
{

namespace
{

constexpr std::string_view SECTION = ".velmora.causes";
constexpr std::string_view LIBRARY_NAME = "/libvelmora.so";
using ElfFile = tools::Handle<Elf, elf_end>;

std::string_view contentOf(Elf_Scn* section)
{
    const Elf_Data* data = elf_rawdata(section, nullptr);
    return data != nullptr && data->d_buf != nullptr
               ? std::string_view(static_cast<const char*>(data->d_buf),
                                  data->d_size)
               : std::string_view();
}

/** The build-id of a section of notes, or empty. */
std::string buildIdIn(Elf_Scn* section)
{
    constexpr std::string_view digits = "0123456789abcdef";
    Elf_Data* data = elf_getdata(section, nullptr);
    GElf_Nhdr note{};
    std::size_t name = 0;
    std::size_t description = 0;
    std::string id;
    if (data == nullptr ||
        gelf_getnote(data, 0, &note, &name, &description) == 0 ||
        note.n_type != NT_GNU_BUILD_ID)
    {
        return id;
    }
    for (const char c :
         std::string_view(static_cast<const char*>(data->d_buf), data->d_size)
             .substr(description, note.n_descsz))
    {
        const auto byte = static_cast<unsigned char>(c);
        id += {digits[byte >> 4], digits[byte & 0xF]};
    }
    return id;
}

int noteLibrary(dl_phdr_info* info, std::size_t /*size*/, void* path)
{
    const bool found = std::string_view(info->dlpi_name).find(LIBRARY_NAME) !=
                       std::string_view::npos;
    if (found)
    {
        *static_cast<std::string*>(path) = info->dlpi_name;
    }
    return found ? 1 : 0;
}

} // namespace

CauseTable::CauseTable(const std::string& library) : library_(library)
{
    const tools::FileDescriptor file(
        open(library.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status{};
    if (file.get() < 0 || fstat(file.get(), &status) != 0)
    {
        throw tools::systemError(library);
    }
    elf_version(EV_CURRENT);
    const ElfFile elf(S_ISREG(status.st_mode)
                          ? elf_begin(file.get(), ELF_C_READ, nullptr)
                          : nullptr);
    std::size_t names = 0;
    if (elf == nullptr || elf_getshdrstrndx(elf.get(), &names) != 0)
    {
        throw tools::Error(library, "it is not a library");
    }
    Elf_Scn* section = nullptr;
    while ((section = elf_nextscn(elf.get(), section)) != nullptr)
    {
        GElf_Shdr header{};
        const char* name = gelf_getshdr(section, &header) != nullptr
                               ? elf_strptr(elf.get(), names, header.sh_name)
                               : nullptr;
        if (name == nullptr)
        {
            continue;
        }
        if (name == SECTION)
        {
            readTable(contentOf(section));
        }
        else if (header.sh_type == SHT_NOTE && buildId_ == "none")
        {
            const std::string id = buildIdIn(section);
            buildId_ = id.empty() ? buildId_ : id;
        }
    }
    if (sites_.empty())
    {
        throw tools::Error(library, "it has no section " +
                                        std::string(SECTION) +
                                        ": it is another library, or an older "
                                        "one; name another with --library");
    }
}

const Site* CauseTable::find(int number) const
{
    const auto found = sites_.find(number);
    return found != sites_.end() ? &found->second : nullptr;
}

std::string CauseTable::fileOf(int number) const
{
    const auto next = sites_.lower_bound(number / BLOCK * BLOCK);
    return next != sites_.end() && next->first / BLOCK == number / BLOCK
               ? next->second.file
               : std::string();
}

void CauseTable::readTable(std::string_view records)
{
    while (!records.empty())
    {
        const std::size_t end = records.find('\0');
        if (const auto record = records.substr(0, end); !record.empty())
        {
            add(std::string(record));
        }
        records.remove_prefix(end < records.size() ? end + 1 : records.size());
    }
}

void CauseTable::add(const std::string& record)
{
    std::istringstream words(record);
    Site site;
    words >> site.file >> site.number >> site.line >> site.kind >> std::ws;
    if (!std::getline(words, site.text) || site.number < 0 || site.line < 0 ||
        site.number > BLOCK * BLOCK || site.line >= BLOCK)
    {
        throw tools::Error(library_, "not a record of causes: " + record);
    }
    site.number += site.line;
    // A template or an inline function may leave the same record twice.
    if (const auto [known, isNew] = sites_.emplace(site.number, site);
        !isNew && known->second != site)
    {
        throw tools::Error(library_, "two statements share the number " +
                                         std::to_string(site.number));
    }
}

std::string linkedLibrary()
{
    std::string path;
    dl_iterate_phdr(noteLibrary, &path);
    return path;
}

} // namespace velmora::front
