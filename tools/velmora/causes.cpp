#include "causes.hpp"

#include "common/error.hpp"
#include "common/handles.hpp"

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
    constexpr std::string_view digits = "0123456789abcdef";
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
    id.clear();
    for (const char c : contentOf(section).substr(description, note.n_descsz))
    {
        const auto byte = static_cast<unsigned char>(c);
        id += {digits[byte >> 4], digits[byte & 0xF]};
    }
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
        // A template or an inline function may leave the same record twice.
        if (!(causes.sites.try_emplace(site.number, site).first->second ==
              site))
        {
            throw tools::Error(causes.library,
                               "two statements share the number " +
                                   std::to_string(site.number));
        }
    }
}

int noteLibrary(dl_phdr_info* info, std::size_t /*size*/, void* path)
{
    const bool found =
        std::string_view(info->dlpi_name).find("/libvelmora.so") !=
        std::string_view::npos;
    *static_cast<std::string*>(path) = found ? info->dlpi_name : "";
    return found ? 1 : 0;
}

std::string linkedLibrary()
{
    std::string path;
    std::error_code ignored;
    dl_iterate_phdr(noteLibrary, &path);
    return std::filesystem::canonical(path, ignored);
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
    if (causes.sites.empty())
    {
        throw tools::Error(library, "no library with a section " +
                                        std::string(SECTION) +
                                        "; name another with --library");
    }
    return causes;
}

const Causes& linkedCauses()
{
    static const Causes causes = []
    {
        const std::string library = linkedLibrary();
        try
        {
            return readCauses(library);
        }
        catch (const tools::Error&)
        {
            Causes none;
            none.library = library;
            return none;
        }
    }();
    return causes;
}

std::string versionText()
{
    return "velmora " VELMORA_VERSION ", with " + linkedCauses().library +
           ", build-id " + linkedCauses().buildId;
}

} // namespace velmora::front
