#include "inspect.hpp"
#include "keys.hpp"
#include "making.hpp"
#include "openssl.hpp"

#include <openssl/err.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <map>
#include <sstream>
#include <vector>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::size_t TRAILER_SIZE = 76800;
// The fields of the trailer.
constexpr std::size_t CHAIN_SIZE = 24576;
constexpr std::size_t METADATA_OFFSET = CHAIN_SIZE;
constexpr std::size_t METADATA_SIZE = 512;
constexpr std::size_t SIGNATURE_OFFSET = METADATA_OFFSET + METADATA_SIZE;
constexpr std::size_t SIGNATURE_SIZE = 512;

constexpr int KEY_BITS = 4096;
constexpr auto METADATA_VERSION = "1";
constexpr std::string_view CERTIFICATE_START = "-----BEGIN CERTIFICATE-----";
/** The checker's table of tokens holds no more. */
constexpr std::size_t MOST_TOKENS = 30;
constexpr std::int64_t SECONDS_PER_DAY = 86400;

struct Metadata
{
    std::string version;
    std::string algorithm;
    std::string timestamp;
};

/** The text of a field that NUL bytes fill up. */
std::string_view textUpToNul(Bytes field)
{
    const std::string_view text = textOf(field);
    return text.substr(0, text.find('\0'));
}

/** Reads the block as the checker does: it knows double quotes, not JSON. */
Metadata readMetadata(const std::string& text)
{
    std::vector<std::string> tokens;
    std::istringstream stream(text);
    for (std::string token;
         tokens.size() < MOST_TOKENS && std::getline(stream, token, '"');)
    {
        if (!token.empty())
        {
            tokens.push_back(token);
        }
    }
    std::map<std::string, std::string> values;
    for (std::size_t i = 2; i < tokens.size(); ++i)
    {
        if (tokens[i - 1] == ": ")
        {
            values[tokens[i - 2]] = tokens[i];
        }
    }
    return {values["ver"], values["alg"], values["sts"]};
}

bool isKnownAlgorithm(std::string_view name)
{
    return name == "PS256" || name == "PS384" || name == "PS512";
}

/** Any other name stands for SHA-256, as it does to the checker. */
SignatureScheme schemeOf(std::string_view algorithm)
{
    return {.digest = algorithm == "PS384"   ? EVP_sha384()
                      : algorithm == "PS512" ? EVP_sha512()
                                             : EVP_sha256(),
            .pss = true};
}

bool isSlotKey(const EVP_PKEY* key)
{
    return key != nullptr && EVP_PKEY_is_a(key, "RSA") == 1 &&
           EVP_PKEY_get_bits(key) == KEY_BITS;
}

struct Chain
{
    /** The certificates and nothing else: a private key beside them would be
     *  published with them. */
    std::string text;
    std::vector<Certificate> certificates;
};

Chain chainOf(Bytes pem, const std::string& name)
{
    Chain chain{{}, readCertificates(pem, name)};
    if (chain.certificates.empty())
    {
        throw Error(name, "holds no certificate in PEM");
    }
    chain.text = pemText(chain.certificates);
    if (chain.text.size() >= CHAIN_SIZE)
    {
        throw Error(name,
                    "is too long: a chain must be shorter than 24576 bytes");
    }
    return chain;
}

/** The private key, if it is to sign here. In any case the first certificate's
 *  key must be one that can have made the signature. */
Key readSigner(const PayloadOptions& options, const Chain& chain)
{
    const EVP_PKEY* const certified =
        X509_get0_pubkey(chain.certificates.front().get());
    if (!isSlotKey(certified))
    {
        throw Error(options.chain.string(), "its first certificate's key is "
                                            "not an RSA key of 4096 bits");
    }
    if (options.signing.keys.empty())
    {
        return nullptr;
    }
    const std::string& name = options.signing.keys.front();
    Key key = readPrivateKey(name, options.signing.passphraseFile);
    if (EVP_PKEY_eq(certified, key.get()) != 1)
    {
        throw Error(options.chain.string(),
                    "its first certificate is not that of the key " +
                        keyName(name));
    }
    return key;
}

std::int32_t timestampOf(const PayloadOptions& options)
{
    if (options.timestamp)
    {
        return *options.timestamp;
    }
    const std::optional<std::int32_t> epoch = sourceDateEpoch();
    const std::int64_t seconds = epoch ? *epoch : std::time(nullptr);
    if (seconds < 1 || seconds > std::numeric_limits<std::int32_t>::max())
    {
        throw Error("timestamp", "is not from 1 to 2147483647");
    }
    return static_cast<std::int32_t>(seconds);
}

/** The start of a message about a certificate that is not valid at a time;
 *  empty for one that is. The caller adds the time.
 *
 *  @param seconds since 1970 */
