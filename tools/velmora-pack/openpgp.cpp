#include "openpgp.hpp"

#include "files.hpp"
#include "openssl.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <ctime>
#include <sstream>

namespace fs = std::filesystem;

namespace pack
{

namespace
{

constexpr std::size_t FINGERPRINT_LENGTH = 40;
constexpr std::int64_t SECONDS_PER_DAY = 86400;

using Context = Handle<std::remove_pointer_t<gpgme_ctx_t>, gpgme_release>;
using Data = Handle<std::remove_pointer_t<gpgme_data_t>, gpgme_data_release>;

/** A buffer for gpg: to read from, or empty, to write to. */
Data dataOf(Bytes bytes = {})
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
    const Handle<char, gpgme_free> memory(
        gpgme_data_release_and_get_mem(data.release(), &size));
    const Bytes bytes = bytesOf({memory.get(), size});
    return {bytes.begin(), bytes.end()};
}

} // namespace

Said runProgram(const char* program, const std::vector<std::string>& arguments,
                Bytes input)
{
    std::vector<const char*> pointers(arguments.size() + 1);
    std::ranges::transform(arguments, pointers.begin(),
                           [](const std::string& text)
                           { return text.c_str(); });
    gpgme_check_version(nullptr);
    gpgme_ctx_t made = nullptr;
    const bool isReady = gpgme_new(&made) == GPG_ERR_NO_ERROR;
    const Context context(made);
    const Data given = dataOf(input);
    Data output = dataOf();
    Data errors = dataOf();
    if (!isReady || program == nullptr ||
        gpgme_set_protocol(made, GPGME_PROTOCOL_SPAWN) != GPG_ERR_NO_ERROR ||
        gpgme_op_spawn(made, program, pointers.data(), given.get(),
                       output.get(), errors.get(), 0) != GPG_ERR_NO_ERROR)
    {
        throw Error(arguments.front(), "cannot be run");
    }
    // A signal from the terminal ends the program too.
    throwIfInterrupted();
    return {contentOf(std::move(output)), contentOf(std::move(errors))};
}

std::string reasonIn(const Said& said)
{
    std::string_view text = textOf(said.errors);
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    text.remove_prefix(text.rfind('\n') + 1);
    constexpr std::string_view name = "gpg: ";
    text.remove_prefix(text.starts_with(name) ? name.size() : 0);
    return (text.empty() ? "" : ": ") + std::string(text);
}

bool sameFingerprint(const std::string& left, const std::string& right)
{
    return std::ranges::equal(left, right, [](unsigned char a, unsigned char b)
                              { return std::toupper(a) == std::toupper(b); });
}

OpenPgp::OpenPgp(fs::path directory) : home_(std::move(directory))
{
    if (!home_.empty() && !fs::is_directory(home_))
    {
        throw Error(home_.string(), "is not a directory");
    }
    gpgme_check_version(nullptr);
    std::setlocale(LC_ALL, "");
    gpgme_set_locale(nullptr, LC_CTYPE, std::setlocale(LC_CTYPE, nullptr));
    check(gpgme_engine_check_version(GPGME_PROTOCOL_OpenPGP),
          "the gpg engine cannot be used");
    gpgme_ctx_t made = nullptr;
    check(gpgme_new(&made), "the gpg engine cannot be used");
    context_.reset(made);
    if (!home_.empty())
    {
        home_ = fs::absolute(home_);
        check(gpgme_ctx_set_engine_info(made, GPGME_PROTOCOL_OpenPGP, nullptr,
                                        home_.c_str()),
              "the home cannot be used");
    }
}

