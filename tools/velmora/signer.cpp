#include "signer.hpp"

#include "common/error.hpp"
#include "common/files.hpp"
#include "common/handles.hpp"

#include <openssl/pem.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace velmora::front
{

namespace
{

constexpr const char* KEYRING_HOME = "/etc/gpg/secupkey/.gnupg/";
/** Where the library leaves the chain that it has verified. */
constexpr const char* CHAIN_FILE = "/var/run/velmora/Zarnholt/certchain";

using Stream = tools::Handle<BIO, BIO_free>;
using Certificate = tools::Handle<X509, X509_free>;

} // namespace

std::optional<tools::SignatureInfo> findSigner(const std::string& descriptor,
                                               const std::string& signature)
{
    std::error_code unknown;
    if (!std::filesystem::is_regular_file(descriptor, unknown) ||
        !std::filesystem::is_regular_file(signature, unknown) ||
        std::filesystem::file_size(signature, unknown) >
            tools::LARGEST_SIGNATURE)
    {
        return std::nullopt;
    }
    try
    {
        const auto made =
            tools::signaturesOf(KEYRING_HOME, tools::readFile(descriptor),
                                tools::readFile(signature));
        const auto valid =
            std::ranges::find_if(made, &tools::SignatureInfo::isValid);
        if (!made.empty())
        {
            return valid == made.end() ? made.back() : *valid;
        }
    }
    catch (const tools::Error&)
    {
        // Of a file that cannot be read the library has said so.
        return std::nullopt;
    }
    return std::nullopt;
}

std::string findChainSubject()
{
    const Stream file(BIO_new_file(CHAIN_FILE, "r"));
    const Stream text(BIO_new(BIO_s_mem()));
    // Given, so that nobody is asked for one.
    std::string passphrase;
    const Certificate certificate(
        PEM_read_bio_X509(file.get(), nullptr, nullptr, passphrase.data()));
    if (certificate != nullptr)
    {
        X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate.get()),
                           0, XN_FLAG_RFC2253);
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(text.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

} // namespace velmora::front
