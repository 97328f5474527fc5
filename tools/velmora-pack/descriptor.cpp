#include "inspect.hpp"
#include "making.hpp"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace pack
{
namespace
{

constexpr auto MODEL_PATH = "//Device/@componentID";
constexpr auto VERSION_PATH = "//SoftwareComponent/@vendorVersion";
constexpr auto DIGEST_PATH =
    "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]/@hash";
constexpr auto SYSTEM_ID_PATH = "//Model/@systemID";
constexpr auto MODEL_WITHOUT_SYSTEM = "//Model[not(@systemID)]";
// What the checker refuses.
constexpr std::size_t LARGEST_DESCRIPTOR = 262144;
constexpr auto LARGEST_WITH_DOCUMENT_TYPE = "8192";
constexpr auto TOO_MANY_ATTRIBUTES = "//*[count(@*) > 1000]";
constexpr std::size_t LONGEST_SYSTEM_ID = 1024;
constexpr std::size_t SHOWN_OF_SYSTEM_ID = 32;
constexpr std::size_t MOST_SYSTEM_IDS = 1000;
constexpr int LARGEST_SYSTEM_ID = 0xffff;
constexpr std::size_t DIGEST_LENGTH = 64;

using XmlDocument = Handle<xmlDoc, xmlFreeDoc>;
using XPathContext = Handle<xmlXPathContext, xmlXPathFreeContext>;
using XPathResult = Handle<xmlXPathObject, xmlXPathFreeObject>;

void freeText(xmlChar* text) { xmlFree(text); }
using XmlText = Handle<xmlChar, freeText>;

const xmlChar* xmlText(const char* text)
{
    return reinterpret_cast<const xmlChar*>(text);
}

std::string escaped(const std::string& value)
{
    const XmlText text(xmlEncodeSpecialChars(nullptr, xmlText(value.c_str())));
    return text ? reinterpret_cast<const char*>(text.get()) : "";
}

/** Ends a parse at a document type, whose entities and defaults can make the
 *  rest as costly as they like. */
void stopAtType(void* context, const xmlChar* /*name*/, const xmlChar* /*id*/,
                const xmlChar* /*url*/)
{
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    parser->_private = parser;
    xmlStopParser(parser);
}

/** @return null for a document that has a document type */
XmlDocument parse(Bytes xml, std::string_view name)
{
    if (xml.size() > LARGEST_DESCRIPTOR)
    {
        throw Error(name, "is larger than 262144 bytes, which the checker "
                          "refuses");
    }
    // The reason is told once, by the exception.
    xmlSetStructuredErrorFunc(nullptr, [](void*, auto) {});
    // Entities stay as they stand, and nothing outside the text is fetched.
    const Handle<xmlParserCtxt, xmlFreeParserCtxt> parser(xmlNewParserCtxt());
    if (!parser)
    {
        throw std::bad_alloc();
    }
    parser->sax->internalSubset = stopAtType;
    XmlDocument document(xmlCtxtReadMemory(
        parser.get(), reinterpret_cast<const char*>(xml.data()),
        static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_NONET));
    if (parser->_private != nullptr)
    {
        return nullptr;
    }
    if (!document)
    {
        throw Error(name, "is not well-formed XML");
    }
    return document;
}

XPathResult evaluate(xmlDoc* document, const char* path)
{
    const XPathContext context(xmlXPathNewContext(document));
    return XPathResult(
        context ? xmlXPathEvalExpression(xmlText(path), context.get())
                : nullptr);
}

bool selectsAny(xmlDoc* document, const char* path)
{
    const XPathResult result = evaluate(document, path);
    return result && xmlXPathCastToBoolean(result.get()) == 1;
}

/** The values of the attributes that the path selects, in document order. An
 *  empty attribute has no text, and counts as absent. */
std::vector<std::string> find(xmlDoc* document, const char* path)
{
    const XPathResult result = evaluate(document, path);
    std::vector<std::string> values;
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
            values.emplace_back(reinterpret_cast<const char*>(text->content));
        }
    }
    return values;
}

std::string firstOf(xmlDoc* document, const char* path)
{
    const std::vector<std::string> values = find(document, path);
    return values.empty() ? std::string() : values.front();
}

