#include "xml_parsing.hpp"

#include <libxml/SAX2.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>
#include <utility>

namespace velmora
{

namespace
{

/** Bytes of a document: 5,000 systems need half of it. */
constexpr std::size_t MAX_DOCUMENT = std::size_t{256} * 1024;
/** Bytes of a document that has a document type. The parser compares its
 *  declarations with one another, and repeats what they declare. */
constexpr std::size_t MAX_TYPED_DOCUMENT = 8192;
/** Bytes of all entities that are looked up, each with ENTITY_COST more. */
constexpr std::size_t MAX_ENTITIES = MAX_DOCUMENT;
constexpr std::size_t ENTITY_COST = 16;
/** Attributes of one element. Older parsers compare each with all others. */
constexpr int MAX_ATTRIBUTES = 1000;
/** Bytes of what is said about a document. */
constexpr std::size_t MAX_COMPLAINT = 200;

/** One parse, and what is wrong with the document. */
struct Parse
{
    std::string_view content;
    xmlParserCtxt* context = nullptr;
    std::size_t lookedUp = 0;
    int level = XML_ERR_NONE;
    /** No string: nothing may be thrown through the parser. */
    std::array<char, MAX_COMPLAINT> complaint{};
};

/** The parser's callbacks get no pointer of ours and find the parse here. Null
 *  outside a parse. */
Parse* current = nullptr;

void stop(const char* limit)
{
    current->level = XML_ERR_FATAL;
    std::snprintf(current->complaint.data(), MAX_COMPLAINT, "limit : %s",
                  limit);
    xmlStopParser(current->context);
}

void beginDocumentType(void* context, const xmlChar* name,
                       const xmlChar* publicId, const xmlChar* systemId)
{
    if (current->content.size() > MAX_TYPED_DOCUMENT)
    {
        stop("a document with a document type has more than 8192 bytes");
        return;
    }
    xmlSAX2InternalSubset(context, name, publicId, systemId);
}

xmlEntity* counted(xmlEntity* entity)
{
    const xmlChar* text = entity != nullptr ? entity->content : nullptr;
    current->lookedUp +=
        ENTITY_COST + static_cast<std::size_t>(xmlStrlen(text));
    if (current->lookedUp > MAX_ENTITIES)
    {
        stop("the uses of entities add more than 262144 bytes");
    }
    // Behind an error, entities would only repeat it.
    return current->level < XML_ERR_FATAL ? entity : nullptr;
}

void startElement(void* context, const xmlChar* name, const xmlChar* prefix,
                  const xmlChar* uri, int namespaceCount,
                  const xmlChar** namespaces, int attributeCount,
                  int defaultCount, const xmlChar** attributes)
{
    if (attributeCount > MAX_ATTRIBUTES)
    {
        stop("an element has more than 1000 attributes");
        return;
    }
    xmlSAX2StartElementNs(context, name, prefix, uri, namespaceCount,
                          namespaces, attributeCount, defaultCount, attributes);
}

/** Takes back what the process made the default, such as validation. Only a
 *  parser that recovers announces a document type behind an error. */
void begin(void* context, xmlSAXLocator* /*locator*/)
{
    xmlCtxtUseOptions(static_cast<xmlParserCtxt*>(context),
                      XML_PARSE_RECOVER | XML_PARSE_NONET);
}

/** Else newer releases would deliver what they could recover. */
void end(void* context)
{
    xmlSAX2EndDocument(context);
    xmlCtxtUseOptions(static_cast<xmlParserCtxt*>(context), XML_PARSE_NONET);
}

xmlParserInput* makeInput()
{
#if LIBXML_VERSION >= 21400
    return xmlNewInputFromMemory(nullptr, current->content.data(),
                                 current->content.size(),
                                 static_cast<xmlParserInputFlags>(0));
#else
    xmlParserInputBuffer* buffer = xmlParserInputBufferCreateMem(
        current->content.data(), static_cast<int>(current->content.size()),
        XML_CHAR_ENCODING_NONE);
    // Both take null as well.
    xmlParserInput* input =
        xmlNewIOInputStream(current->context, buffer, XML_CHAR_ENCODING_NONE);
    if (input == nullptr)
    {
        xmlFreeParserInputBuffer(buffer);
    }
    return input;
#endif
}

/** Is asked for every input, the document too. Nowhere else can the context
 *  that xmlParseFile makes be reached before parsing. */
xmlParserInput* load(const char* /*url*/, const char* /*id*/,
                     xmlParserCtxt* context)
{
    // The first input is the document. No other is loaded.
    if (current->context != nullptr || context == nullptr)
    {
        return nullptr;
    }
    current->context = context;
    xmlSAXHandler& handler = *context->sax;
    handler.setDocumentLocator = begin;
    handler.internalSubset = beginDocumentType;
    handler.getEntity = [](void* user, const xmlChar* name)
    { return counted(xmlSAX2GetEntity(user, name)); };
    handler.getParameterEntity = [](void* user, const xmlChar* name)
    { return counted(xmlSAX2GetParameterEntity(user, name)); };
    handler.startElementNs = startElement;
    handler.endDocument = end;
    return makeInput();
}

/** Keeps the first of the gravest complaints: a warning is not to hide why a
 *  document is refused. */
void keepComplaint(const xmlError& error)
{
    if (error.level > current->level && error.message != nullptr)
    {
        current->level = error.level;
        // It may quote the document, line breaks included.
        std::snprintf(current->complaint.data(), MAX_COMPLAINT, "line %d: %.*s",
                      error.line,
                      static_cast<int>(std::strcspn(error.message, "\r\n")),
                      error.message);
    }
    // libxml2 2.9 has given up by now, and repeats this without end.
    if (error.code == XML_ERR_PEREF_NO_NAME)
    {
        xmlStopParser(current->context);
    }
}

XmlDocument parseWithinLimits(const std::string& path, Parse& parse)
{
    Parse* const outer = std::exchange(current, &parse);
    const xmlExternalEntityLoader loader = xmlGetExternalEntityLoader();
    const xmlStructuredErrorFunc report = xmlStructuredError;
    void* const reportContext = xmlStructuredErrorContext;
    xmlSetExternalEntityLoader(load);
    // Releases of the parser differ in whether the error is const.
    xmlSetStructuredErrorFunc(nullptr, [](void* /*user*/, auto* error)
                              { keepComplaint(*error); });

    // Newer releases take a lone "-" for the standard input.
    XmlDocument document(xmlParseFile(path == "-" ? "./-" : path.c_str()));

    xmlSetStructuredErrorFunc(reportContext, report);
    xmlSetExternalEntityLoader(loader);
    current = outer;
    return document;
}

/** Writes one line where the parser writes. */
void say(const std::string& path, const char* text)
{
    xmlGenericError(xmlGenericErrorContext, "%s: %s\n", path.c_str(), text);
}

/** The whole file, closed again; nothing when it cannot be read or is too
 *  large, which has been said then. */
std::optional<std::string> readDocument(const std::string& path)
{
    // One byte more shows that there is more.
    std::string content(MAX_DOCUMENT + 1, '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    const bool tooLarge = content.size() > MAX_DOCUMENT;
    if (tooLarge || !file.is_open() || file.bad())
    {
        say(path, tooLarge ? "limit : the document is larger than 262144 bytes"
                           : std::strerror(errno));
        return std::nullopt;
    }
    return content;
}

} // namespace

XmlDocument parseDescriptor(const std::string& path,
                            const XmlAllocations& allocations)
{
    const auto content = readDocument(path);
    if (!content)
    {
        return nullptr;
    }
    Parse parse{.content = *content};
    XmlDocument document = parseWithinLimits(path, parse);
    // A parser that was stopped may deliver what it has.
    if (document != nullptr &&
        (parse.level == XML_ERR_FATAL || allocations.failed() ||
         (document->properties & XML_DOC_WELLFORMED) == 0))
    {
        document.reset();
    }
    if (parse.level != XML_ERR_NONE)
    {
        say(path, parse.complaint.data());
    }
    return document;
}

XPathResult evaluate(xmlDoc* document, const char* expression,
                     const XmlAllocations& allocations)
{
    const XPathContext context(xmlXPathNewContext(document));
    if (context == nullptr)
    {
        return nullptr;
    }
    XPathResult result(xmlXPathEvalExpression(
        reinterpret_cast<const xmlChar*>(expression), context.get()));
    if (allocations.failed())
    {
        // Not freed: libxml2 crashes on some results that lack memory.
        static_cast<void>(result.release());
    }
    return result;
}

} // namespace velmora
