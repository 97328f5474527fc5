#include "inspect.hpp"
#include "keys.hpp"
#include "making.hpp"
#include "openssl.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/err.h>

#include <array>
#include <limits>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::string_view CURVE = "secp384r1";
/** Each of r and s, unsigned big-endian. */
constexpr std::size_t NUMBER_SIZE = 48;
constexpr std::size_t SIGNATURE_SIZE = 2 * NUMBER_SIZE;
/** The checker counts an image's bytes in 32 bits. */
constexpr std::uint64_t LARGEST_IMAGE =
    std::numeric_limits<std::uint32_t>::max();

using BigNumber = Handle<BIGNUM, BN_free>;
using EcdsaSignature = Handle<ECDSA_SIG, ECDSA_SIG_free>;

SignatureScheme scheme() { return {.digest = EVP_sha512(), .pss = false}; }

void expectCurve(const EVP_PKEY* key, const std::string& file)
{
    std::array<char, 64> name{};
    std::size_t size = 0;
    if (EVP_PKEY_is_a(key, "EC") != 1 ||
        EVP_PKEY_get_group_name(key, name.data(), name.size(), &size) != 1 ||
        std::string_view(name.data(), size) != CURVE)
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
    Buffer raw(SIGNATURE_SIZE);
    unsigned char* const r = unsignedData(std::span(raw));
    if (!signature || position != unsignedData(der) + der.size() ||
        BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), r, NUMBER_SIZE) < 0 ||
        BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), r + NUMBER_SIZE,
                     NUMBER_SIZE) < 0)
    {
        throw opensslError(name, "is not an ECDSA signature in DER, nor one "
                                 "of 96 bytes");
    }
    return raw;
}

Buffer derFromRaw(Bytes raw)
{
    const EcdsaSignature signature(ECDSA_SIG_new());
    BigNumber r(BN_bin2bn(unsignedData(raw), NUMBER_SIZE, nullptr));
    BigNumber s(BN_bin2bn(unsignedData(raw.subspan(NUMBER_SIZE)), NUMBER_SIZE,
                          nullptr));
    require(signature && r && s &&
                ECDSA_SIG_set0(signature.get(), r.get(), s.get()) == 1,
            "the signature cannot be encoded");
    // The signature owns its numbers now.
    static_cast<void>(r.release());
    static_cast<void>(s.release());
    Buffer der(2 * SIGNATURE_SIZE);
    unsigned char* end = unsignedData(std::span(der));
    const int size = i2d_ECDSA_SIG(signature.get(), &end);
    require(size > 0, "the signature cannot be encoded");
    der.resize(static_cast<std::size_t>(size));
    return der;
}

Buffer readSignature(const fs::path& file)
{
    const Source source(file);
    const Buffer signature = source.readAll();
    return signature.size() == SIGNATURE_SIZE
               ? signature
               : rawFromDer(signature, source.name());
}

Key readImageKey(const fs::path& file)
{
    Key key = readPublicKey(file);
    expectCurve(key.get(), file);
    return key;
}

std::uint64_t contentSize(const Source& image)
{
    if (image.size() < SIGNATURE_SIZE)
    {
        throw Error(image.name(), "is too short for a signed image");
    }
    return image.size() - SIGNATURE_SIZE;
}

void checkImage(const Source& image, EVP_PKEY* publicKey)
{
    const std::uint64_t content = contentSize(image);
    if (!verifies(image, content,
                  derFromRaw(image.read(content, SIGNATURE_SIZE)), publicKey,
                  scheme()))
    {
        throw Error(image.name(), "the signature does not fit the content "
                                  "and the key; nothing was made");
    }
}

} // namespace

void makeImage(const Options& options)
{
    Source content(options.input);
    expectNoPrivateKey(content);
    options.checkOutput();
    if (options.publicKey.empty() != options.signature.empty())
    {
        throw Error("an image", "needs --public-key with --signature, and not "
                                "without");
    }
    if (!options.oldPublicKey.empty())
    {
        checkImage(content, readImageKey(options.oldPublicKey).get());
        report(options.made(), "the image was signed before by " +
                                   options.oldPublicKey.string());
        content.shorten(contentSize(content));
    }
    if (content.size() == 0)
    {
        throw Error(content.name(), "is empty");
    }
    if (content.size() > LARGEST_IMAGE - SIGNATURE_SIZE)
    {
        throw Error(content.name(),
                    "is too large: with its signature an image must stay "
                    "below 4 GiB");
    }
    if (!options.toBeSigned.empty())
    {
        writeFile(options.toBeSigned, options.force, content);
        report(options.toBeSigned, "image content to be signed");
        return;
    }
    Key publicKey;
    Buffer signature;
    if (options.keys.empty())
    {
        publicKey = readImageKey(options.publicKey);
        signature = readSignature(options.signature);
    }
    else
    {
        const std::string name = keyName(options.keys.front());
        const Key key =
            readPrivateKey(options.keys.front(), options.passphraseFile);
        expectCurve(key.get(), name);
        publicKey = publicPart(key.get());
        signature = rawFromDer(sign(content, {}, key.get(), scheme()), name);
    }
    writeFile(options.output, options.force, content, signature,
              [&](const Source& made) { checkImage(made, publicKey.get()); });
    report(options.output, "image of " +
                               std::to_string(content.size() + SIGNATURE_SIZE) +
                               " bytes, signed and checked");
}

Json describeImage(const Source& file, Remarks& remarks)
{
    const std::uint64_t content = contentSize(file);
    const Buffer signature = file.read(content, SIGNATURE_SIZE);
    const Bytes numbers(signature);
    if (content == 0)
    {
        remarks.emplace_back("the content is empty");
    }
    if (isZero(numbers.first(NUMBER_SIZE)) || isZero(numbers.last(NUMBER_SIZE)))
    {
        remarks.emplace_back("the signature is empty: r or s is zero");
    }
    if (file.size() > LARGEST_IMAGE)
    {
        remarks.emplace_back("4 GiB or more, which the checker refuses");
    }
    return {{"content",
             {{"size", content},
              {"sha512", digestText(file, content, EVP_sha512())}}},
            {"signature",
             {{"r", hex(numbers.first(NUMBER_SIZE))},
              {"s", hex(numbers.last(NUMBER_SIZE))}}}};
}

} // namespace pack
