#include "image.hpp"

#include "keys.hpp"
#include "openssl.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/err.h>

#include <array>
#include <limits>
#include <memory>
#include <optional>

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

constexpr std::string_view curve = "secp384r1";
/** Each of r and s, unsigned big-endian. */
constexpr std::size_t numberSize = 48;
constexpr std::size_t signatureSize = 2 * numberSize;
/** The checker counts an image's bytes in 32 bits. */
constexpr std::uint64_t largestImage =
    std::numeric_limits<std::uint32_t>::max();

using BigNumber = Handle<BIGNUM, BN_free>;
using EcdsaSignature = Handle<ECDSA_SIG, ECDSA_SIG_free>;

SignatureScheme scheme() { return {EVP_sha512(), false}; }

void expectCurve(const EVP_PKEY* key, const std::string& file)
{
    std::array<char, 64> name{};
    std::size_t size = 0;
    if (EVP_PKEY_is_a(key, "EC") != 1 ||
        EVP_PKEY_get_group_name(key, name.data(), name.size(), &size) != 1 ||
        std::string_view(name.data(), size) != curve)
    {
        ERR_clear_error();
        throw Error(file, "is not an EC key on the curve P-384");
    }
}

Buffer rawFromDer(Bytes der, std::string_view name)
{
    const unsigned char* position = unsignedData(der);
    const EcdsaSignature signature(
        d2i_ECDSA_SIG(nullptr, &position, static_cast<long>(der.size())));
    Buffer raw(signatureSize);
    unsigned char* const r = unsignedData(std::span(raw));
    if (!signature || position != unsignedData(der) + der.size() ||
        BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), r, numberSize) < 0 ||
        BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), r + numberSize,
                     numberSize) < 0)
    {
        throw opensslError(name, "is not an ECDSA signature in DER, nor one "
                                 "of 96 bytes");
    }
    return raw;
}

BigNumber numberFrom(Bytes bytes)
{
    return BigNumber(BN_bin2bn(unsignedData(bytes),
                               static_cast<int>(bytes.size()), nullptr));
}

Buffer derFromRaw(Bytes raw)
{
    const EcdsaSignature signature(ECDSA_SIG_new());
    BigNumber r = numberFrom(raw.first(numberSize));
    BigNumber s = numberFrom(raw.last(numberSize));
    require(signature && r && s &&
                ECDSA_SIG_set0(signature.get(), r.get(), s.get()) == 1,
            "the signature cannot be encoded");
    // The signature owns its numbers now.
    static_cast<void>(r.release());
    static_cast<void>(s.release());
    const int size = i2d_ECDSA_SIG(signature.get(), nullptr);
    require(size > 0, "the signature cannot be encoded");
    Buffer der(static_cast<std::size_t>(size));
    unsigned char* position = unsignedData(std::span(der));
    i2d_ECDSA_SIG(signature.get(), &position);
    return der;
}

Buffer readSignature(const fs::path& file)
{
    const Source source(file);
    const Buffer signature = source.readAll();
    return signature.size() == signatureSize
               ? signature
               : rawFromDer(signature, source.name());
}

void checkImage(const Source& image, EVP_PKEY* publicKey)
{
    const std::uint64_t content = image.size() - signatureSize;
    Verifier verifier(publicKey, scheme());
    image.stream(0, content, [&](Bytes piece) { verifier.update(piece); });
    if (!verifier.finish(derFromRaw(image.read(content, signatureSize))))
    {
        throw Error(image.name(), "the signature does not fit the content "
                                  "and the key; nothing was made");
    }
}

} // namespace

void makeImage(const ImageOptions& options)
{
    const Source source(options.input);
    expectNoPrivateKey(source);
    const Signing& signing = options.signing;
    expectNew(
        signing.made(),
        {options.input, options.publicKey, signing.key, signing.signature},
        signing.force);
    if (source.size() == 0)
    {
        throw Error(source.name(), "is empty");
    }
    if (source.size() > largestImage - signatureSize)
    {
        throw Error(source.name(),
                    "is too large: with its signature an image must stay "
                    "below 4 GiB");
    }
    if (!signing.toBeSigned.empty())
    {
        writeFile(signing.toBeSigned, source);
        report(signing.toBeSigned, "image content to be signed");
        return;
    }
    const bool signsHere = signing.signature.empty();
    const std::string keyFile =
        signsHere ? keyName(signing.key) : options.publicKey.string();
    const Key key = signsHere
                        ? readPrivateKey(signing.key, signing.passphraseFile)
                        : readPublicKey(keyFile);
    expectCurve(key.get(), keyFile);

    const Buffer given =
        signsHere ? Buffer() : readSignature(signing.signature);
    OutputFile output(signing.output);
    const Buffer signature = writeSigned(
        output, source, {}, signsHere ? key.get() : nullptr, scheme());
    output.write(signsHere ? rawFromDer(signature, keyFile) : given);
    checkImage(output.readBack(), publicPart(key.get()).get());
    output.commit();
    report(signing.output, "image of " +
                               std::to_string(source.size() + signatureSize) +
                               " bytes, signed and checked");
}

Json describeImage(const Source& file, Remarks& remarks)
{
    if (file.size() < signatureSize)
    {
        throw Error(file.name(), "is too short for a signed image");
    }
    const std::uint64_t content = file.size() - signatureSize;
    const Buffer signature = file.read(content, signatureSize);
    const Bytes numbers(signature);
    if (content == 0)
    {
        remarks.emplace_back("the content is empty");
    }
    if (isZero(numbers.first(numberSize)) || isZero(numbers.last(numberSize)))
    {
        remarks.emplace_back("the signature is empty: r or s is zero");
    }
    if (file.size() > largestImage)
    {
        remarks.emplace_back("4 GiB or more, which the checker refuses");
    }
    return {{"content",
             {{"offset", 0},
              {"size", content},
              {"sha512", digestText(file, 0, content, EVP_sha512())}}},
            {"signature",
             {{"offset", content},
              {"size", signatureSize},
              {"algorithm", "ECDSA P-384, SHA-512"},
              {"r", hex(numbers.first(numberSize))},
              {"s", hex(numbers.last(numberSize))}}}};
}

} // namespace pack
