#include "library_version.hpp"

#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <span>
#include <string_view>

namespace
{

constexpr std::string_view LIBRARY = "/libvelmora.so.1";

std::string hexadecimal(std::span<const char> bytes)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes)
    {
        text += DIGITS[static_cast<unsigned char>(byte) >> 4U];
        text += DIGITS[static_cast<unsigned char>(byte) & 0xfU];
    }
    return text;
}

/** The build-id among the notes of a loaded segment, or nothing. Each note has
 *  a header, a name and a description, filled up to four bytes. */
std::string buildId(std::span<const char> notes)
{
    const auto filled = [](std::size_t size)
    { return (size + 3) / sizeof(ElfW(Word)) * sizeof(ElfW(Word)); };
    ElfW(Nhdr) note{};
    while (notes.size() >= sizeof note)
    {
        std::memcpy(&note, notes.data(), sizeof note);
        const std::size_t begin = sizeof note + filled(note.n_namesz);
        const std::size_t size = begin + filled(note.n_descsz);
        if (size > notes.size())
        {
            break;
        }
        if (note.n_type == NT_GNU_BUILD_ID)
        {
            return hexadecimal(notes.subspan(begin, note.n_descsz));
        }
        notes = notes.subspan(size);
    }
    return {};
}

int describe(dl_phdr_info* object, std::size_t /*size*/, void* result)
{
    const std::string_view name = object->dlpi_name;
    if (name.find(LIBRARY) == std::string_view::npos)
    {
        return 0;
    }
    std::string id;
    for (const auto& segment : std::span(object->dlpi_phdr, object->dlpi_phnum))
    {
        if (segment.p_type == PT_NOTE && id.empty())
        {
            // Where the loader has put it.
            id = buildId({reinterpret_cast<const char*>(object->dlpi_addr +
                                                        segment.p_vaddr),
                          segment.p_memsz});
        }
    }
    std::error_code ignored;
    const auto file = std::filesystem::canonical(name, ignored);
    *static_cast<std::string*>(result) =
        file.string() + ", build-id " + (id.empty() ? "unknown" : id);
    return 1;
}

} // namespace

std::string loadedLibrary()
{
    std::string text = "unknown";
    dl_iterate_phdr(describe, &text);
    return text;
}
