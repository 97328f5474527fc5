#include "cause_table.hpp"

#include "common/error.hpp"
#include "common/handles.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <gelf.h>
#include <link.h>

#include <cstddef>
#include <filesystem>
#include <sstream>
#include <string_view>

namespace velmora::front
{

namespace
{

constexpr const char* LIBRARY = "libvelmora.so.1";
constexpr std::string_view SECTION = ".velmora.causes";

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

void readRecords(const std::string& content, Causes& causes)
{
    std::istringstream records(content);
    for (std::string record; std::getline(records, record, '\0');)
    {
        std::istringstream words(record);
        Site site;
        words >> site.file >> site.number >> site.line >> site.kind >> std::ws;
        if (!std::getline(words, site.text))
        {
            continue;
        }
        site.number += site.line;
        // Identical records do no harm.
        if (!(causes.sites.try_emplace(site.number, site).first->second ==
              site))
        {
            throw tools::Error(causes.library,
                               "two statements share the number " +
                                   std::to_string(site.number));
        }
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

Causes readCauses(const std::string& library)
{
    Causes causes;
    causes.library = library;
    const tools::FileDescriptor file(
        open(library.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0)
    {
        throw tools::systemError(library);
    }
    elf_version(EV_CURRENT);
    const tools::Handle<Elf, elf_end> elf(
        elf_begin(file.get(), ELF_C_READ, nullptr));
    std::size_t names = 0;
    Elf_Scn* section = nullptr;
    while (elf_getshdrstrndx(elf.get(), &names) == 0 &&
           (section = elf_nextscn(elf.get(), section)) != nullptr)
    {
        GElf_Shdr header{};
        gelf_getshdr(section, &header);
        const char* name = elf_strptr(elf.get(), names, header.sh_name);
        if (name != nullptr && name == SECTION)
        {
            readRecords(std::string(contentOf(section)), causes);
        }
        else if (header.sh_type == SHT_NOTE)
        {
            readBuildId(section, causes.buildId);
        }
    }
    return causes;
}

const Causes& linkedCauses()
{
    static const Causes causes = readCauses(linkedLibrary());
    return causes;
}

std::string versionText()
{
    return "velmora " VELMORA_VERSION ", with " + linkedCauses().library +
           ", build-id " + linkedCauses().buildId;
}

} // namespace velmora::front
