#include "payload.hpp"

#include "inspect.hpp"
#include "keys.hpp"
#include "openssl.hpp"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <vector>

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

constexpr std::size_t trailerSize = 76800;
constexpr std::size_t chainAreaSize = 24576;
constexpr std::size_t metadataSize = 512;
constexpr std::size_t slotSignatureSize = 512;
constexpr std::size_t signedPartOfTrailer = chainAreaSize + metadataSize;
constexpr std::size_t remainderSize =
    trailerSize - signedPartOfTrailer - slotSignatureSize;
constexpr int keyBits = 4096;
constexpr std::string_view metadataVersion = "1";
constexpr std::string_view certificateStart = "-----BEGIN CERTIFICATE-----";
/** The checker's table of tokens holds no more. */
constexpr std::size_t mostTokens = 30;

/** Where the fields of a payload of that size begin. */
struct Layout
{
    explicit Layout(std::uint64_t size) :
        chain(size - trailerSize), metadata(chain + chainAreaSize),
        signature(metadata + metadataSize),
        remainder(signature + slotSignatureSize)
    {
    }

    std::uint64_t chain;
    std::uint64_t metadata;
    std::uint64_t signature;
    std::uint64_t remainder;
};

Layout layoutOf(const Source& payload)
{
    if (payload.size() <= trailerSize)
    {
        throw Error(payload.name(), "is not larger than a payload's trailer");
    }
    return Layout(payload.size());
}

struct Metadata
{
    std::string version;
    std::string algorithm;
    std::string timestamp;
};

std::string metadataText(const Metadata& metadata)
{
    return R"({"ver": ")" + metadata.version + R"(", "alg": ")" +
           metadata.algorithm + R"(", "sts": ")" + metadata.timestamp + R"("})";
}

/** The text of a field that NUL bytes fill up. */
std::string_view textUpToNul(Bytes field)
{
    const std::string_view text = textOf(field);
    return text.substr(0, text.find('\0'));
}

/** Reads the block as the checker does: it knows double quotes, not JSON. */
Metadata readMetadata(std::string_view text)
{
    std::vector<std::string_view> tokens;
    while (tokens.size() < mostTokens)
    {
        const std::size_t start = text.find_first_not_of('"');
        if (start == std::string_view::npos)
        {
            break;
        }
        text.remove_prefix(start);
        const std::size_t end = std::min(text.find('"'), text.size());
        tokens.push_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    Metadata metadata;
    for (std::size_t i = 2; i < tokens.size(); ++i)
    {
        const std::string_view name = tokens[i - 2];
        std::string* const value = name == "ver"   ? &metadata.version
                                   : name == "alg" ? &metadata.algorithm
                                   : name == "sts" ? &metadata.timestamp
                                                   : nullptr;
        if (value != nullptr && tokens[i - 1] == ": ")
        {
            *value = tokens[i];
        }
    }
    return metadata;
}

/** Any name but these three stands for SHA-256, as it does to the checker. */
SignatureScheme schemeOf(std::string_view algorithm)
{
    if (algorithm == "PS384")
    {
        return {EVP_sha384(), true};
    }
    return {algorithm == "PS512" ? EVP_sha512() : EVP_sha256(), true};
}

bool isSlotKey(const EVP_PKEY* key)
{
    return key != nullptr && EVP_PKEY_is_a(key, "RSA") == 1 &&
           EVP_PKEY_get_bits(key) == keyBits;
}

void expectRsa(const EVP_PKEY* key, std::string_view file)
{
    if (!isSlotKey(key))
    {
        throw Error(file, "is not an RSA key of 4096 bits");
    }
}

std::size_t countOf(std::string_view text, std::string_view what)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string_view::npos;
         at = text.find(what, at + what.size()))
    {
        ++count;
    }
    return count;
}

struct Chain
{
    Buffer text;
    std::vector<Certificate> certificates;
};

Chain readChain(const fs::path& file)
{
    const Source source(file);
    if (source.size() == 0)
    {
        throw Error(source.name(), "is empty");
    }
    if (source.size() >= chainAreaSize)
    {
        throw Error(source.name(),
                    "is too long: a chain must be shorter than 24576 bytes");
    }
    Chain chain{source.readAll(), {}};
    // A private key beside the certificates would be published with them.
    const std::string_view text = textOf(chain.text);
    const std::size_t count = countOf(text, certificateStart);
    chain.certificates = readCertificates(chain.text);
    if (count == 0 || count != countOf(text, "-----BEGIN ") ||
        count != chain.certificates.size() ||
        text.find('\0') != std::string_view::npos)
    {
        throw Error(source.name(),
                    "must hold certificates in PEM and nothing else");
    }
    return chain;
}

/** The private key, if it is to sign here. In any case the first certificate's
 *  key must be one that can have made the signature. */
