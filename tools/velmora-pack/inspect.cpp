#include "inspect.hpp"

#include "openssl.hpp"

#include <algorithm>
#include <array>

namespace pack
{
namespace
{

constexpr std::size_t START_SIZE = 256;
constexpr std::uint64_t OLDER_SIGNATURE_SIZE = 512;
constexpr std::size_t INDENT_WIDTH = 2;

std::string startOf(const Source& file)
{
    return std::string(
        textOf(file.read(0, std::min<std::uint64_t>(file.size(), START_SIZE))));
}

bool isPackage(const Source& file)
{
    const std::string start = startOf(file);
    return start.starts_with("PK\3\4") || start.starts_with("PK\5\6");
}

bool isDescriptor(const Source& file)
{
    const std::string start = startOf(file);
    const std::size_t first = start.find_first_not_of("\xef\xbb\xbf \t\r\n");
    // Bytes of an image can begin like XML, which has no other control codes.
    const bool isText = std::ranges::all_of(
        start, [](unsigned char c)
        { return c >= ' ' || c == '\t' || c == '\r' || c == '\n'; });
    return isText && first != std::string::npos && start[first] == '<';
}

/** Only its name and its size tell anything. */
bool isManifestSignature(const Source& file)
{
    return std::filesystem::path(file.name()).filename() == "image-ktb.sig";
}

Json describeManifestSignature(const Source& file, Remarks& remarks)
{
    if (file.size() >= OLDER_SIGNATURE_SIZE)
    {
        remarks.emplace_back("512 bytes or more mark the older format, with "
                             "which the image's signature is not checked");
    }
    return Json::object();
}

Json describeUnknown(const Source& file, Remarks& remarks)
{
    remarks.emplace_back("its content does not tell what it is; --as says so, "
                         "and a signed image always needs --as image");
    return {{"sha256", digestText(file, file.size(), EVP_sha256())}};
}

struct Kind
{
    std::string_view name;
    std::string_view title;
    bool (*recognises)(const Source&);
    Json (*describe)(const Source&, Remarks&);
};

/** In the order in which a file's content is looked at. */
constexpr std::array KINDS{
    Kind{"manifest-signature", "manifest signature", isManifestSignature,
         describeManifestSignature},
    // A payload's body can be a package, and a package can hold a certificate
    // where a payload has its chain.
    Kind{"payload", "signed payload", [](const Source& file)
         { return isPayload(file, isPackage(file)); }, describePayload},
    Kind{"package", "package", isPackage, describePackage},
    Kind{"descriptor", "descriptor", isDescriptor, describeDescriptor},
    Kind{"manifest", "manifest", isManifest, describeManifest},
    Kind{"signature", "detached OpenPGP signature", isSignature,
         describeSignature},
    // Nothing in a signed image tells what it is.
    Kind{"image", "signed image", [](const Source&) { return false; },
         describeImage},
    Kind{"unknown", "unknown", [](const Source&) { return true; },
         describeUnknown},
};

std::string valueText(const Json& value)
{
    if (!value.is_string())
    {
        return value.dump();
    }
    std::string text;
    for (const char c : value.get_ref<const std::string&>())
    {
        text.append(c == '\\' ? 2 : 1, c);
    }
    return printable(text);
}

void renderInto(std::string& text, const Json& fields, std::size_t indent)
{
    for (const auto& [name, value] : fields.items())
    {
        const bool nested = value.is_structured() && !value.empty();
        std::string inner;
        if (nested)
        {
            renderInto(inner, value, indent + INDENT_WIDTH);
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

std::vector<std::string> kindNames()
{
    std::vector<std::string> names;
    names.reserve(KINDS.size());
    for (const Kind& kind : KINDS)
    {
        names.emplace_back(kind.name);
    }
    // What nobody knows cannot be asked for.
    names.pop_back();
    return names;
}

std::string kindOf(const Source& file)
{
    return std::string(std::ranges::find_if(KINDS, [&](const Kind& known)
                                            { return known.recognises(file); })
                           ->name);
}

Json inspect(const Source& file, std::string_view kind)
{
    const auto* const found = std::ranges::find(
        KINDS, kind.empty() ? kindOf(file) : std::string(kind), &Kind::name);
    Remarks remarks;
    Json fields{
        {"file", file.name()}, {"size", file.size()}, {"kind", found->title}};
    fields.update(found->describe(file, remarks));
    fields["remarks"] = remarks;
    return fields;
}

std::string renderText(const Json& fields)
{
    std::string text;
    renderInto(text, fields, 0);
    return text;
}

std::string dateText(std::int64_t seconds)
{
    return timeText(timeOf(seconds).get());
}

} // namespace pack
