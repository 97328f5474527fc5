#include "inspect.hpp"

#include "descriptor.hpp"
#include "image.hpp"
#include "manifest.hpp"
#include "package.hpp"
#include "payload.hpp"
#include "signature_packet.hpp"

#include <algorithm>
#include <array>
#include <utility>

using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

constexpr std::size_t startSize = 256;
constexpr std::size_t indentWidth = 2;

bool isSignature(Bytes bytes)
{
    const Json signatures = describeSignatures(bytes);
    return !signatures.empty() &&
           std::ranges::all_of(signatures, [](const Json& signature)
                               { return signature.contains("algorithm"); });
}

Kind recognise(const Source& file)
{
    const Buffer start =
        file.read(0, std::min<std::uint64_t>(file.size(), startSize));
    const std::string_view text = textOf(start);
    // A payload's body can be of any other kind, and so begin like that; a
    // package can hold a chain where a payload has one.
    const PayloadMarks marks = payloadMarks(file);
    if (marks.chain && marks.metadata)
    {
        return Kind::payload;
    }
    if (text.starts_with("PK\3\4") || text.starts_with("PK\5\6"))
    {
        return Kind::package;
    }
    if (marks.chain)
    {
        return Kind::payload;
    }
    const std::size_t first = text.find_first_not_of("\xef\xbb\xbf \t\r\n");
    if (first != std::string_view::npos && text[first] == '<')
    {
        return Kind::descriptor;
    }
    if (file.size() <= largestFileInMemory &&
        textOf(file.readAll()).find(manifestMagic) != std::string_view::npos)
    {
        return Kind::manifest;
    }
    if (file.size() <= largestSignature && isSignature(file.readAll()))
    {
        return Kind::signature;
    }
    throw Error(file.name(), "is of no kind that can be recognised (a signed "
                             "image needs --as image)");
}

const char* titleOf(Kind kind)
{
    switch (kind)
    {
        case Kind::package:
            return "package";
        case Kind::descriptor:
            return "descriptor";
        case Kind::manifest:
            return "manifest";
        case Kind::image:
            return "signed image";
        case Kind::payload:
            return "signed payload";
        case Kind::signature:
            return "detached OpenPGP signature";
    }
    return "";
}

Json describeDetachedSignature(const Source& file)
{
    const Buffer content = file.readAll();
    if (!isSignature(content))
    {
        throw Error(file.name(), "is not a binary OpenPGP signature (gpg "
                                 "--dearmor makes one of an armoured one)");
    }
    return {{"signatures", describeSignatures(content)}};
}

Json describe(const Source& file, Kind kind)
{
    switch (kind)
    {
        case Kind::package:
            return describePackage(file);
        case Kind::descriptor:
            return describeDescriptor(file.readAll(), file.name());
        case Kind::manifest:
            return describeManifest(file.readAll(), file.name());
        case Kind::image:
            return describeImage(file);
        case Kind::payload:
            return describePayload(file);
        case Kind::signature:
            return describeDetachedSignature(file);
    }
    return {};
}

std::string valueText(const Json& value)
{
    if (!value.is_string())
    {
        return value.dump();
    }
    std::string text;
    for (const char c : value.get_ref<const std::string&>())
    {
        text += c == '\\' ? "\\\\" : printable({&c, 1});
    }
    return text;
}

void renderInto(std::string& text, const Json& fields, std::size_t indent)
{
    for (const auto& [name, value] : fields.items())
    {
        const bool nested = value.is_structured() && !value.empty();
        std::string inner;
        if (nested)
        {
            renderInto(inner, value, indent + indentWidth);
        }
        else
        {
            inner = (value.empty() ? "none" : valueText(value)) + '\n';
        }
        const std::string margin(indent, ' ');
        if (!fields.is_array())
        {
            text.append(margin).append(name).append(nested ? ":\n" : ": ");
            text.append(inner);
        }
        else if (nested)
        {
            // The item's first line gets the dash in place of a blank.
            text += inner.replace(indent, 1, "-");
        }
        else
        {
            text.append(margin).append("- ").append(inner);
        }
    }
}

} // namespace

std::optional<Kind> kindOf(std::string_view name)
{
    constexpr std::array<std::pair<std::string_view, Kind>, 6> kinds{{
        {"package", Kind::package},
        {"descriptor", Kind::descriptor},
        {"manifest", Kind::manifest},
        {"image", Kind::image},
        {"payload", Kind::payload},
        {"signature", Kind::signature},
    }};
    const auto* const found = std::ranges::find(
        kinds, name, &std::pair<std::string_view, Kind>::first);
    return found == kinds.end() ? std::nullopt : std::optional(found->second);
}

Json inspect(const Source& file, std::optional<Kind> kind)
{
    const Kind found = kind ? *kind : recognise(file);
    Json fields{
        {"file", file.name()}, {"size", file.size()}, {"kind", titleOf(found)}};
    fields.update(describe(file, found));
    return fields;
}

std::string renderText(const Json& fields)
{
    std::string text;
    renderInto(text, fields, 0);
    return text;
}

} // namespace pack
