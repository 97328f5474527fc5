#include "openpgp.hpp"

#include "files.hpp"

#include <gpgme.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <type_traits>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::size_t FINGERPRINT_LENGTH = 40;
constexpr std::int64_t SECONDS_PER_DAY = 86400;
constexpr auto NO_TERMINAL =
    "; to ask for a passphrase gpg needs a terminal, with GPG_TTY=$(tty) in "
    "the environment; without one, gpg-preset-passphrase";

using Context = Handle<std::remove_pointer_t<gpgme_ctx_t>, gpgme_release>;
using Data = Handle<std::remove_pointer_t<gpgme_data_t>, gpgme_data_release>;
using PublicKey = Handle<std::remove_pointer_t<gpgme_key_t>, gpgme_key_unref>;

/** What a message calls a GnuPG home. */
std::string nameOf(const fs::path& home)
{
    return home.empty() ? "gpg" : home.string();
}

/** The home as gpg is to get it; empty, it takes its own. */
fs::path checkedHome(const fs::path& home)
{
    if (!home.empty() && !fs::is_directory(home))
    {
        throw Error(home.string(), "is not a directory");
    }
    return home.empty() ? home : fs::absolute(home);
}

void check(gpgme_error_t error, const std::string& subject,
           const std::string& doing)
{
    // A signal from the terminal ends the engine too.
    throwIfInterrupted();
    if (error != GPG_ERR_NO_ERROR)
    {
        throw Error(subject, doing + ": " + gpgme_strerror(error));
    }
}

Context newContext()
{
    gpgme_check_version(nullptr);
    gpgme_ctx_t made = nullptr;
    check(gpgme_new(&made), "gpg", "cannot be used");
    return Context(made);
}

/** A buffer for gpg: to read from, or empty, to write to. */
Data dataOf(Bytes bytes = {})
{
    gpgme_data_t data = nullptr;
    const std::string_view text = textOf(bytes);
    check(gpgme_data_new_from_mem(&data, text.data(), text.size(), 0), "gpg",
          "cannot be used");
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

/** What gpg writes to its standard output when it is given that input. */
Buffer runGpg(const fs::path& home, std::vector<std::string> arguments,
              Bytes input, const std::string& doing)
{
    const fs::path directory = checkedHome(home);
    if (!directory.empty())
    {
        arguments.insert(arguments.begin(), {"--homedir", directory});
    }
    arguments.insert(arguments.begin(), {"gpg", "--batch", "--no-tty"});
    const Said said =
        runProgram(gpgme_get_dirinfo("gpg-name"), arguments, input);
    if (said.output.empty())
    {
        const std::string reason = reasonIn(said);
        const bool isPassphrase = reason.find("ioctl") != std::string::npos ||
                                  reason.find("pinentry") != std::string::npos;
        throw Error(nameOf(home),
                    doing + reason + (isPassphrase ? NO_TERMINAL : ""));
    }
    return said.output;
}

/** Lets a home trust each key that the file holds, and no other. */
void importKeyring(const fs::path& home, const fs::path& file)
{
    const Buffer said =
        runGpg(home, {"--no-autostart", "--status-fd", "1", "--import"},
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
        throw Error(file.string(),
                    "holds no OpenPGP public key as gpg --export writes it");
    }
    tools::writeFile(home / "gpg.conf", trusted);
}

/** Objects to a key that expires too soon: the primary one, and the one that
 *  has signed. */
void checkExpiry(const std::string& where, const Trust& trust, gpgme_key_t key,
                 const std::string& signer)
{
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
}

/** The fingerprint of the key that made the first good signature, which for a
 *  machine is one that is fully valid. */
std::string signerIn(gpgme_signature_t made, const std::string& where,
                     bool forMachine)
{
    std::string reason = "there is none";
    for (; made != nullptr; made = made->next)
    {
        const bool isGood = made->status == GPG_ERR_NO_ERROR;
        if (isGood &&
            (!forMachine || (made->summary & GPGME_SIGSUM_VALID) != 0))
        {
            return made->fpr;
        }
        reason = std::string(isGood ? "Not fully valid"
                                    : gpgme_strerror(made->status)) +
                 ", key " + (made->fpr == nullptr ? "unknown" : made->fpr);
    }
    throw Error(where, "gives no good signature: " + reason);
}

std::string signerOf(const fs::path& home, const std::string& where,
                     const Trust& trust, Bytes data, Bytes signature)
{
    const Context context = newContext();
    const fs::path directory = checkedHome(home);
    check(gpgme_ctx_set_engine_info(
              context.get(), GPGME_PROTOCOL_OpenPGP, nullptr,
              directory.empty() ? nullptr : directory.c_str()),
          where, "cannot be used");
    check(gpgme_op_verify(context.get(), dataOf(signature).get(),
                          dataOf(data).get(), nullptr),
          where, "cannot check the signature");
    const std::string signer =
        signerIn(gpgme_op_verify_result(context.get())->signatures, where,
                 !trust.anchor.empty());
    gpgme_key_t found = nullptr;
    check(gpgme_get_key(context.get(), signer.c_str(), &found, 0), where,
          "cannot find the key " + signer);
    const PublicKey key(found);
    checkExpiry(where, trust, key.get(), signer);
    return key->fpr;
}

} // namespace

Said runProgram(const char* program, const std::vector<std::string>& arguments,
                Bytes input)
{
    std::vector<const char*> pointers(arguments.size() + 1);
    std::ranges::transform(arguments, pointers.begin(),
                           [](const std::string& text)
                           { return text.c_str(); });
    const Context context = newContext();
    const Data given = dataOf(input);
    Data output = dataOf();
    Data errors = dataOf();
    if (program == nullptr ||
        gpgme_set_protocol(context.get(), GPGME_PROTOCOL_SPAWN) !=
            GPG_ERR_NO_ERROR ||
        gpgme_op_spawn(context.get(), program, pointers.data(), given.get(),
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
    constexpr std::string_view NAME = "gpg: ";
    text.remove_prefix(text.starts_with(NAME) ? NAME.size() : 0);
    return (text.empty() ? "" : ": ") + std::string(text);
}

bool sameFingerprint(const std::string& left, const std::string& right)
{
    return std::ranges::equal(left, right, [](unsigned char a, unsigned char b)
                              { return std::toupper(a) == std::toupper(b); });
}

Buffer signDetached(const fs::path& home, const std::string& fingerprint,
                    Bytes data)
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
    return runGpg(home, arguments, data, doing);
}

std::string verifyDetached(const fs::path& home, const Trust& trust, Bytes data,
                           Bytes signature)
{
    if (trust.anchor.empty())
    {
        return signerOf(home, nameOf(home), trust, data, signature);
    }
    const tools::TemporaryDirectory machine;
    importKeyring(machine.path(), trust.anchor);
    return signerOf(machine.path(), trust.anchor.string(), trust, data,
                    signature);
}

} // namespace pack