std::string OpenPgp::name() const
{
    return home_.empty() ? "gpg" : home_.string();
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

Buffer OpenPgp::run(std::vector<std::string> arguments, Bytes input,
                    const std::string& doing) const
{
    if (!home_.empty())
    {
        arguments.insert(arguments.begin(), {"--homedir", home_});
    }
    arguments.insert(arguments.begin(), {"gpg", "--batch", "--no-tty"});
    const Said said =
        runProgram(gpgme_get_dirinfo("gpg-name"), arguments, input);
    if (said.output.empty())
    {
        const std::string reason = reasonIn(said);
        const bool isPassphrase = reason.find("ioctl") != std::string::npos ||
                                  reason.find("pinentry") != std::string::npos;
        throw Error(name(),
                    doing + reason +
                        (isPassphrase ? "; to ask for a passphrase gpg needs a "
                                        "terminal, with GPG_TTY=$(tty) in the "
                                        "environment; without one, "
                                        "gpg-preset-passphrase"
                                      : ""));
    }
    return said.output;
}

Buffer OpenPgp::sign(const std::string& fingerprint, Bytes data)
{
    if (fingerprint.size() != FINGERPRINT_LENGTH ||
        !std::ranges::all_of(fingerprint, [](unsigned char c)
                             { return std::isxdigit(c) != 0; }))
    {
        throw Error(fingerprint, "is not a full fingerprint of 40 hexadecimal "
                                 "digits");
    }
    std::vector<std::string> arguments{"--local-user", fingerprint,
                                       "--detach-sign"};
    std::string doing = "cannot sign with " + fingerprint;
    if (const auto epoch = sourceDateEpoch())
    {
        arguments.insert(arguments.begin(),
                         "--faked-system-time=" + std::to_string(*epoch) + '!');
        doing += " at the time of SOURCE_DATE_EPOCH";
    }
    // The agent's prompt for a passphrase, as gpg would find it by itself.
    if (const char* const terminal = ttyname(STDIN_FILENO))
    {
        setenv("GPG_TTY", terminal, 0);
    }
    return run(arguments, data, doing);
}

std::string OpenPgp::verify(Bytes data, Bytes signature, const Trust& trust)
{
    const Data text = dataOf(data);
    const Data signatureData = dataOf(signature);
    check(gpgme_op_verify(context_.get(), signatureData.get(), text.get(),
                          nullptr),
          "cannot check the signature");
    const bool strict = !trust.anchor.empty();
    std::string reason = "there is none";
    std::string signer;
    for (gpgme_signature_t made =
             gpgme_op_verify_result(context_.get())->signatures;
         made != nullptr && signer.empty(); made = made->next)
    {
        const bool good = strict ? (made->summary & GPGME_SIGSUM_VALID) != 0
                                 : made->status == GPG_ERR_NO_ERROR;
        (good ? signer : reason) =
            good
                ? made->fpr
                : std::string(made->status == GPG_ERR_NO_ERROR
                                  ? "Not fully valid"
                                  : gpgme_strerror(made->status)) +
                      ", key " + (made->fpr == nullptr ? "unknown" : made->fpr);
    }
    const std::string where = strict ? trust.anchor.string() : name();
    if (signer.empty())
    {
        throw Error(where, "gives no good signature: " + reason);
    }
    gpgme_key_t key = nullptr;
    check(gpgme_get_key(context_.get(), signer.c_str(), &key, 0),
          "cannot find the key " + signer);
    const Handle<std::remove_pointer_t<gpgme_key_t>, gpgme_key_unref> owner(
        key);
    const std::int64_t soon =
        std::int64_t{std::time(nullptr)} + trust.days * SECONDS_PER_DAY;
    for (gpgme_subkey_t part = key->subkeys; part != nullptr; part = part->next)
    {
        // Signed before GPGME 2.
        const auto expires = static_cast<std::int64_t>(part->expires);
        if ((part == key->subkeys || signer == part->fpr) && expires > 0 &&
            expires < soon)
        {
            trust.object(where, std::string("key ") + part->fpr +
                                    " expires within " +
                                    std::to_string(trust.days) + " days");
        }
    }
    return key->fpr;
}

void OpenPgp::importKeyring(const fs::path& file)
{
    const Buffer said = run({"--status-fd", "1", "--import"},
                            Source(file).readAll(), "cannot import keys");
    std::string trusted;
    std::istringstream lines{std::string(textOf(said))};
    for (std::string word, how, key; lines >> word;)
    {
        if (word == "IMPORT_OK" && lines >> how >> key)
        {
            trusted += "trusted-key " + key + '\n';
        }
    }
    if (trusted.empty())
    {
        throw Error(file.string(), "holds no OpenPGP public key");
    }
    writeFile(home_ / "gpg.conf", Source(bytesOf(trusted)));
}

} // namespace pack
