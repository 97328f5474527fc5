#include "inspect.hpp"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <utility>

namespace pack
{
namespace
{

// Numbers of RFC 4880, and of RFC 6637 and its successors for the curves.
constexpr std::uint32_t SIGNATURE_TAG = 2;
constexpr std::uint32_t CREATION_TIME = 2;
constexpr std::uint32_t EXPIRATION_TIME = 3;
constexpr std::uint32_t ISSUER_KEY_ID = 16;
constexpr std::uint32_t ISSUER_FINGERPRINT = 33;
constexpr std::array KEY_ALGORITHMS{std::pair{1U, "RSA"}, std::pair{17U, "DSA"},
                                    std::pair{19U, "ECDSA"},
                                    std::pair{22U, "EdDSA"}};
constexpr std::array DIGEST_ALGORITHMS{
    std::pair{2U, "SHA1"}, std::pair{8U, "SHA256"}, std::pair{9U, "SHA384"},
    std::pair{10U, "SHA512"}, std::pair{11U, "SHA224"}};
constexpr std::size_t MOST_SIGNATURES = 16;
/** No detached signature of a descriptor comes near it, in bytes. */
constexpr std::uint64_t LARGEST_SIGNATURE = 64U << 10;

/** Takes bytes off the front; throws std::out_of_range when they do not
 *  suffice, as all below do. */
Bytes take(Bytes& bytes, std::size_t size)
{
    if (size > bytes.size())
    {
        throw std::out_of_range("packet");
    }
    const Bytes front = bytes.first(size);
    bytes = bytes.subspan(size);
    return front;
}

/** A big-endian number. */
std::uint32_t takeNumber(Bytes& bytes, std::size_t width)
{
    std::uint32_t value = 0;
    for (const std::byte byte : take(bytes, width))
    {
        value = value << 8 | std::to_integer<std::uint32_t>(byte);
    }
    return value;
}

/** A part that its length precedes, in one, two or five octets. A first octet
 *  from @p twoEnd to 254 has another meaning, which no signature needs. */
Bytes takePart(Bytes& bytes, std::uint32_t twoEnd)
{
    std::uint32_t length = takeNumber(bytes, 1);
    if (length == 255)
    {
        length = takeNumber(bytes, 4);
    }
    else if (length >= twoEnd)
    {
        throw std::out_of_range("packet");
    }
    else if (length >= 192)
    {
        length = (length - 192) * 256 + takeNumber(bytes, 1) + 192;
    }
    return take(bytes, length);
}

/** The body of the next packet, which has to be a signature. */
Bytes takeSignature(Bytes& bytes)
{
    const std::uint32_t head = takeNumber(bytes, 1);
    if (head == (0xc0 | SIGNATURE_TAG))
    {
        return takePart(bytes, 224);
    }
    if ((head & 0xfc) != (0x80 | SIGNATURE_TAG << 2))
    {
        throw std::out_of_range("packet");
    }
    const std::uint32_t kind = head & 3;
    return take(bytes, kind == 3 ? bytes.size()
                                 : takeNumber(bytes, std::size_t{1} << kind));
}

template <typename Names>
std::string nameOf(std::uint32_t number, const Names& names)
{
    const auto* const found =
        std::ranges::find(names, number, &Names::value_type::first);
    return found == names.end() ? "number " + std::to_string(number)
                                : found->second;
}

/** The signed subpackets come first; a later one does not replace them. */
void describeSubpackets(Json& fields, Bytes area)
{
    while (!area.empty())
    {
        Bytes subpacket = takePart(area, 255);
        switch (takeNumber(subpacket, 1) & 0x7f)
        {
            case CREATION_TIME:
                fields.emplace("created", takeNumber(subpacket, 4));
                break;
            case EXPIRATION_TIME:
                fields.emplace("secondsOfValidity", takeNumber(subpacket, 4));
                break;
            case ISSUER_KEY_ID:
                fields.emplace("keyId", hex(take(subpacket, 8)));
                break;
            case ISSUER_FINGERPRINT:
                // The key's version stands before the fingerprint.
                take(subpacket, 1);
                fields.emplace("fingerprint", hex(subpacket));
                break;
            default:
                break;
        }
    }
}

void describeBody(Json& fields, Bytes body)
{
    const std::uint32_t version = takeNumber(body, 1);
    fields["version"] = version;
    if (version != 4 && version != 5)
    {
        return;
    }
    fields["type"] = takeNumber(body, 1);
    fields["algorithm"] = nameOf(takeNumber(body, 1), KEY_ALGORITHMS);
    fields["digestAlgorithm"] = nameOf(takeNumber(body, 1), DIGEST_ALGORITHMS);
    describeSubpackets(fields, take(body, takeNumber(body, 2)));
    describeSubpackets(fields, take(body, takeNumber(body, 2)));
    const std::int64_t created = fields.value("created", std::int64_t{0});
    const std::int64_t validity =
        fields.value("secondsOfValidity", std::int64_t{0});
    fields["createdDate"] = dateText(created);
    if (validity != 0)
    {
        fields["expiresDate"] = dateText(created + validity);
    }
}

} // namespace

Json describeSignatures(Bytes file, Remarks& remarks)
{
    Json signatures = Json::array();
    if (file.empty())
    {
        remarks.emplace_back("the signature is empty");
    }
    Bytes rest = file;
    while (!rest.empty() && signatures.size() < MOST_SIGNATURES)
    {
        const std::size_t offset = file.size() - rest.size();
        try
        {
            const Bytes body = takeSignature(rest);
            Json fields{{"offset", offset},
                        {"size", file.size() - rest.size() - offset}};
            describeBody(fields, body);
            signatures.push_back(std::move(fields));
        }
        catch (const std::out_of_range&)
        {
            remarks.push_back("at offset " + std::to_string(offset) +
                              " there is no complete OpenPGP signature");
            break;
        }
    }
    return signatures;
}

Json describeSignature(const Source& file, Remarks& remarks)
{
    const Json signatures = describeSignatures(file.readAll(), remarks);
    if (signatures.empty())
    {
        throw Error(file.name(), "is not a binary OpenPGP signature (gpg "
                                 "--dearmor makes one of an armoured one)");
    }
    return {{"signatures", signatures}};
}

bool isSignature(const Source& file)
{
    Remarks remarks;
    return file.size() <= LARGEST_SIGNATURE &&
           !describeSignatures(file.readAll(), remarks).empty() &&
           remarks.empty();
}

} // namespace pack