std::string invalidityAt(std::int64_t seconds, const X509* certificate)
{
    const ASN1_TIME* const start = X509_get0_notBefore(certificate);
    const ASN1_TIME* const end = X509_get0_notAfter(certificate);
    const Time time = timeOf(seconds);
    if (ASN1_TIME_compare(start, time.get()) <= 0 &&
        ASN1_TIME_compare(end, time.get()) >= 0)
    {
        return {};
    }
    return certificateText(certificate) + " is valid from " + timeText(start) +
           " to " + timeText(end) + ", so not ";
}

/** Objects to what a machine is likely to refuse, now or soon. */
void checkChain(const PayloadOptions& options,
                const std::vector<Certificate>& chain, std::int32_t timestamp)
{
    const Trust& trust = options.trust;
    const std::int64_t soon =
        std::int64_t{std::time(nullptr)} + trust.days * SECONDS_PER_DAY;
    const auto check = [&](const fs::path& file, const X509* certificate,
                           std::int64_t seconds, const std::string& when)
    {
        const std::string invalidity = invalidityAt(seconds, certificate);
        if (!invalidity.empty())
        {
            trust.refuseOrWarn(file.string(), invalidity + when);
        }
    };
    const std::string then = "at the timestamp " + std::to_string(timestamp);
    const std::string later = "in " + std::to_string(trust.days) + " days";
    if (!trust.anchor.empty())
    {
        verifyChain(chain, trust.anchor, timestamp);
        const auto roots = readCertificates(Source(trust.anchor).readAll());
        check(trust.anchor, roots.front().get(), soon, later);
    }
    for (const Certificate& certificate : chain)
    {
        check(options.chain, certificate.get(), timestamp, then);
        check(options.chain, certificate.get(), soon, later);
    }
}

/** The chain's area and the metadata block. */
Buffer signedFields(const Chain& chain, const std::string& algorithm,
                    std::int32_t timestamp)
{
    Buffer fields;
    append(fields, bytesOf(chain.text));
    fields.resize(METADATA_OFFSET);
    append(fields, bytesOf(std::string(R"({"ver": ")") + METADATA_VERSION +
                           R"(", "alg": ")" + algorithm + R"(", "sts": ")" +
                           std::to_string(timestamp) + R"("})"));
    fields.resize(SIGNATURE_OFFSET);
    return fields;
}

/** What the checker finds in the trailer. */
struct Slot
{
    explicit Slot(const Source& payload)
    {
        if (payload.size() <= TRAILER_SIZE)
        {
            throw Error(payload.name(),
                        "is not larger than a payload's trailer");
        }
        bodySize = payload.size() - TRAILER_SIZE;
        trailer = payload.read(bodySize, TRAILER_SIZE);
        chainText = textUpToNul(field(0, CHAIN_SIZE));
        chain = readCertificates(bytesOf(chainText));
        metadataText = textUpToNul(field(METADATA_OFFSET, METADATA_SIZE));
        metadata = readMetadata(metadataText);
    }

    Bytes field(std::size_t offset, std::size_t size) const
    {
        return Bytes(trailer).subspan(offset, size);
    }

    Bytes signature() const { return field(SIGNATURE_OFFSET, SIGNATURE_SIZE); }

    EVP_PKEY* key() const
    {
        return chain.empty() ? nullptr : X509_get0_pubkey(chain.front().get());
    }

    bool verifies(const Source& payload) const
    {
        return pack::verifies(payload, bodySize + SIGNATURE_OFFSET, signature(),
                              key(), schemeOf(metadata.algorithm));
    }

    /** As the checker reads it: 0 when version or algorithm is missing. */
    std::int32_t timestamp() const
    {
        return metadata.version.empty() || metadata.algorithm.empty()
                   ? 0
                   : static_cast<std::int32_t>(
                         std::strtoll(metadata.timestamp.c_str(), nullptr, 10));
    }

    std::uint64_t bodySize = 0;
    Buffer trailer;
    std::string chainText;
    std::vector<Certificate> chain;
    std::string metadataText;
    Metadata metadata;
};

void checkPayload(const Source& made)
{
    const Slot slot(made);
    if (slot.key() == nullptr || !slot.verifies(made))
    {
        throw Error(made.name(),
                    "the signature does not fit the body, the chain, the "
                    "algorithm and the timestamp " +
                        slot.metadata.timestamp + "; nothing was made");
    }
}

/** Shortens a signed payload to its body, and names its signer.
 *
 *  @param options get the algorithm that was used, if they have none
 *  @return the chain's text
 *  @throws Error when the signature does not fit */
std::string takeOldTrailer(Source& payload, PayloadOptions& options)
{
    checkPayload(payload);
    const Slot old(payload);
    if (options.algorithm.empty())
    {
        options.algorithm = old.metadata.algorithm;
        if (!isKnownAlgorithm(options.algorithm))
        {
            throw Error(payload.name(), "names no known algorithm: give --alg");
        }
    }
    report(options.signing.made(),
           "the payload was signed before by " +
               certificateText(old.chain.front().get()) + ", timestamp " +
               old.metadata.timestamp);
    payload.shorten(old.bodySize);
    return old.chainText;
}

