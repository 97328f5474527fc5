#include "signer_key.hpp"

#include "failure.hpp"
#include "handles.hpp"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <limits>
#include <memory>

namespace bmc_sim
{
namespace
{

using Bio = std::unique_ptr<BIO, Releaser<BIO_free>>;
using Certificate = std::unique_ptr<X509, Releaser<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;

/** For a private key that is locked: nobody is asked for a passphrase. */
int noPassphrase(char*, int, int, void*) { return -1; }

Key readKey(BIO* file)
{
    if (Key key{PEM_read_bio_PUBKEY(file, nullptr, noPassphrase, nullptr)})
    {
        return key;
    }
    BIO_seek(file, 0);
    if (Key key{PEM_read_bio_PrivateKey(file, nullptr, noPassphrase, nullptr)})
    {
        return key;
    }
    BIO_seek(file, 0);
    const Certificate certificate{
        PEM_read_bio_X509(file, nullptr, noPassphrase, nullptr)};
    return Key{certificate ? X509_get_pubkey(certificate.get()) : nullptr};
}

} // namespace

std::vector<std::uint8_t> readSignerKey(const std::filesystem::path& name,
                                        const std::filesystem::path& file)
{
    const Bio source{BIO_new_file(file.c_str(), "rb")};
    if (!source)
    {
        throw systemFailure(name);
    }
    const Key key = readKey(source.get());
    const int size = key ? i2d_PUBKEY(key.get(), nullptr) : 0;
    if (size <= 0 || size > std::numeric_limits<std::uint16_t>::max())
    {
        throw Failure(name.string() +
                      ": no public key, private key or certificate in PEM");
    }
    std::vector<std::uint8_t> der(static_cast<std::size_t>(size));
    std::uint8_t* position = der.data();
    i2d_PUBKEY(key.get(), &position);
    return der;
}

} // namespace bmc_sim
