#include "inputs.hpp"

#include "common/files.hpp"
#include "failure.hpp"
#include "places.hpp"
#include "process.hpp"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <limits>
#include <sstream>

namespace bmc_sim
{
namespace
{

using Bio = tools::Handle<BIO, BIO_free>;
using Certificate = tools::Handle<X509, X509_free>;
using Key = tools::Handle<EVP_PKEY, EVP_PKEY_free>;

// In gpg's listings and in its ownertrust.
constexpr std::string_view FINGERPRINT_START = "fpr:::::::::";
constexpr auto ULTIMATE_TRUST = ":6:\n";

/** @return what gpg wrote
 *  @param subject is named when it fails */
std::string runGpg(const Arguments& arguments, std::string_view input,
                   const std::filesystem::path& subject)
{
    // Public keys need no agent, and one would linger.
    Arguments all{"gpg",      "--homedir", places::KEYRING_HOME, "--batch",
                  "--no-tty", "--quiet",   "--no-autostart"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Outcome outcome = runTool(all, input);
    if (outcome.status != 0)
    {
        throw Error(subject.string(), firstLine(outcome.output));
    }
    return std::move(outcome.output);
}

std::string contentOf(const InputFile& input)
{
    return tools::readFile(input.file, input.name);
}

/** @tparam Read one of OpenSSL's functions for what stands in a PEM file */
template <typename Owner, auto Read>
Owner readPem(const std::string& text)
{
    const Bio source(
        BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    // Given, so that nobody is asked for the one of a private key.
    std::string passphrase;
    return Owner(source
                     ? Read(source.get(), nullptr, nullptr, passphrase.data())
                     : nullptr);
}

Key readKey(const std::string& text)
{
    if (Key key = readPem<Key, PEM_read_bio_PUBKEY>(text))
    {
        return key;
    }
    if (Key key = readPem<Key, PEM_read_bio_PrivateKey>(text))
    {
        return key;
    }
    const auto certificate = readPem<Certificate, PEM_read_bio_X509>(text);
    return Key(certificate ? X509_get_pubkey(certificate.get()) : nullptr);
}

} // namespace

void importKeys(const std::vector<InputFile>& files)
{
    if (files.empty())
    {
        return;
    }
    for (const InputFile& keys : files)
    {
        runGpg({"--import"}, contentOf(keys), keys.name);
    }
    const std::string listing =
        runGpg({"--list-keys", "--with-colons"}, {}, places::KEYRING_HOME);
    std::istringstream lines(listing);
    std::string trust;
    for (std::string line; std::getline(lines, line);)
    {
        if (line.starts_with(FINGERPRINT_START))
        {
            line.erase(0, FINGERPRINT_START.size());
            trust += line.substr(0, line.find(':')) + ULTIMATE_TRUST;
        }
    }
    runGpg({"--import-ownertrust"}, trust, places::KEYRING_HOME);
    // Done now, so that gpg has nothing to update when the library verifies.
    runGpg({"--check-trustdb"}, {}, places::KEYRING_HOME);
}

void placeRootCa(const InputFile& certificate)
{
    const std::string text = contentOf(certificate);
    if (!readPem<Certificate, PEM_read_bio_X509>(text))
    {
        throw Error(certificate.name.string(), "no certificate in PEM");
    }
    tools::writeFile(places::ROOT_CA, text);
}

std::vector<std::uint8_t> readSignerKey(const InputFile& file)
{
    const Key key = readKey(contentOf(file));
    const int size = key ? i2d_PUBKEY(key.get(), nullptr) : 0;
    if (size <= 0 || size > std::numeric_limits<std::uint16_t>::max())
    {
        throw Error(file.name.string(),
                    "no public key, private key or certificate in PEM");
    }
    std::vector<std::uint8_t> der(static_cast<std::size_t>(size));
    std::uint8_t* position = der.data();
    i2d_PUBKEY(key.get(), &position);
    return der;
}

} // namespace bmc_sim