Buffer readSignature(const fs::path& file)
{
    const Source source(file);
    if (source.size() != SIGNATURE_SIZE)
    {
        throw Error(source.name(), "is not a signature of 512 bytes");
    }
    return source.readAll();
}

Json describeChain(const Slot& slot, Remarks& remarks)
{
    Json certificates = Json::array();
    for (const Certificate& owner : slot.chain)
    {
        const X509* const certificate = owner.get();
        certificates.push_back(
            {{"subject", nameText(X509_get_subject_name(certificate))},
             {"issuer", nameText(X509_get_issuer_name(certificate))},
             {"notBefore", timeText(X509_get0_notBefore(certificate))},
             {"notAfter", timeText(X509_get0_notAfter(certificate))}});
        const std::string then = invalidityAt(slot.timestamp(), certificate);
        if (!then.empty() && slot.timestamp() != 0)
        {
            remarks.push_back(then + "at the timestamp");
        }
    }
    if (slot.chain.empty())
    {
        remarks.emplace_back("the chain has no certificate that can be read");
    }
    return certificates;
}

Json describeMetadata(const Slot& slot, Remarks& remarks)
{
    const Metadata& metadata = slot.metadata;
    Json fields{{"ver", metadata.version},
                {"alg", metadata.algorithm},
                {"sts", metadata.timestamp}};
    if (metadata.version.empty())
    {
        remarks.emplace_back("the metadata has no version");
    }
    if (!isKnownAlgorithm(metadata.algorithm))
    {
        remarks.emplace_back("the metadata names no known algorithm, so "
                             "SHA-256 is used");
    }
    if (slot.timestamp() == 0)
    {
        remarks.push_back(std::string("the metadata has no timestamp") +
                          (metadata.timestamp.empty() ? "" : " that counts") +
                          ", so the chain is checked at the start of 1970");
    }
    else
    {
        fields["stsDate"] = dateText(slot.timestamp());
    }
    return fields;
}

/** Whether it fits the chain's first key. */
bool verifiesSlot(const Source& file, const Slot& slot, Remarks& remarks)
{
    if (!isSlotKey(slot.key()))
    {
        ERR_clear_error();
        remarks.emplace_back(
            "the chain's first key is not an RSA key of 4096 bits");
        return false;
    }
    const bool verifies = slot.verifies(file);
    if (!verifies)
    {
        remarks.emplace_back(
            "the signature does not fit the chain's first key");
    }
    return verifies;
}

} // namespace

void makePayload(const PayloadOptions& given)
{
    PayloadOptions options(given);
    Source body(options.input);
    expectNoPrivateKey(body);
    const Signing& signing = options.signing;
    signing.expectNewOutput(
        {options.input, options.chain, options.trust.anchor});
    std::string oldChain;
    if (options.isSigned)
    {
        oldChain = takeOldTrailer(body, options);
    }
    if (body.size() == 0)
    {
        throw Error(body.name(), "is empty");
    }
    const Chain chain =
        options.chain.empty()
            ? chainOf(bytesOf(oldChain), body.name())
            : chainOf(Source(options.chain).readAll(), options.chain);
    options.chain = options.chain.empty() ? options.input : options.chain;
    const Key key = readSigner(options, chain);
    const std::int32_t timestamp = timestampOf(options);
    checkChain(options, chain.certificates, timestamp);
    const Buffer fields = signedFields(chain, options.algorithm, timestamp);
    if (!signing.toBeSigned.empty())
    {
        writeFile(signing.toBeSigned, signing.force, body, fields);
        report(signing.toBeSigned, "signed range of a payload, timestamp " +
                                       std::to_string(timestamp));
        return;
    }
    Buffer trailer(fields);
    append(trailer,
           key ? sign(body, fields, key.get(), schemeOf(options.algorithm))
               : readSignature(signing.signature));
    trailer.resize(TRAILER_SIZE);
    writeFile(signing.output, signing.force, body, trailer, checkPayload);
    report(signing.output,
           "payload with " + options.algorithm + " signature and timestamp " +
               std::to_string(timestamp) + ", signed and checked");
}

bool isPayload(const Source& file, bool withMetadata)
{
    if (file.size() <= TRAILER_SIZE)
    {
        return false;
    }
    const Slot slot(file);
    const Metadata& metadata = slot.metadata;
    const std::string values =
        metadata.version + metadata.algorithm + metadata.timestamp;
    return slot.chainText.find(CERTIFICATE_START) != std::string_view::npos &&
           !(withMetadata && values.empty());
}

Json describePayload(const Source& file, Remarks& remarks)
{
    const Slot slot(file);
    return {{"body",
             {{"size", slot.bodySize},
              {"sha256", digestText(file, slot.bodySize, EVP_sha256())}}},
            {"chain", describeChain(slot, remarks)},
            {"metadata", describeMetadata(slot, remarks)},
            {"signature",
             {{"value", hex(slot.signature())},
              {"verifies", verifiesSlot(file, slot, remarks)}}}};
}

} // namespace pack
