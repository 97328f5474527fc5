#include "descriptor.hpp"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

constexpr auto MODEL_PATH = "//Device/@componentID";
constexpr auto VERSION_PATH = "//SoftwareComponent/@vendorVersion";
constexpr auto DIGEST_PATH =
    "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]/@hash";
constexpr auto SYSTEM_ID_PATH = "//Model/@systemID";
/** The checker reads no larger one. */
constexpr std::size_t LARGEST_DESCRIPTOR = 262144;
constexpr std::size_t MOST_SYSTEM_IDS = 1000;
constexpr int LARGEST_SYSTEM_ID = 0xffff;
/** Bytes of UTF-8. */
constexpr std::ptrdiff_t LONGEST_CHARACTER = 4;
constexpr std::size_t DIGEST_LENGTH = 64;

using XmlDocument = Handle<xmlDoc, xmlFreeDoc>;
using XPathContext = Handle<xmlXPathContext, xmlXPathFreeContext>;
using XPathResult = Handle<xmlXPathObject, xmlXPathFreeObject>;

void freeText(xmlChar* text) { xmlFree(text); }
using XmlText = Handle<xmlChar, freeText>;

/** A value, and the line on which its element begins. */
struct Found
{
    std::string value;
    long line;
};

const xmlChar* xmlText(const char* text)
{
    return reinterpret_cast<const xmlChar*>(text);
}

xmlNode* addElement(xmlNode* parent, const char* name)
{
    return xmlNewChild(parent, nullptr, xmlText(name), nullptr);
}

void addAttribute(xmlNode* element, const char* name, const std::string& value)
{
    if (xmlNewProp(element, xmlText(name), xmlText(value.c_str())) == nullptr)
    {
        throw Error(descriptorName, "cannot be written");
    }
}

/** What a descriptor can hold without the parser's changing it: characters of
 *  XML in UTF-8, and no control characters. */
bool isPlain(const std::string& value)
{
    const auto* position =
        reinterpret_cast<const unsigned char*>(value.c_str());
    const auto* const end = position + value.size();
    while (position < end)
    {
        int length = static_cast<int>(
            std::min<std::ptrdiff_t>(end - position, LONGEST_CHARACTER));
        const int character = xmlGetUTF8Char(position, &length);
        if (character < ' ' || character == 0x7f || !IS_CHAR(character))
        {
            return false;
        }
        position += length;
    }
    return !value.empty();
}

void expectPlain(const std::string& value, std::string_view what)
{
    if (!isPlain(value))
    {
        throw Error(what, "must be UTF-8 text without control characters, "
                          "and not empty");
    }
}

XmlDocument parse(Bytes xml, std::string_view name)
{
    if (xml.size() > LARGEST_DESCRIPTOR)
    {
        throw Error(name, "is larger than 262144 bytes, the most that is read");
    }
    // The reason is told once, by the exception.
    xmlSetStructuredErrorFunc(nullptr, [](void*, auto) {});
    // Entities stay as they stand, and nothing outside the text is fetched.
    XmlDocument document(
        xmlReadMemory(textOf(xml).data(), static_cast<int>(xml.size()), nullptr,
                      nullptr, XML_PARSE_NONET | XML_PARSE_BIG_LINES));
    if (!document)
    {
        throw Error(name, "is not well-formed XML");
    }
    return document;
}

/** The values of the attributes that the path selects, in document order. An
 *  empty attribute has no text, and counts as absent. */
std::vector<Found> find(xmlDoc* document, const char* path)
{
    const XPathContext context(xmlXPathNewContext(document));
    const XPathResult result(
        context ? xmlXPathEvalExpression(xmlText(path), context.get())
                : nullptr);
    std::vector<Found> values;
    if (!result || xmlXPathNodeSetIsEmpty(result->nodesetval))
    {
        return values;
    }
    const std::span nodes(result->nodesetval->nodeTab,
                          static_cast<std::size_t>(result->nodesetval->nodeNr));
    for (const xmlNode* const attribute : nodes)
    {
        const xmlNode* const text = attribute->children;
        if (text != nullptr && text->type == XML_TEXT_NODE)
        {
            values.push_back({reinterpret_cast<const char*>(text->content),
                              xmlGetLineNo(attribute->parent)});
        }
    }
    return values;
}

std::string firstOf(xmlDoc* document, const char* path)
{
    const std::vector<Found> values = find(document, path);
    return values.empty() ? std::string() : values.front().value;
}

Json fieldsOf(const Found& found)
{
    return {{"line", found.line}, {"value", found.value}};
}

