#include "inspect.hpp"

#include "target.hpp"

#include <algorithm>
#include <string_view>

namespace
{

constexpr std::size_t CHAIN_SIZE = 24576;
constexpr std::size_t METADATA_SIZE = 512;
constexpr std::size_t TRAILER_SIZE = 76800;

/** A payload of one byte with its trailer; the input need not hold what is
 *  zero: chain and metadata, a part each, then the signature. */
pack::Buffer payloadOf(fuzz::Bytes input)
{
    pack::Buffer payload(1 + TRAILER_SIZE);
    const auto place =
        [&payload](std::size_t offset, fuzz::Bytes content, std::size_t most)
    {
        const fuzz::Bytes field = content.first(std::min(content.size(), most));
        std::ranges::copy(std::as_bytes(field),
                          payload.begin() +
                              static_cast<std::ptrdiff_t>(offset));
    };
    place(1, fuzz::takePart(input), CHAIN_SIZE);
    place(1 + CHAIN_SIZE, fuzz::takePart(input), METADATA_SIZE);
    place(1 + CHAIN_SIZE + METADATA_SIZE, input,
          TRAILER_SIZE - CHAIN_SIZE - METADATA_SIZE);
    return payload;
}

} // namespace

/** The input: one byte that says what the file is, then the file, which a
 *  payload's trailer is made from. */
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::forbidPrompts();
    if (size == 0)
    {
        return 0;
    }
    const fuzz::Bytes input(data + 1, size - 1);
    const char choice = static_cast<char>(data[0]);
    const bool isPayload = choice == 'y' || choice == 'Y';
    std::string kind = choice == 'y' ? "payload" : "";
    for (const std::string& name : pack::kindNames())
    {
        if (name != "payload" && choice == name.front())
        {
            kind = name;
        }
    }
    const pack::Buffer payload = isPayload ? payloadOf(input) : pack::Buffer();
    try
    {
        const auto fields =
            pack::inspect(pack::Source(isPayload ? pack::Bytes(payload)
                                                 : std::as_bytes(input)),
                          kind);
        fields.dump(2, ' ', true, nlohmann::json::error_handler_t::replace);
        std::string text = pack::renderText(fields);
        std::ranges::replace(text, '\n', ' ');
        fuzz::expect(pack::printable(text) == text);
    }
    catch (const pack::Error&)
    {
        return 0; // Not of its kind.
    }
    return 0;
}
