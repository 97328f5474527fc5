#include "signature_packet.hpp"

#include <algorithm>
#include <optional>
#include <string>

using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

// Numbers of RFC 4880, and of RFC 6637 and its successors for the curves.
constexpr unsigned signatureTag = 2;
constexpr unsigned creationTime = 2;
constexpr unsigned expirationTime = 3;
constexpr unsigned issuerKeyId = 16;
constexpr unsigned issuerFingerprint = 33;
constexpr std::size_t mostSignatures = 16;

/** Takes big-endian fields off the front; empty when they do not suffice. */
class Reader
{
  public:
    explicit Reader(Bytes bytes) : rest(bytes) {}

    bool atEnd() const { return rest.empty(); }
    std::size_t remaining() const { return rest.size(); }
    Bytes remainder() const { return rest; }
    std::optional<std::uint32_t> number(std::size_t width)
    {
        const auto bytes = take(width);
        if (!bytes)
        {
            return std::nullopt;
        }
        std::uint32_t value = 0;
        for (const std::byte byte : *bytes)
        {
            value = value << 8 | std::to_integer<std::uint32_t>(byte);
        }
        return value;
    }
    std::optional<Bytes> take(std::optional<std::uint32_t> size)
    {
        if (!size || *size > rest.size())
        {
            return std::nullopt;
        }
        const Bytes front = rest.first(*size);
        rest = rest.subspan(*size);
        return front;
    }
    /** A length of one, two or five octets. */
    std::optional<std::uint32_t> length(std::uint32_t firstOfFive)
    {
        const auto first = number(1);
        if (!first || *first < 192)
        {
            return first;
        }
        if (*first >= firstOfFive)
        {
            return *first == 255 ? number(4) : std::nullopt;
        }
        const auto second = number(1);
        return second ? std::optional((*first - 192) * 256 + *second + 192)
                      : std::nullopt;
    }

  private:
    Bytes rest;
};

struct Packet
{
    unsigned tag;
    Bytes body;
};

std::optional<Packet> nextPacket(Reader& reader)
{
    const auto head = reader.number(1);
    if (!head || (*head & 0x80) == 0)
    {
        return std::nullopt;
    }
    std::optional<std::uint32_t> size;
    unsigned tag = *head & 0x3f;
    if ((*head & 0x40) != 0)
    {
        size = reader.length(224);
    }
    else
    {
        const unsigned kind = *head & 3;
        tag >>= 2;
        size = kind == 3 ? static_cast<std::uint32_t>(reader.remaining())
                         : reader.number(std::size_t{1} << kind);
    }
    const auto body = reader.take(size);
    return body ? std::optional(Packet{tag, *body}) : std::nullopt;
}

std::string publicKeyAlgorithm(std::uint32_t number)
{
    switch (number)
    {
        case 1:
        case 3:
            return "RSA";
        case 17:
            return "DSA";
        case 19:
            return "ECDSA";
        case 22:
            return "EdDSA";
        default:
            return "algorithm " + std::to_string(number);
    }
}

std::string digestAlgorithm(std::uint32_t number)
{
    switch (number)
    {
        case 2:
            return "SHA1";
        case 8:
            return "SHA256";
        case 9:
            return "SHA384";
        case 10:
            return "SHA512";
        case 11:
            return "SHA224";
        default:
            return "digest " + std::to_string(number);
    }
}

/** The signed subpackets come first; a later one does not replace them. */
void describeSubpacket(Json& fields, Reader subpacket)
{
    const auto type = subpacket.number(1);
    switch (type.value_or(0) & 0x7f)
    {
        case creationTime:
            fields.emplace("created", subpacket.number(4).value_or(0));
            break;
        case expirationTime:
            fields.emplace("secondsOfValidity",
                           subpacket.number(4).value_or(0));
            break;
        case issuerKeyId:
            fields.emplace("keyId", hex(subpacket.take(8).value_or(Bytes{})));
            break;
        case issuerFingerprint:
            // One octet, the key's version, stands before the fingerprint.
            subpacket.number(1);
            fields.emplace("fingerprint", hex(subpacket.remainder()));
            break;
        default:
            break;
    }
}

void describeSubpackets(Json& fields, Reader& reader)
{
    const auto area = reader.take(reader.number(2));
    Reader subpackets(area.value_or(Bytes{}));
    while (!subpackets.atEnd())
    {
        const auto subpacket = subpackets.take(subpackets.length(255));
        if (!subpacket)
        {
            return;
        }
        describeSubpacket(fields, Reader(*subpacket));
    }
}

Json describeSignature(Bytes body)
{
    Json fields;
    Reader reader(body);
    const std::uint32_t version = reader.number(1).value_or(0);
    fields["version"] = version;
    if (version != 4 && version != 5)
    {
        return fields;
    }
    const auto type = reader.number(1);
    const auto key = reader.number(1);
    const auto digest = reader.number(1);
    if (!digest)
    {
        return fields;
    }
    fields["type"] = *type;
    fields["algorithm"] = publicKeyAlgorithm(*key);
    fields["digestAlgorithm"] = digestAlgorithm(*digest);
    describeSubpackets(fields, reader);
    describeSubpackets(fields, reader);
    return fields;
}

} // namespace

Json describeSignatures(Bytes file)
{
    Json signatures = Json::array();
    Reader reader(file);
    while (!reader.atEnd() && signatures.size() < mostSignatures)
    {
        const std::size_t offset = file.size() - reader.remaining();
        const auto packet = nextPacket(reader);
        if (!packet)
        {
            break;
        }
        Json fields{{"offset", offset},
                    {"size", file.size() - reader.remaining() - offset}};
        if (packet->tag == signatureTag)
        {
            fields.update(describeSignature(packet->body));
        }
        signatures.push_back(std::move(fields));
    }
    return signatures;
}

} // namespace pack
