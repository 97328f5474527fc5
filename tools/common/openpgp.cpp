#include "openpgp.hpp"

#include "error.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <map>

namespace fs = std::filesystem;

namespace tools
{
namespace
{

void check(gpgme_error_t error, std::string_view subject, std::string_view what)
{
    if (error != GPG_ERR_NO_ERROR)
    {
        throw Error(subject, std::string(what) + ": " + gpgme_strerror(error));
    }
}

std::string textOr(const char* text, std::string_view otherwise)
{
    return std::string(text == nullptr ? otherwise : text);
}

/** Of the key itself and of its primary key, what ends first. */
std::int64_t expiryOf(const _gpgme_key& key, std::string_view fingerprint)
{
    std::int64_t first = 0;
    for (const _gpgme_subkey* part = key.subkeys; part != nullptr;
         part = part->next)
    {
        // Signed before GPGME 2.
        const auto expires = static_cast<std::int64_t>(part->expires);
        if ((part == key.subkeys || part->fpr == fingerprint) && expires > 0)
        {
            first = first == 0 ? expires : std::min(first, expires);
        }
    }
    return first;
}

std::string problemOf(const SignatureInfo& info, gpgme_signature_t made)
{
    switch (info.status)
    {
        case GPG_ERR_NO_ERROR:
            return "the keyring does not hold its key as fully valid";
        case GPG_ERR_NO_PUBKEY:
            return "no public key";
        case GPG_ERR_BAD_SIGNATURE:
            return "the descriptor is not what was signed";
        case GPG_ERR_CERT_REVOKED:
            return "the key is revoked";
        case GPG_ERR_KEY_EXPIRED:
            return "the key expired on " + dayText(info.keyExpires);
        case GPG_ERR_SIG_EXPIRED:
            return "the signature expired on " + dayText(info.expires);
        default:
            return gpgme_strerror(made->status);
    }
}

/** Keys by fingerprint. gpg is started for each that is looked up. */
using Keys = std::map<std::string, GpgKey>;

SignatureInfo infoOf(const GpgContext& context, gpgme_signature_t made,
                     Keys& keys)
{
    SignatureInfo info;
    info.fingerprint = textOr(made->fpr, "unknown");
    info.keyAlgorithm =
        textOr(gpgme_pubkey_algo_name(made->pubkey_algo), "unknown");
    info.digestAlgorithm =
        textOr(gpgme_hash_algo_name(made->hash_algo), "unknown");
    info.created = static_cast<std::int64_t>(made->timestamp);
    info.expires = static_cast<std::int64_t>(made->exp_timestamp);
    info.status = gpgme_err_code(made->status);
    info.isValid = (made->summary & GPGME_SIGSUM_VALID) != 0;
    const auto [known, isNew] = keys.try_emplace(info.fingerprint);
    const GpgKey& key = known->second;
    gpgme_key_t found = nullptr;
    if (isNew && info.status != GPG_ERR_NO_PUBKEY && made->fpr != nullptr &&
        gpgme_get_key(context.get(), made->fpr, &found, 0) == GPG_ERR_NO_ERROR)
    {
        known->second.reset(found);
    }
    if (key != nullptr)
    {
        info.primary = textOr(key->fpr, "");
        for (gpgme_subkey_t part = key->subkeys; part != nullptr;
             part = part->next)
        {
            // Of a bad signature gpg names the key's identifier only.
            const std::string whole = textOr(part->fpr, "");
            info.fingerprint =
                whole.ends_with(info.fingerprint) ? whole : info.fingerprint;
        }
        info.userId = key->uids == nullptr ? "" : textOr(key->uids->uid, "");
        info.keyExpires = expiryOf(*key, info.fingerprint);
    }
    info.problem = info.isValid ? "" : problemOf(info, made);
    return info;
}

} // namespace

std::string SignatureInfo::name() const
{
    return primary.empty() || primary == fingerprint
               ? fingerprint
               : primary + ", subkey " + fingerprint;
}

GpgContext gpgContext(const fs::path& home)
{
    useOwnLocale();
    gpgme_check_version(nullptr);
    gpgme_ctx_t made = nullptr;
    check(gpgme_new(&made), "gpg", "cannot be used");
    GpgContext context(made);
    // With a separator behind it, only a directory is there.
    if (!home.empty() && access((home / "").c_str(), X_OK) != 0)
    {
        throw systemError(home.string());
    }
    check(gpgme_ctx_set_engine_info(made, GPGME_PROTOCOL_OpenPGP, nullptr,
                                    home.empty() ? nullptr
                                                 : fs::absolute(home).c_str()),
          "gpg", "cannot be run (is GnuPG installed?)");
    return context;
}

GpgData gpgData(std::string_view bytes)
{
    gpgme_data_t data = nullptr;
    check(gpgme_data_new_from_mem(&data, bytes.data(), bytes.size(), 0), "gpg",
          "cannot be used");
    return GpgData(data);
}

std::string dayText(std::int64_t seconds)
{
    using namespace std::chrono;
    constexpr std::int64_t SECONDS_A_DAY = 86400;
    // Days as an int: a time_t may have 32 bits.
    const year_month_day day(
        sys_days(days(static_cast<int>(seconds / SECONDS_A_DAY))));
    std::array<char, 32> text{};
    const int size = std::snprintf(
        text.data(), text.size(), "%d-%02u-%02u", static_cast<int>(day.year()),
        static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
    return {text.data(), static_cast<std::size_t>(std::max(size, 0))};
}

bool holdsOnlySignatures(std::string_view file)
{
    constexpr int MOST_SIGNATURES = 100;
    constexpr unsigned NEW_FORMAT_SIGNATURE = 0xc2;
    constexpr unsigned OLD_FORMAT_SIGNATURE = 0x88;
    constexpr std::array<std::size_t, 3> SIZES_OF_LENGTH{1, 2, 4};
    int count = 0;
    for (; !file.empty() && count <= MOST_SIGNATURES; ++count)
    {
        const auto octet = [file](std::size_t at)
        {
            return at < file.size() ? static_cast<unsigned char>(file[at]) : 0U;
        };
        // Where the length of the packet stands, and how long that is.
        std::size_t start = 1;
        std::size_t size = 0;
        if (octet(0) == NEW_FORMAT_SIGNATURE)
        {
            const unsigned first = octet(1);
            size = first < 192 ? 1 : first < 224 ? 2 : first == 255 ? 4 : 0;
            start = first == 255 ? 2 : 1;
        }
        else if (octet(0) >= OLD_FORMAT_SIGNATURE &&
                 octet(0) < OLD_FORMAT_SIGNATURE + SIZES_OF_LENGTH.size())
        {
            size = SIZES_OF_LENGTH.at(octet(0) - OLD_FORMAT_SIGNATURE);
        }
        std::uint64_t length = 0;
        for (std::size_t i = 0; i < size; ++i)
        {
            length = length << 8U | octet(start + i);
        }
        if (octet(0) == NEW_FORMAT_SIGNATURE && size == 2)
        {
            length -= (192U << 8U) - 192U;
        }
        if (size == 0 || start + size > file.size() ||
            length > file.size() - start - size)
        {
            return false;
        }
        file.remove_prefix(start + size + static_cast<std::size_t>(length));
    }
    return count > 0 && count <= MOST_SIGNATURES;
}

std::vector<SignatureInfo> signaturesOf(const fs::path& home,
                                        std::string_view data,
                                        std::string_view signatures)
{
    const GpgContext context = gpgContext(home);
    check(gpgme_op_verify(context.get(), gpgData(signatures).get(),
                          gpgData(data).get(), nullptr),
          "the OpenPGP signature", "cannot be checked");
    std::vector<SignatureInfo> infos;
    Keys keys;
    for (gpgme_signature_t made =
             gpgme_op_verify_result(context.get())->signatures;
         made != nullptr; made = made->next)
    {
        infos.push_back(infoOf(context, made, keys));
    }
    return infos;
}

} // namespace tools
