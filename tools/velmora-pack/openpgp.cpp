#include "openpgp.hpp"

#include "files.hpp"
#include "openssl.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <clocale>
#include <ctime>
#include <thread>

namespace fs = std::filesystem;

namespace pack
{

namespace
{

constexpr std::size_t fingerprintLength = 40;
constexpr auto testKeyAlgorithm = "ed25519";
constexpr std::int64_t secondsPerDay = 86400;
constexpr std::chrono::milliseconds agentPoll(20);
constexpr int agentPolls = 250;

using Data = Handle<std::remove_pointer_t<gpgme_data_t>, gpgme_data_release>;

struct OpenPgpMemoryReleaser
{
    void operator()(char* memory) const { gpgme_free(memory); }
};

Data emptyData()
{
    gpgme_data_t data = nullptr;
    if (gpgme_data_new(&data) != GPG_ERR_NO_ERROR)
    {
        throw Error("gpg", "no memory");
    }
    return Data(data);
}

Data dataOf(Bytes bytes)
{
    gpgme_data_t data = nullptr;
    const std::string_view text = textOf(bytes);
    if (gpgme_data_new_from_mem(&data, text.data(), text.size(), 0) !=
        GPG_ERR_NO_ERROR)
    {
        throw Error("gpg", "no memory");
    }
    return Data(data);
}

Buffer contentOf(Data data)
{
    std::size_t size = 0;
    const std::unique_ptr<char, OpenPgpMemoryReleaser> memory(
        gpgme_data_release_and_get_mem(data.release(), &size));
    const Bytes bytes = bytesOf({memory.get(), size});
    return {bytes.begin(), bytes.end()};
}

bool isFingerprint(const std::string& text)
{
    return text.size() == fingerprintLength &&
           std::ranges::all_of(text, [](unsigned char c)
                               { return std::isxdigit(c) != 0; });
}

} // namespace

bool sameFingerprint(const std::string& left, const std::string& right)
{
    return std::ranges::equal(left, right, [](unsigned char a, unsigned char b)
                              { return std::toupper(a) == std::toupper(b); });
}

OpenPgp::OpenPgp(fs::path directory) : home(std::move(directory))
{
    if (!home.empty() && !fs::is_directory(home))
    {
        throw Error(home.string(), "is not a directory");
    }
    gpgme_check_version(nullptr);
    std::setlocale(LC_ALL, "");
    gpgme_set_locale(nullptr, LC_CTYPE, std::setlocale(LC_CTYPE, nullptr));
    check(gpgme_engine_check_version(GPGME_PROTOCOL_OpenPGP),
          "the gpg engine cannot be used");
    gpgme_ctx_t made = nullptr;
    check(gpgme_new(&made), "the gpg engine cannot be used");
    context.reset(made);
    if (!home.empty())
    {
        home = fs::absolute(home);
        check(gpgme_ctx_set_engine_info(made, GPGME_PROTOCOL_OpenPGP, nullptr,
                                        home.c_str()),
              "the home cannot be used");
    }
}

std::string OpenPgp::name() const
{
    return home.empty() ? "gpg" : home.string();
}

void OpenPgp::check(gpgme_error_t error, const std::string& doing) const
{
    // A signal from the terminal ends the engine too.
    throwIfInterrupted();
    if (error != GPG_ERR_NO_ERROR)
    {
        throw Error(name(), doing + ": " + gpgme_strerror(error));
    }
}

OpenPgp::KeyHandle OpenPgp::findSigningKey(const std::string& fingerprint)
{
    if (!isFingerprint(fingerprint))
    {
        throw Error(fingerprint, "is not a full fingerprint of 40 hexadecimal "
                                 "digits");
    }
    gpgme_key_t found = nullptr;
    if (gpgme_get_key(context.get(), fingerprint.c_str(), &found, 1) !=
        GPG_ERR_NO_ERROR)
    {
        throw Error(name(), "has no secret key " + fingerprint);
    }
    KeyHandle key(found);
    if (!sameFingerprint(fingerprint, key->fpr))
    {
        throw Error(fingerprint, std::string("names a subkey; name the "
                                             "primary key, ") +
                                     key->fpr);
    }
    if (key->revoked || key->expired || key->disabled || key->invalid)
    {
        throw Error(fingerprint, "is revoked, expired or disabled");
    }
    if (!key->can_sign)
    {
        throw Error(fingerprint, "is not a key that can sign");
    }
    return key;
}

Buffer OpenPgp::sign(const std::string& fingerprint, Bytes data)
{
    const KeyHandle key = findSigningKey(fingerprint);
    gpgme_signers_clear(context.get());
    check(gpgme_signers_add(context.get(), key.get()), "cannot sign");
    const Data text = dataOf(data);
    Data signature = emptyData();
    check(gpgme_op_sign(context.get(), text.get(), signature.get(),
                        GPGME_SIG_MODE_DETACH),
          "cannot sign with " + fingerprint);
    return contentOf(std::move(signature));
}

std::string OpenPgp::verify(Bytes data, Bytes signature)
{
    const Data text = dataOf(data);
    const Data signatureData = dataOf(signature);
    check(gpgme_op_verify(context.get(), signatureData.get(), text.get(),
                          nullptr),
          "cannot check the signature");
    const gpgme_verify_result_t result = gpgme_op_verify_result(context.get());
    std::string reason = "there is none";
    std::string signer;
    for (gpgme_signature_t made = result->signatures;
         made != nullptr && signer.empty(); made = made->next)
    {
        if (made->status == GPG_ERR_NO_ERROR)
        {
            signer = made->fpr;
        }
        else
        {
            reason = gpgme_strerror(made->status);
        }
    }
    if (signer.empty())
    {
        throw Error(name(), "finds no good signature: " + reason);
    }
    gpgme_key_t key = nullptr;
    check(gpgme_get_key(context.get(), signer.c_str(), &key, 0),
          "cannot find the key " + signer);
    const KeyHandle owner(key);
    warnOfExpiry(key, signer);
    return key->fpr;
}

void OpenPgp::warnOfExpiry(const gpgme_key_t key,
                           const std::string& signer) const
{
    const std::int64_t soon =
        std::int64_t{std::time(nullptr)} + daysOfWarning * secondsPerDay;
    for (gpgme_subkey_t part = key->subkeys; part != nullptr; part = part->next)
    {
        // Signed before GPGME 2.
        const auto expires = static_cast<std::int64_t>(part->expires);
        if ((part == key->subkeys || signer == part->fpr) && expires > 0 &&
            expires < soon)
        {
            warn(name(),
                 std::string("key ") + part->fpr + " expires within 30 days");
        }
    }
}

std::string OpenPgp::createKey(const std::string& userId)
{
    check(gpgme_op_createkey(context.get(), userId.c_str(), testKeyAlgorithm, 0,
                             0, nullptr,
                             GPGME_CREATE_SIGN | GPGME_CREATE_NOPASSWD |
                                 GPGME_CREATE_NOEXPIRE),
          "cannot make a key");
    return gpgme_op_genkey_result(context.get())->fpr;
}

Buffer OpenPgp::exportKey(const std::string& fingerprint)
{
    Data exported = emptyData();
    gpgme_set_armor(context.get(), 1);
    check(
        gpgme_op_export(context.get(), fingerprint.c_str(), 0, exported.get()),
        "cannot export the key");
    gpgme_set_armor(context.get(), 0);
    return contentOf(std::move(exported));
}

void OpenPgp::stopAgent() noexcept
{
    gpgme_ctx_t made = nullptr;
    if (gpgme_new(&made) != GPG_ERR_NO_ERROR)
    {
        return;
    }
    const Context spawner(made);
    const char* const program = gpgme_get_dirinfo("gpgconf-name");
    const char* arguments[] = {"gpgconf", "--homedir", home.c_str(),
                               "--kill",  "all",       nullptr};
    if (program == nullptr ||
        gpgme_set_protocol(made, GPGME_PROTOCOL_SPAWN) != GPG_ERR_NO_ERROR ||
        gpgme_op_spawn(made, program, arguments, nullptr, nullptr, nullptr,
                       0) != GPG_ERR_NO_ERROR)
    {
        return;
    }
    // The agent removes its sockets by path: the home must not move before.
    std::error_code error;
    for (int i = 0; i < agentPolls && fs::exists(home / "S.gpg-agent", error);
         ++i)
    {
        std::this_thread::sleep_for(agentPoll);
    }
}

} // namespace pack
