#include "bus.hpp"
#include "target.hpp"
#include "velmora.hpp"

#include <array>
#include <stdexcept>

namespace
{

struct Query
{
    const char* expression;
    const char* attribute;
};

/** The library's own, and others with results of each kind. */
constexpr std::array QUERIES{
    Query{"//Device", "componentID"},
    Query{"//SoftwareComponent", "vendorVersion"},
    Query{"//SoftwareComponent[@hashAlgorithm=\"SHA256\"]", "hash"},
    Query{"//node()|//@*|//namespace::*", "systemID"},
    Query{"/", "hash"},
    Query{"string(//Model)", "systemID"},
    Query{"//Model[", "systemID"},
};

} // namespace

/** The input: a descriptor. */
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::Scratch scratch;
    static fuzz::InputFile descriptor(scratch, "package.xml");

    descriptor.set({data, size});
    for (const Query& query : QUERIES)
    {
        ValidateQOR::getStrFromPkgXML(descriptor.path(), query.expression,
                                      query.attribute);
    }
    fuzz::answerCalls(
        [](sd_bus_message* reply)
        { sd_bus_message_append(reply, "v", "ay", 2, 0x1b, 0x0a); });
    try
    {
        ValidateQOR::validateSytemIdFromPkgXML(descriptor.path());
    }
    catch (const std::invalid_argument&)
    {
        return 0; // Documented, for an identifier that is no number.
    }
    catch (const std::out_of_range&)
    {
        return 0; // The same, for one that is too large.
    }
    return 0;
}