void remarkOnDigest(Remarks& remarks, const std::string& digest)
{
    if (digest.size() != DIGEST_LENGTH ||
        digest.find_first_not_of("0123456789abcdef") != std::string::npos)
    {
        remarks.emplace_back(
            "the hash is not 64 lower-case hexadecimal digits, "
            "so no payload can match it");
    }
}

/** Reads the number as the checker does. */
void remarkOnSystemId(Remarks& remarks, const std::string& systemId)
{
    std::string what = systemId.size() > LONGEST_SYSTEM_ID
                           ? "is longer than 1024 bytes, which the checker "
                             "refuses"
                           : "";
    try
    {
        std::size_t end = 0;
        const int number = std::stoi(systemId, &end, 16);
        if (number < 0 || number > LARGEST_SYSTEM_ID)
        {
            what = "is not a 16-bit number, so no system has it";
        }
        else if (what.empty() && end != systemId.size())
        {
            what = "has text after its number; only the number counts";
        }
    }
    catch (const std::logic_error&)
    {
        what = "is no number, and the checker throws an exception";
    }
    if (!what.empty())
    {
        remarks.push_back("the systemID \"" +
                          systemId.substr(0, SHOWN_OF_SYSTEM_ID) + "\" " +
                          what);
    }
}

} // namespace

Buffer writeDescriptor(const Options& options, const std::string& digest)
{
    for (const std::string& text : {options.model, options.version})
    {
        // A parser drops or changes what is not.
        if (text.empty() || printable(text) != text)
        {
            throw Error("the model or the version",
                        "is empty, or not UTF-8 text without control "
                        "characters");
        }
    }
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<Package>\n  <Device componentID=\"" +
        escaped(options.model) + "\"/>\n  <SoftwareComponent vendorVersion=\"" +
        escaped(options.version) + "\" hashAlgorithm=\"SHA256\" hash=\"" +
        digest + "\"/>\n";
    // No Model element at all means that every system is supported.
    for (const std::string& systemId : options.systemIds)
    {
        text += "  <Model systemID=\"" + systemId + "\"/>\n";
    }
    text += "</Package>\n";
    const Bytes bytes = bytesOf(text);
    return {bytes.begin(), bytes.end()};
}

Json describeDescriptor(const Source& file, Remarks& remarks)
{
    const XmlDocument document = parse(file.readAll(), file.name());
    Json fields = Json::object();
    if (!document)
    {
        remarks.push_back(
            std::string("the descriptor has a document type, with which the "
                        "checker takes at most ") +
            LARGEST_WITH_DOCUMENT_TYPE + " bytes, and this has " +
            std::to_string(file.size()) + "; its values are not read here");
        return fields;
    }
    const xmlNode* const root = xmlDocGetRootElement(document.get());
    fields["root"] =
        root == nullptr ? "" : reinterpret_cast<const char*>(root->name);
    for (const auto& [name, path] : {std::pair{"componentID", MODEL_PATH},
                                     std::pair{"vendorVersion", VERSION_PATH},
                                     std::pair{"hash", DIGEST_PATH}})
    {
        const std::string value = firstOf(document.get(), path);
        if (value.empty())
        {
            remarks.push_back("the descriptor states no " + std::string(name));
        }
        else
        {
            fields[name] = value;
        }
    }
    if (fields.contains("hash"))
    {
        remarkOnDigest(remarks, fields["hash"]);
    }
    if (selectsAny(document.get(), MODEL_WITHOUT_SYSTEM))
    {
        remarks.emplace_back(
            "a Model has no systemID, so no system matches it");
    }
    if (selectsAny(document.get(), TOO_MANY_ATTRIBUTES))
    {
        remarks.emplace_back("an element has more than 1000 attributes, which "
                             "the checker refuses");
    }
    std::vector<std::string> systemIds = find(document.get(), SYSTEM_ID_PATH);
    fields["systemIDs"] = systemIds.size();
    systemIds.resize(std::min(systemIds.size(), MOST_SYSTEM_IDS));
    fields["systemID"] = systemIds;
    for (const std::string& systemId : systemIds)
    {
        remarkOnSystemId(remarks, systemId);
    }
    return fields;
}

} // namespace pack
