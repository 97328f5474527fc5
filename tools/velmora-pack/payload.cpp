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
    /** For messages. */
    std::string name;
    std::vector<Certificate> certificates;
    /** The certificates and nothing else: a private key beside them would be
     *  published with them. */
    std::string text;

    const X509* signer() const { return certificates.front().get(); }
};

Chain chainOf(Bytes pem, const std::string& name)
{
    Chain chain{name, readCertificates(pem, name), {}};
    if (chain.certificates.empty())
    {
        throw Error(name, "holds no certificate in PEM");
    }
    if (textOf(pem).find("BEGIN TRUSTED CERTIFICATE") != std::string::npos)
    {
        throw Error(name, "holds a trusted certificate, which a machine does "
                          "not read: openssl x509 makes a plain one");
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
Key readSigner(const Options& options, const Chain& chain)
{
    const EVP_PKEY* const certified = X509_get0_pubkey(chain.signer());
    if (!isSlotKey(certified))
    {
        throw Error(chain.name, "its first certificate's key is not an RSA key "
                                "of 4096 bits");
    }
    if (options.keys.empty())
    {
        return nullptr;
    }
    const std::string& name = options.keys.front();
    Key key = readPrivateKey(name, options.passphraseFile);
    if (EVP_PKEY_eq(certified, key.get()) != 1)
    {
        throw Error(chain.name,
                    "its first certificate is not that of the key " +
                        keyName(name));
    }
    return key;
}

std::int32_t timestampOf(const Options& options)
{
    if (options.timestamp)
    {
        return *options.timestamp;
    }
    const std::optional<std::int32_t> epoch = sourceDateEpoch();
    const std::int64_t seconds = epoch ? *epoch : std::time(nullptr);
    if (seconds < 1 || seconds > std::numeric_limits<std::int32_t>::max())
    {
        throw Error(epoch ? "SOURCE_DATE_EPOCH" : "the clock",
                    "is not from 1 to 2147483647, as a timestamp is");
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
void checkChain(const Trust& trust, const Chain& chain, std::int32_t timestamp)
{
    const std::int64_t soon =
        std::int64_t{std::time(nullptr)} + trust.days * SECONDS_PER_DAY;
    const auto check = [&](const std::string& file, const X509* certificate,
                           std::int64_t seconds, const std::string& when)
    {
        const std::string invalidity = invalidityAt(seconds, certificate);
        if (!invalidity.empty())
        {
            trust.refuseOrWarn(file, invalidity + when);
        }
    };
    const std::string then = "at the timestamp " + std::to_string(timestamp);
    const std::string later = "in " + std::to_string(trust.days) + " days";
    if (!trust.anchor.empty())
    {
        const Certificate root =
            verifyChain(chain.certificates, trust.anchor, timestamp);
        check(trust.anchor.string(), root.get(), soon, later);
    }
    for (const Certificate& certificate : chain.certificates)
    {
        check(chain.name, certificate.get(), timestamp, then);
        check(chain.name, certificate.get(), soon, later);
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
        metadata = readMetadata(
            std::string(textUpToNul(field(METADATA_OFFSET, METADATA_SIZE))));
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
    Metadata metadata;
};

void checkPayload(const Source& made)
{
    const Slot slot(made);
    if (!isSlotKey(slot.key()) || !slot.verifies(made))
    {
        throw Error(made.name(),
                    "the signature does not fit the body, the chain, the "
                    "algorithm and the timestamp " +
                        slot.metadata.timestamp + "; nothing was made");
    }
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

void makePayload(const Options& options)
{
    Source body(options.input);
    expectNoPrivateKey(body);
    options.checkOutput();
    std::string algorithm = options.algorithm;
    Buffer pem;
    if (options.isSigned)
    {
        checkPayload(body);
        const Slot old(body);
        report(options.made(), "the payload was signed before by " +
                                   certificateText(old.chain.front().get()) +
                                   ", timestamp " + old.metadata.timestamp);
        algorithm = algorithm.empty() ? old.metadata.algorithm : algorithm;
        append(pem, bytesOf(old.chainText));
        body.shorten(old.bodySize);
    }
    if (!isKnownAlgorithm(algorithm))
    {
        throw Error(body.name(), "names no known algorithm: give --alg");
    }
    if (body.size() == 0)
    {
        throw Error(body.name(), "is empty");
    }
    const Chain chain =
        options.chain.empty()
            ? chainOf(pem, body.name())
            : chainOf(Source(options.chain).readAll(), options.chain);
    const Key key = readSigner(options, chain);
    const std::int32_t timestamp = timestampOf(options);
    checkChain(options.trust, chain, timestamp);
    const Buffer fields = signedFields(chain, algorithm, timestamp);
    if (!options.toBeSigned.empty())
    {
        writeFile(options.toBeSigned, options.force, body, fields);
        report(options.toBeSigned, "signed range of a payload, timestamp " +
                                       std::to_string(timestamp));
        return;
    }
    Buffer trailer(fields);
    append(trailer, key ? sign(body, fields, key.get(), schemeOf(algorithm))
                        : readSignature(options.signature));
    trailer.resize(TRAILER_SIZE);
    writeFile(options.output, options.force, body, trailer, checkPayload);
    report(options.output,
           "payload with " + algorithm + " signature and timestamp " +
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
