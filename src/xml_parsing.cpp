#include "xml_parsing.hpp"

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parserInternals.h>

#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace velmora
{

namespace
{

/** All that the entities of a document may hold, in bytes. Each use of one
 *  costs a copy. */
constexpr std::size_t MAX_ENTITY_TEXT = 4096;
/** The same for the defaults of attributes. Each counts for more than its text:
 *  it is compared with all others at every element of its name. */
constexpr std::size_t MAX_DEFAULT_TEXT = 512;
constexpr std::size_t DEFAULT_COST = 32;

/** Stands in front of the parser's loader during one parse.
 *
 *  The parser asks its loader for every input, the document included, and
 *  hands it the context: the one place where a context made by xmlParseFile
 *  can be reached before it parses. */
class GuardedParse
{
  public:
    explicit GuardedParse(const char* path) :
        path_(path), previousLoader_(xmlGetExternalEntityLoader()),
        previous_(std::exchange(current_, this))
    {
        xmlSetExternalEntityLoader(load);
    }

    GuardedParse(const GuardedParse&) = delete;
    GuardedParse& operator=(const GuardedParse&) = delete;

    ~GuardedParse()
    {
        xmlSetExternalEntityLoader(previousLoader_);
        current_ = previous_;
    }

  private:
    static xmlParserInput* load(const char* /*url*/, const char* /*id*/,
                                xmlParserCtxt* context)
    {
        // The first is the document; there is no second.
        const char* path = std::exchange(current_->path_, nullptr);
        if (path == nullptr || context == nullptr)
        {
            return nullptr;
        }
        context->sax->entityDecl = declareEntity;
        context->sax->attributeDecl = declareAttribute;
        return openPlain(path, context);
    }

    /** The parser's own opening would decompress. */
    static xmlParserInput* openPlain(const char* path, xmlParserCtxt* context)
    {
        const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
        if (descriptor < 0)
        {
            return nullptr;
        }
        // Closes the descriptor when it goes.
        xmlParserInputBuffer* buffer =
            xmlParserInputBufferCreateFd(descriptor, XML_CHAR_ENCODING_NONE);
        if (buffer == nullptr)
        {
            close(descriptor);
            return nullptr;
        }
        xmlParserInput* input =
            xmlNewIOInputStream(context, buffer, XML_CHAR_ENCODING_NONE);
        if (input == nullptr)
        {
            xmlFreeParserInputBuffer(buffer);
            return nullptr;
        }
        // Named in the parser's messages, and freed with the input.
        input->filename = reinterpret_cast<const char*>(
            xmlStrdup(reinterpret_cast<const xmlChar*>(path)));
        return input;
    }

    static void declareEntity(void* context, const xmlChar* name, int type,
                              const xmlChar* publicId, const xmlChar* systemId,
                              xmlChar* content)
    {
        const std::string_view text =
            content != nullptr ? reinterpret_cast<const char*>(content) : "";
        current_->entityText_ += text.size();
        const bool parameter = type == XML_INTERNAL_PARAMETER_ENTITY ||
                               type == XML_EXTERNAL_PARAMETER_ENTITY;
        if (parameter || text.find('&') != std::string_view::npos ||
            current_->entityText_ > MAX_ENTITY_TEXT)
        {
            refuse(context);
            return;
        }
        xmlSAX2EntityDecl(context, name, type, publicId, systemId, content);
    }

    static void declareAttribute(void* context, const xmlChar* element,
                                 const xmlChar* name, int type, int kind,
                                 const xmlChar* value, xmlEnumeration* values)
    {
        if (value != nullptr)
        {
            const std::size_t size =
                std::strlen(reinterpret_cast<const char*>(value));
            current_->defaultText_ += size + DEFAULT_COST;
            if (current_->defaultText_ > MAX_DEFAULT_TEXT)
            {
                refuse(context);
            }
        }
        // Also where refused: it takes the enumeration over.
        xmlSAX2AttributeDecl(context, element, name, type, kind, value, values);
    }

    static void refuse(void* context)
    {
        auto* parser = static_cast<xmlParserCtxt*>(context);
        // A parse that is only stopped yields what it has so far.
        parser->wellFormed = 0;
        xmlStopParser(parser);
    }

    // The parser's callbacks have no place for it; set during a parse only.
    static inline GuardedParse* current_ = nullptr;

    const char* path_;
    xmlExternalEntityLoader previousLoader_;
    GuardedParse* previous_;
    std::size_t entityText_ = 0;
    std::size_t defaultText_ = 0;
};

} // namespace

XmlDocument parseDescriptor(const std::string& path)
{
    const GuardedParse guard(path.c_str());
    return XmlDocument(xmlParseFile(path.c_str()));
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
