#include "descriptor.hpp"

#include "error.hpp"
#include "files.hpp"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <algorithm>

using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

constexpr auto modelPath = "//Device/@componentID";
constexpr auto versionPath = "//SoftwareComponent/@vendorVersion";
constexpr auto digestPath =
    "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]/@hash";
constexpr auto systemIdPath = "//Model/@systemID";
constexpr std::size_t mostSystemIds = 1000;
/** Bytes of UTF-8. */
constexpr std::ptrdiff_t longestCharacter = 4;

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
            std::min<std::ptrdiff_t>(end - position, longestCharacter));
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
    if (xml.size() > largestFileInMemory)
    {
        throw Error(name, "is too large");
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

void describeFirst(Json& fields, const char* name, xmlDoc* document,
                   const char* path)
{
    const std::vector<Found> values = find(document, path);
    if (!values.empty())
    {
        fields[name] = {{"line", values.front().line},
                        {"value", values.front().value}};
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
    Descriptor descriptor{.model = firstOf(document.get(), modelPath),
                          .version = firstOf(document.get(), versionPath),
                          .digest = firstOf(document.get(), digestPath),
                          .systemIds = {}};
    for (Found& found : find(document.get(), systemIdPath))
    {
        descriptor.systemIds.push_back(std::move(found.value));
    }
    return descriptor;
}

Json describeDescriptor(Bytes xml, std::string_view name)
{
    const XmlDocument document = parse(xml, name);
    const xmlNode* const root = xmlDocGetRootElement(document.get());
    Json fields{{"root", root == nullptr
                             ? ""
                             : reinterpret_cast<const char*>(root->name)}};
    if (document->intSubset != nullptr)
    {
        // Its entities could make a value of any size.
        fields["values"] = "not read: there is a document type declaration";
        return fields;
    }
    describeFirst(fields, "componentID", document.get(), modelPath);
    describeFirst(fields, "vendorVersion", document.get(), versionPath);
    describeFirst(fields, "hash", document.get(), digestPath);
    const std::vector<Found> systemIds = find(document.get(), systemIdPath);
    fields["systemIDs"] = systemIds.size();
    Json& listed = fields["systemID"] = Json::array();
    for (const Found& found :
         std::span(systemIds).first(std::min(systemIds.size(), mostSystemIds)))
    {
        listed.push_back({{"line", found.line}, {"value", found.value}});
    }
    return fields;
}

} // namespace pack