Key readSigner(const PayloadOptions& options, const Chain& chain)
{
    const std::string file = keyName(options.signing.key);
    const EVP_PKEY* const certified =
        X509_get0_pubkey(chain.certificates.front().get());
    Key key;
    if (!file.empty())
    {
        key =
            readPrivateKey(options.signing.key, options.signing.passphraseFile);
        expectRsa(key.get(), file);
        if (EVP_PKEY_eq(certified, key.get()) != 1)
        {
            throw Error(options.chain.string(),
                        "its first certificate is not that of the key " + file);
        }
    }
    expectRsa(certified,
              options.chain.string() + ": the first certificate's key");
    return key;
}

std::int32_t timestampOf(const PayloadOptions& options)
{
    if (options.timestamp)
    {
        return *options.timestamp;
    }
    const std::optional<std::int32_t> epoch = sourceDateEpoch();
    const std::int64_t seconds =
        epoch ? std::int64_t{*epoch} : std::int64_t{std::time(nullptr)};
    if (seconds < 1 || seconds > std::numeric_limits<std::int32_t>::max())
    {
        throw Error("timestamp", "is not from 1 to 2147483647");
    }
    return static_cast<std::int32_t>(seconds);
}

/** Whether it is the first, or has issued another one. */
bool belongs(const Certificate& certificate,
             const std::vector<Certificate>& chain)
{
    return certificate == chain.front() ||
           std::ranges::any_of(chain,
                               [&](const Certificate& other)
                               {
                                   return other != certificate &&
                                          X509_check_issued(certificate.get(),
                                                            other.get()) ==
                                              X509_V_OK;
                               });
}

/** Objects to what a machine is likely to refuse. */
void checkChain(const PayloadOptions& options,
                const std::vector<Certificate>& chain, std::int32_t timestamp)
{
    const std::string file = options.chain.string();
    if (!options.trust.anchor.empty())
    {
        verifyChain(chain, options.trust.anchor, timestamp);
    }
    for (const Certificate& certificate : chain)
    {
        checkValidity(file, certificate.get(), timestamp, options.trust);
        if (!belongs(certificate, chain))
        {
            warn(file, "certificate " +
                           nameText(X509_get_subject_name(certificate.get())) +
                           " is not the issuer of another one in the chain");
        }
    }
}

/** The chain area and the metadata block. */
Buffer slotHead(const Chain& chain, const Metadata& metadata)
{
    Buffer head(chain.text);
    head.resize(chainAreaSize);
    append(head, bytesOf(metadataText(metadata)));
    head.resize(signedPartOfTrailer);
    return head;
}

bool verifySlot(const Source& payload, EVP_PKEY* key,
                std::string_view algorithm)
{
    const std::uint64_t signedSize = layoutOf(payload).signature;
    return verifies(payload, signedSize,
                    payload.read(signedSize, slotSignatureSize), key,
                    schemeOf(algorithm));
}

/** What the checker finds in the trailer. */
struct Slot
{
    explicit Slot(const Source& payload) :
        layout(layoutOf(payload)),
        chainArea(payload.read(layout.chain, chainAreaSize)),
        block(payload.read(layout.metadata, metadataSize)),
        chain(readCertificates(bytesOf(chainText()))),
        metadata(readMetadata(textUpToNul(block)))
    {
    }

    std::string_view chainText() const { return textUpToNul(chainArea); }
    EVP_PKEY* key() const
    {
        return chain.empty() ? nullptr : X509_get0_pubkey(chain.front().get());
    }

    /** As the checker reads it: 0 when version or algorithm is missing. */
    std::int32_t timestamp() const
    {
        return metadata.version.empty() || metadata.algorithm.empty()
                   ? 0
                   : static_cast<std::int32_t>(
                         std::strtoll(metadata.timestamp.c_str(), nullptr, 10));
    }

    Layout layout;
    Buffer chainArea;
    Buffer block;
    std::vector<Certificate> chain;
    Metadata metadata;
};

void checkPayload(const Source& made, std::uint64_t bodySize, Bytes head)
{
    const Slot slot(made);
    if (slot.layout.chain != bodySize ||
        !std::ranges::equal(made.read(bodySize, head.size()), head) ||
        !isZero(made.read(slot.layout.remainder, remainderSize)))
    {
        throw Error(made.name(), "does not hold on the disk what was written");
    }
    if (slot.key() == nullptr ||
        !verifySlot(made, slot.key(), slot.metadata.algorithm))
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
    if (source.size() != slotSignatureSize)
    {
        throw Error(source.name(), "is not a signature of 512 bytes");
    }
    return source.readAll();
}

Json describeKey(const X509* certificate)
{
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    if (key == nullptr)
    {
        ERR_clear_error();
        return "unknown";
    }
    const char* const type = EVP_PKEY_get0_type_name(key);
    return {{"type", type == nullptr ? "unknown" : type},
            {"bits", EVP_PKEY_get_bits(key)}};
}

