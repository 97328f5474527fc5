#include "signature_packet.hpp"

#include "inspect.hpp"

#include <gpgme.h>

#include <stdexcept>
#include <string>

using Json = nlohmann::ordered_json;

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
constexpr std::uint32_t ECDSA = 19;
constexpr std::uint32_t EDDSA = 22;
/** A first octet from here on begins a length of five octets. */
constexpr std::uint32_t FIVE_OCTETS = 255;
/** In a packet's header the octets from here to FIVE_OCTETS begin a part. */
constexpr std::uint32_t PARTS = 224;
constexpr std::size_t MOST_SIGNATURES = 16;

/** Takes big-endian fields off the front. Each throws std::out_of_range when
 *  the bytes do not suffice. */
class Reader
{
  public:
    explicit Reader(Bytes bytes) : rest_(bytes) {}

    Bytes rest() const { return rest_; }
    Bytes take(std::size_t size)
    {
        if (size > rest_.size())
        {
            throw std::out_of_range("packet");
        }
        const Bytes front = rest_.first(size);
        rest_ = rest_.subspan(size);
        return front;
    }
    std::uint32_t number(std::size_t width)
    {
        std::uint32_t value = 0;
        for (const std::byte byte : take(width))
        {
            value = value << 8 | std::to_integer<std::uint32_t>(byte);
        }
        return value;
    }
    /** A length of one, two or five octets; two end at @p endOfTwo. */
    std::uint32_t length(std::uint32_t endOfTwo)
    {
        const std::uint32_t first = number(1);
        if (first < 192)
        {
            return first;
        }
        if (first == FIVE_OCTETS)
        {
            return number(4);
        }
        if (first >= endOfTwo)
        {
            throw std::out_of_range("packet");
        }
        return (first - 192) * 256 + number(1) + 192;
    }

  private:
    Bytes rest_;
};

/** The body of the next packet, which has to be a signature. */
Bytes nextSignature(Reader& reader)
{
    const std::uint32_t head = reader.number(1);
    const bool isNew = (head & 0x40) != 0;
    if ((head & 0x80) == 0 ||
        (isNew ? head & 0x3f : head >> 2 & 0xf) != SIGNATURE_TAG)
    {
        throw std::out_of_range("packet");
    }
    if (isNew)
    {
        return reader.take(reader.length(PARTS));
    }
    const std::uint32_t kind = head & 3;
    return reader.take(kind == 3 ? reader.rest().size()
                                 : reader.number(std::size_t{1} << kind));
}

std::string nameOr(const char* name, std::uint32_t number)
{
    return name == nullptr ? "number " + std::to_string(number) : name;
}

/** GPGME has numbers of its own for the curves. */
std::string keyAlgorithm(std::uint32_t number)
{
    return nameOr(gpgme_pubkey_algo_name(number == ECDSA ? GPGME_PK_ECDSA
                                         : number == EDDSA
                                             ? GPGME_PK_EDDSA
                                             : gpgme_pubkey_algo_t(number)),
                  number);
}

/** The signed subpackets come first; a later one does not replace them. */
void describeSubpackets(Json& fields, Reader& reader)
{
    Reader area(reader.take(reader.number(2)));
    while (!area.rest().empty())
    {
        Reader subpacket(area.take(area.length(FIVE_OCTETS)));
        switch (subpacket.number(1) & 0x7f)
        {
            case CREATION_TIME:
                fields.emplace("created", subpacket.number(4));
                break;
            case EXPIRATION_TIME:
                fields.emplace("secondsOfValidity", subpacket.number(4));
                break;
            case ISSUER_KEY_ID:
                fields.emplace("keyId", hex(subpacket.take(8)));
                break;
            case ISSUER_FINGERPRINT:
                // The key's version stands before the fingerprint.
                subpacket.number(1);
                fields.emplace("fingerprint", hex(subpacket.rest()));
                break;
            default:
                break;
        }
    }
}

void describeSignature(Json& fields, Reader reader)
{
    const std::uint32_t version = reader.number(1);
    fields["version"] = version;
    if (version != 4 && version != 5)
    {
        return;
    }
    fields["type"] = reader.number(1);
    fields["algorithm"] = keyAlgorithm(reader.number(1));
    const std::uint32_t digest = reader.number(1);
    fields["digestAlgorithm"] =
        nameOr(gpgme_hash_algo_name(gpgme_hash_algo_t(digest)), digest);
    describeSubpackets(fields, reader);
    describeSubpackets(fields, reader);
}

/** The moments behind the numbers of seconds. */
void addDates(Json& fields)
{
    const std::int64_t created = fields.value("created", std::int64_t{0});
    const std::int64_t validity =
        fields.value("secondsOfValidity", std::int64_t{0});
    if (created != 0)
    {
        fields["createdDate"] = dateText(created);
    }
    if (created != 0 && validity != 0)
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
    Reader reader(file);
    while (!reader.rest().empty() && signatures.size() < MOST_SIGNATURES)
    {
        const std::size_t offset = file.size() - reader.rest().size();
        Json fields{{"offset", offset}};
        try
        {
            const Bytes body = nextSignature(reader);
            fields["size"] = file.size() - reader.rest().size() - offset;
            describeSignature(fields, Reader(body));
        }
        catch (const std::out_of_range&)
        {
            remarks.push_back("at offset " + std::to_string(offset) +
                              " there is no complete OpenPGP signature");
            break;
        }
        addDates(fields);
        signatures.push_back(std::move(fields));
    }
    return signatures;
}

} // namespace pack
