#include "xml_parsing.hpp"

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace velmora
{

namespace
{

/** Bytes of a document: 5,000 systems need half of it. */
constexpr std::size_t MAX_DOCUMENT = std::size_t{256} * 1024;
/** Bytes of the file that are read for a document type. The parser compares
 *  declarations with one another, so they must stay few. */
constexpr std::size_t MAX_DOCUMENT_TYPE = 8192;
/** What the uses of entities and defaults may add to a document. Each use
 * counts its bytes and NODE_COST. A line break counts LINE_BREAK_COST, because
 * the log may repeat it. */
constexpr std::size_t MAX_ADDED = MAX_DOCUMENT;
constexpr std::size_t NODE_COST = 16;
constexpr std::size_t LINE_BREAK_COST = 512;
/** The parser itself goes no deeper into entities within entities. */
constexpr int MAX_ENTITY_DEPTH = 40;
/** Attributes of one element. Older parsers compare each with all others. */
constexpr int MAX_ATTRIBUTES = 1000;
/** Lines that the parser may write about one document. */
constexpr std::size_t MAX_MESSAGE_LINES = 300;

std::string_view view(const xmlChar* text)
{
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

/** Empty where none is declared. */
std::string_view contentOf(const xmlEntity* entity)
{
    return view(entity != nullptr ? entity->content : nullptr);
}

std::size_t costOf(std::string_view text)
{
    return text.size() + LINE_BREAK_COST * static_cast<std::size_t>(std::count(
                                               text.begin(), text.end(), '\n'));
}

/** The functions with which the process gives the parser its memory. */
xmlFreeFunc processFree = nullptr;
xmlMallocFunc processMalloc = nullptr;
xmlReallocFunc processRealloc = nullptr;
xmlStrdupFunc processStrdup = nullptr;
bool allocationFailed = false;

template <typename T>
T* noted(T* memory)
{
    allocationFailed = allocationFailed || memory == nullptr;
    return memory;
}

void* allocate(std::size_t size) { return noted(processMalloc(size)); }

void* reallocate(void* memory, std::size_t size)
{
    return noted(processRealloc(memory, size));
}

char* duplicate(const char* text) { return noted(processStrdup(text)); }

/** Bounds one parse.
 *
 *  The parser asks its loader for every input, the document too, and passes its
 *  context. Nowhere else can the context that xmlParseFile makes be reached
 *  before parsing. Our loader gives it the document, and puts functions that
 *  count in front of the parser's own. */
class GuardedParse
{
  public:
    explicit GuardedParse(const char* path) :
        path_(path), file_(open(path, O_RDONLY | O_CLOEXEC)), openError_(errno),
        previousLoader_(xmlGetExternalEntityLoader()),
        previousReport_(xmlGenericError),
        previousReportContext_(xmlGenericErrorContext)
    {
        current_ = this;
        xmlSetExternalEntityLoader(load);
        // The previous report function reads this context, so it stays set.
        xmlSetGenericErrorFunc(previousReportContext_, report);
    }

    GuardedParse(const GuardedParse&) = delete;
    GuardedParse& operator=(const GuardedParse&) = delete;

    ~GuardedParse()
    {
        xmlSetGenericErrorFunc(previousReportContext_, previousReport_);
        xmlSetExternalEntityLoader(previousLoader_);
        current_ = nullptr;
    }

    /** Whether the parser has seen the whole document, within the limits. */
    bool complete() const { return !refused_ && !unreadable_; }

  private:
    static xmlParserInput* load(const char* /*url*/, const char* /*id*/,
                                xmlParserCtxt* context)
    {
        GuardedParse& guard = *current_;
        // The first input is the document. No other is loaded.
        if (std::exchange(guard.loaded_, true) || context == nullptr)
        {
            return nullptr;
        }
        if (!guard.file_)
        {
            guard.say("cannot be opened", std::strerror(guard.openError_));
            return nullptr;
        }
        guard.context_ = context;
        context->sax->internalSubset = beginDocumentType;
        context->sax->externalSubset = endDocumentType;
        context->sax->getEntity = useEntity;
        context->sax->getParameterEntity = useParameterEntity;
        context->sax->startElementNs = startElement;
        return guard.makeInput();
    }

    /** The parser's own opening would decompress. We close the file ourselves,
     *  because releases of the parser differ in when they close it. */
    xmlParserInput* makeInput()
    {
#if LIBXML_VERSION >= 21400
        return xmlNewInputFromIO(path_, read, nullptr, this,
                                 static_cast<xmlParserInputFlags>(0));
#else
        xmlParserInputBuffer* buffer = xmlParserInputBufferCreateIO(
            read, nullptr, this, XML_CHAR_ENCODING_NONE);
        if (buffer == nullptr)
        {
            return nullptr;
        }
        xmlParserInput* input =
            xmlNewIOInputStream(context_, buffer, XML_CHAR_ENCODING_NONE);
        if (input == nullptr)
        {
            xmlFreeParserInputBuffer(buffer);
            return nullptr;
        }
        // Named in the parser's messages, and freed with the input.
        input->filename = reinterpret_cast<const char*>(
            xmlStrdup(reinterpret_cast<const xmlChar*>(path_)));
        return input;
#endif
    }

    static int read(void* context, char* data, int size)
    {
        GuardedParse& guard = *static_cast<GuardedParse*>(context);
        ssize_t count = 0;
        do
        {
            count =
                ::read(guard.file_.get(), data, static_cast<std::size_t>(size));
        } while (count < 0 && errno == EINTR);
        if (count < 0)
        {
            guard.unreadable_ = true;
            return -1;
        }
        guard.size_ += static_cast<std::size_t>(count);
        if (guard.size_ > MAX_DOCUMENT)
        {
            guard.refuse("the document is larger than 262144 bytes");
        }
        // After an error the parser still reads a document type, but no longer
        // says where it starts or ends. So all that follows counts.
        guard.documentTypeSize_ +=
            guard.inDocumentType_ || guard.context_->wellFormed == 0
                ? static_cast<std::size_t>(count)
                : 0;
        if (guard.documentTypeSize_ > MAX_DOCUMENT_TYPE)
        {
            guard.refuse(
                "a document type, or what follows an error, is larger than "
                "8192 bytes");
        }
        // The parser cannot be stopped while it fills its buffer. It stops
        // at the end of its input.
        return guard.refused_ ? 0 : static_cast<int>(count);
    }

    static void beginDocumentType(void* context, const xmlChar* name,
                                  const xmlChar* publicId,
                                  const xmlChar* systemId)
    {
        current_->inDocumentType_ = true;
        xmlSAX2InternalSubset(context, name, publicId, systemId);
    }

    static void endDocumentType(void* context, const xmlChar* name,
                                const xmlChar* publicId,
                                const xmlChar* systemId)
    {
        current_->inDocumentType_ = false;
        xmlSAX2ExternalSubset(context, name, publicId, systemId);
    }

    static xmlEntity* useEntity(void* context, const xmlChar* name)
    {
        xmlEntity* entity = xmlSAX2GetEntity(context, name);
        return current_->spend(entityCost(context, entity, 0)) ? entity
                                                               : nullptr;
    }

    static xmlEntity* useParameterEntity(void* context, const xmlChar* name)
    {
        xmlEntity* entity = xmlSAX2GetParameterEntity(context, name);
        return current_->spend(NODE_COST + costOf(contentOf(entity))) ? entity
                                                                      : nullptr;
    }

    /** What one use of an entity adds, with the entities within it. */
    static std::size_t entityCost(void* context, const xmlEntity* entity,
                                  int depth)
    {
        const std::string_view text = contentOf(entity);
        std::size_t cost = NODE_COST + costOf(text);
        for (std::size_t at = text.find('&'); at != std::string_view::npos;
             at = text.find('&', at + 1))
        {
            if (depth == MAX_ENTITY_DEPTH || cost > MAX_ADDED)
            {
                return MAX_ADDED + 1;
            }
            const std::string_view name =
                text.substr(at + 1, text.find(';', at) - at - 1);
            if (name.starts_with('#'))
            {
                // It may be a line break, so it counts as one.
                cost += LINE_BREAK_COST;
                continue;
            }
            const XmlText copy(
                xmlStrndup(reinterpret_cast<const xmlChar*>(name.data()),
                           static_cast<int>(name.size())));
            cost += entityCost(context, xmlSAX2GetEntity(context, copy.get()),
                               depth + 1);
        }
        return cost;
    }

    /** What namespaces and defaults add to an element. */
    static std::size_t elementCost(int namespaceCount,
                                   const xmlChar** namespaces,
                                   int attributeCount, int defaultCount,
                                   const xmlChar** attributes)
    {
        // Five pointers each: name, prefix, namespace, begin and end of the
        // value. The defaults come last.
        std::size_t cost =
            NODE_COST * static_cast<std::size_t>(defaultCount + namespaceCount);
        // A prefix and a URI each. The parser does not say which are defaults,
        // so all count.
        for (int i = 0; i < namespaceCount; ++i)
        {
            cost += costOf(view(namespaces[std::ptrdiff_t{2} * i + 1]));
        }
        for (int i = 0; i < attributeCount; ++i)
        {
            const xmlChar* const* value = attributes + std::ptrdiff_t{5} * i;
            const std::string_view text(
                reinterpret_cast<const char*>(value[3]),
                static_cast<std::size_t>(value[4] - value[3]));
            const bool isDefault = i >= attributeCount - defaultCount;
            cost += costOf(text) - (isDefault ? 0 : text.size());
        }
        return cost;
    }

    static void startElement(void* context, const xmlChar* name,
                             const xmlChar* prefix, const xmlChar* uri,
                             int namespaceCount, const xmlChar** namespaces,
                             int attributeCount, int defaultCount,
                             const xmlChar** attributes)
    {
        if (attributeCount > MAX_ATTRIBUTES)
        {
            current_->stop("an element has more than 1000 attributes");
        }
        else if (current_->spend(elementCost(namespaceCount, namespaces,
                                             attributeCount, defaultCount,
                                             attributes)))
        {
            xmlSAX2StartElementNs(context, name, prefix, uri, namespaceCount,
                                  namespaces, attributeCount, defaultCount,
                                  attributes);
        }
    }

    /** @return false when more has been added than a document may have; the
     *          parse has been stopped then */
    bool spend(std::size_t cost)
    {
        added_ += std::min(cost, MAX_ADDED + 1);
        if (added_ > MAX_ADDED)
        {
            stop("entities, defaults and line breaks add too much");
        }
        return !refused_;
    }

    void stop(const char* limit)
    {
        refuse(limit);
        xmlStopParser(context_);
    }

    /** Writes once which limit it is. Later messages are dropped: they only
     *  describe the cut-off input. */
    void refuse(const char* limit)
    {
        if (!std::exchange(refused_, true))
        {
            say("limit", limit);
        }
    }

    /** Writes where the parser writes, and as it does. */
    void say(const char* kind, const char* text)
    {
        previousReport_(previousReportContext_, "%s: %s : %s\n", path_, kind,
                        text);
    }

    /** Stands in front of what writes the parser's messages. */
    [[gnu::format(printf, 2, 3)]] static void report(void* /*context*/,
                                                     const char* format, ...)
    {
        GuardedParse& guard = *current_;
        if (guard.refused_)
        {
            return;
        }
        // A value that is quoted in a message may be full of line breaks.
        std::array<char, 512> text{};
        std::va_list arguments;
        va_start(arguments, format);
        const int size =
            std::vsnprintf(text.data(), text.size(), format, arguments);
        va_end(arguments);
        if (size >= static_cast<int>(text.size()))
        {
            // Cut off, but still a line.
            text[text.size() - 2] = '\n';
        }
        guard.previousReport_(guard.previousReportContext_, "%s", text.data());
        guard.messageLines_ += static_cast<std::size_t>(
            std::count(text.begin(), text.end(), '\n'));
        if (guard.messageLines_ > MAX_MESSAGE_LINES)
        {
            guard.refuse("the parser reports more than 300 lines");
        }
    }

    // Callbacks get no pointer of ours and find the guard here. Null outside a
    // parse.
    static inline GuardedParse* current_ = nullptr;

    const char* path_;
    FileDescriptor file_;
    int openError_;
    xmlExternalEntityLoader previousLoader_;
    xmlGenericErrorFunc previousReport_;
    void* previousReportContext_;
    xmlParserCtxt* context_ = nullptr;
    std::size_t size_ = 0;
    std::size_t documentTypeSize_ = 0;
    std::size_t added_ = 0;
    std::size_t messageLines_ = 0;
    bool loaded_ = false;
    bool inDocumentType_ = false;
    bool unreadable_ = false;
    bool refused_ = false;
};

} // namespace

XmlAllocations::XmlAllocations()
{
    allocationFailed = false;
    xmlMemGet(&processFree, &processMalloc, &processRealloc, &processStrdup);
    xmlMemSetup(processFree, allocate, reallocate, duplicate);
}

XmlAllocations::~XmlAllocations()
{
    xmlMemSetup(processFree, processMalloc, processRealloc, processStrdup);
}

bool XmlAllocations::failed() const { return allocationFailed; }

XmlDocument parseDescriptor(const std::string& path,
                            const XmlAllocations& allocations)
{
    const GuardedParse guard(path.c_str());
    xmlDoc* document = xmlParseFile(path.c_str());
    if (!guard.complete() || allocations.failed())
    {
        // After a failed parse the parser's state is not cleaned up.
        xmlFreeDoc(document);
        return nullptr;
    }
    return XmlDocument(document);
}

std::optional<XmlText> attributeText(xmlNode* node, const char* name)
{
    const xmlAttr* attribute =
        xmlHasProp(node, reinterpret_cast<const xmlChar*>(name));
    if (attribute == nullptr || attribute->children == nullptr)
    {
        return std::nullopt;
    }
    return XmlText(xmlNodeGetContent(attribute->children));
}

std::string toString(const XmlText& text)
{
    return text != nullptr ? reinterpret_cast<const char*>(text.get()) : "";
}

} // namespace velmora