void remarkOnValidity(Remarks& remarks, const X509* certificate,
                      std::string_view when, std::time_t time)
{
    const ASN1_TIME* const start = X509_get0_notBefore(certificate);
    const ASN1_TIME* const end = X509_get0_notAfter(certificate);
    if (X509_cmp_time(start, &time) >= 0 || X509_cmp_time(end, &time) <= 0)
    {
        remarks.push_back("certificate " +
                          nameText(X509_get_subject_name(certificate)) +
                          " is valid from " + timeText(start) + " to " +
                          timeText(end) + ", and so not " + std::string(when));
    }
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
             {"notAfter", timeText(X509_get0_notAfter(certificate))},
             {"key", describeKey(certificate)}});
        remarkOnValidity(remarks, certificate, "now", std::time(nullptr));
        if (slot.timestamp() != 0)
        {
            remarkOnValidity(remarks, certificate, "at the timestamp",
                             slot.timestamp());
        }
    }
    if (slot.chain.empty())
    {
        remarks.emplace_back("the chain has no certificate that can be read");
    }
    return {{"offset", slot.layout.chain},
            {"size", chainAreaSize},
            {"textSize", slot.chainText().size()},
            {"certificates", certificates}};
}

Json describeMetadata(const Slot& slot, Remarks& remarks)
{
    const Metadata& metadata = slot.metadata;
    Json fields{{"offset", slot.layout.metadata},  {"size", metadataSize},
                {"text", textUpToNul(slot.block)}, {"ver", metadata.version},
                {"alg", metadata.algorithm},       {"sts", metadata.timestamp}};
    if (metadata.version.empty())
    {
        remarks.emplace_back("the metadata has no version");
    }
    if (metadata.algorithm != "PS256" && metadata.algorithm != "PS384" &&
        metadata.algorithm != "PS512")
    {
        remarks.emplace_back("the metadata names no known algorithm, so that "
                             "SHA-256 is used");
    }
    if (slot.timestamp() == 0)
    {
        remarks.emplace_back("the metadata has no timestamp, so that the chain "
                             "is checked at the start of 1970");
    }
    else
    {
        fields["stsDate"] = dateText(slot.timestamp());
    }
    return fields;
}

Json describeSignature(const Source& file, const Slot& slot, Remarks& remarks)
{
    const std::string& algorithm = slot.metadata.algorithm;
    const std::uint64_t offset = slot.layout.signature;
    Json fields{{"offset", offset},
                {"size", slotSignatureSize},
                {"algorithm", std::string("RSA-PSS, ") +
                                  EVP_MD_get0_name(schemeOf(algorithm).digest)},
                {"value", hex(file.read(offset, slotSignatureSize))}};
    if (!isSlotKey(slot.key()))
    {
        remarks.emplace_back(
            "the chain's first key is not an RSA key of 4096 bits");
        return fields;
    }
    const bool verifies = verifySlot(file, slot.key(), algorithm);
    fields["verifies"] = verifies;
    if (!verifies)
    {
        remarks.emplace_back(
            "the signature does not fit the chain's first key");
    }
    return fields;
}

} // namespace

void makePayload(const PayloadOptions& options)
{
    const Source body(options.input);
    expectNoPrivateKey(body);
    const Signing& signing = options.signing;
    expectNew(signing.made(),
              {options.input, options.chain, signing.key, signing.signature},
              signing.force);
    if (body.size() == 0)
    {
        throw Error(body.name(), "is empty");
    }
    const Chain chain = readChain(options.chain);
    const Key key = readSigner(options, chain);
    const std::int32_t timestamp = timestampOf(options);
    checkChain(options, chain.certificates, timestamp);
    const Metadata metadata{std::string(metadataVersion), options.algorithm,
                            std::to_string(timestamp)};
    const Buffer head = slotHead(chain, metadata);
    if (!signing.toBeSigned.empty())
    {
        writeFile(signing.toBeSigned, body, head);
        report(signing.toBeSigned,
               "signed range of a payload, timestamp " + metadata.timestamp);
        return;
    }
    const Buffer given = key ? Buffer() : readSignature(signing.signature);
    OutputFile output(signing.output);
    const Buffer signature =
        writeSigned(output, body, head, key.get(), schemeOf(options.algorithm));
    output.write(key ? signature : given);
    output.write(Buffer(remainderSize));
    checkPayload(output.readBack(), body.size(), head);
    output.commit();
    report(signing.output, "payload with " + options.algorithm +
                               " signature and timestamp " +
                               metadata.timestamp + ", signed and checked");
}

PayloadMarks payloadMarks(const Source& file)
{
    if (file.size() <= trailerSize)
    {
        return {};
    }
    const Slot slot(file);
    const Metadata& metadata = slot.metadata;
    return {
        slot.chainText().find(certificateStart) != std::string_view::npos,
        !(metadata.version + metadata.algorithm + metadata.timestamp).empty()};
}

Json describePayload(const Source& file, Remarks& remarks)
{
    const Slot slot(file);
    const std::uint64_t bodySize = slot.layout.chain;
    const std::uint64_t remainder = slot.layout.remainder;
    return {{"body",
             {{"offset", 0},
              {"size", bodySize},
              {"sha256", digestText(file, 0, bodySize, EVP_sha256())}}},
            {"chain", describeChain(slot, remarks)},
            {"metadata", describeMetadata(slot, remarks)},
            {"signature", describeSignature(file, slot, remarks)},
            {"remainder",
             {{"offset", remainder},
              {"size", remainderSize},
              {"zero", isZero(file.read(remainder, remainderSize))}}}};
}

} // namespace pack