void remarkOnDigest(Remarks& remarks, const std::string& digest)
{
    if (digest.size() != DIGEST_LENGTH ||
        digest.find_first_not_of("0123456789abcdef") != std::string::npos)
    {
        remarks.emplace_back("the hash is not of 64 lower-case hexadecimal "
                             "digits, so that no payload has it");
    }
}

/** Reads the number as the checker does. */
void remarkOnSystemId(Remarks& remarks, const Found& systemId)
{
    std::string what;
    try
    {
        const int number = std::stoi(systemId.value, nullptr, 16);
        if (number < 0 || number > LARGEST_SYSTEM_ID)
        {
            what = "is no number of 16 bits, so that no system has it";
        }
    }
    catch (const std::logic_error&)
    {
        what = "is no number, and the checker throws an exception";
    }
    if (!what.empty())
    {
        remarks.push_back("the systemID on line " +
                          std::to_string(systemId.line) + " " + what);
    }
}

} // namespace

Buffer writeDescriptor(const Descriptor& descriptor)
{
    expectPlain(descriptor.model, "the model");
    expectPlain(descriptor.version, "the version");
    const XmlDocument document(xmlNewDoc(xmlText("1.0")));
    xmlNode* const root =
        xmlNewDocNode(document.get(), nullptr, xmlText("Package"), nullptr);
    xmlDocSetRootElement(document.get(), root);
    addAttribute(addElement(root, "Device"), "componentID", descriptor.model);
    xmlNode* const component = addElement(root, "SoftwareComponent");
    addAttribute(component, "vendorVersion", descriptor.version);
    addAttribute(component, "hashAlgorithm", "SHA256");
    addAttribute(component, "hash", descriptor.digest);
    // No Model element at all means that every system is supported.
    for (const std::string& systemId : descriptor.systemIds)
    {
        addAttribute(addElement(root, "Model"), "systemID", systemId);
    }

    xmlChar* written = nullptr;
    int size = 0;
    xmlDocDumpFormatMemoryEnc(document.get(), &written, &size, "UTF-8", 1);
    const XmlText text(written);
    if (!text || size <= 0)
    {
        throw Error(descriptorName, "cannot be written");
    }
    const Bytes bytes =
        std::as_bytes(std::span(text.get(), static_cast<std::size_t>(size)));
    Buffer buffer(bytes.begin(), bytes.end());
    if (readDescriptor(buffer) != descriptor)
    {
        throw Error(descriptorName, "cannot hold these texts");
    }
    return buffer;
}

Descriptor readDescriptor(Bytes xml)
{
    const XmlDocument document = parse(xml, descriptorName);
    Descriptor descriptor{.model = firstOf(document.get(), MODEL_PATH),
                          .version = firstOf(document.get(), VERSION_PATH),
                          .digest = firstOf(document.get(), DIGEST_PATH),
                          .systemIds = {}};
    for (Found& found : find(document.get(), SYSTEM_ID_PATH))
    {
        descriptor.systemIds.push_back(std::move(found.value));
    }
    return descriptor;
}

Json describeDescriptor(const Source& file, Remarks& remarks)
{
    const XmlDocument document = parse(file.readAll(), file.name());
    const xmlNode* const root = xmlDocGetRootElement(document.get());
    Json fields{{"root", root == nullptr
                             ? ""
                             : reinterpret_cast<const char*>(root->name)}};
    if (document->intSubset != nullptr)
    {
        // Its entities could make a value of any size.
        remarks.emplace_back("the descriptor has a document type declaration, "
                             "so that its values are not read here");
        return fields;
    }
    for (const auto& [name, path] : {std::pair{"componentID", MODEL_PATH},
                                     std::pair{"vendorVersion", VERSION_PATH},
                                     std::pair{"hash", DIGEST_PATH}})
    {
        const std::vector<Found> values = find(document.get(), path);
        if (values.empty())
        {
            remarks.push_back("the descriptor states no " + std::string(name));
        }
        else
        {
            fields[name] = fieldsOf(values.front());
        }
    }
    if (fields.contains("hash"))
    {
        remarkOnDigest(remarks, fields["hash"]["value"]);
    }
    std::vector<Found> systemIds = find(document.get(), SYSTEM_ID_PATH);
    fields["systemIDs"] = systemIds.size();
    systemIds.resize(std::min(systemIds.size(), MOST_SYSTEM_IDS));
    Json& listed = fields["systemID"] = Json::array();
    for (const Found& found : systemIds)
    {
        listed.push_back(fieldsOf(found));
        remarkOnSystemId(remarks, found);
    }
    return fields;
}

} // namespace pack
