#include "openpgp.hpp"

#include "files.hpp"
#include "openssl.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <clocale>
#include <ctime>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace pack
{

namespace
{

constexpr std::size_t FINGERPRINT_LENGTH = 40;
constexpr auto TEST_KEY_ALGORITHM = "ed25519";
constexpr std::int64_t SECONDS_PER_DAY = 86400;
constexpr std::chrono::milliseconds AGENT_POLL(20);
constexpr int AGENT_POLLS = 250;

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

/** Runs a program of GnuPG, which gpgme knows under that name. */
void spawn(const char* known, const std::vector<std::string>& arguments,
           gpgme_data_t input = nullptr, gpgme_data_t output = nullptr,
           gpgme_data_t errors = nullptr)
{
    std::vector<const char*> pointers(arguments.size() + 1);
    std::ranges::transform(arguments, pointers.begin(),
                           [](const std::string& text)
                           { return text.c_str(); });
    gpgme_ctx_t made = nullptr;
    const char* const program = gpgme_get_dirinfo(known);
    if (gpgme_new(&made) != GPG_ERR_NO_ERROR)
    {
        throw Error("gpg", "no memory");
    }
    const Context context(made);
    if (program == nullptr ||
        gpgme_set_protocol(made, GPGME_PROTOCOL_SPAWN) != GPG_ERR_NO_ERROR ||
        gpgme_op_spawn(made, program, pointers.data(), input, output, errors,
                       0) != GPG_ERR_NO_ERROR)
    {
        throw Error(arguments.front(), "cannot be run");
    }
}

/** What gpg said at last, for the end of a message. */
std::string reasonIn(std::string_view text)
{
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    text.remove_prefix(text.rfind('\n') + 1);
    constexpr std::string_view name = "gpg: ";
    text.remove_prefix(text.starts_with(name) ? name.size() : 0);
    const bool asked = text.find("ioctl") != std::string_view::npos ||
                       text.find("pinentry") != std::string_view::npos;
    return (text.empty() ? "" : ": ") + std::string(text) +
           (asked ? "; to ask for a passphrase gpg needs a terminal, with "
                    "GPG_TTY=$(tty) in the environment; without one, "
                    "gpg-preset-passphrase"
                  : "");
}

} // namespace

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

OpenPgp::~OpenPgp()
{
    if (!ownsHome_)
    {
        return;
    }
    try
    {
        spawn("gpgconf-name", {"gpgconf", "--homedir", home_, "--kill", "all"});
    }
    catch (const std::exception&)
    {
        return;
    }
    // The agent removes its sockets by path: the home must not move before.
    std::error_code error;
    for (int i = 0; i < AGENT_POLLS && fs::exists(home_ / "S.gpg-agent", error);
         ++i)
    {
        std::this_thread::sleep_for(AGENT_POLL);
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
    const Data given = dataOf(input);
    Data said = dataOf();
    Data made = dataOf();
    spawn("gpg-name", arguments, given.get(), made.get(), said.get());
    throwIfInterrupted();
    Buffer output = contentOf(std::move(made));
    if (output.empty())
    {
        const Buffer errors = contentOf(std::move(said));
        throw Error(name(), doing + reasonIn(textOf(errors)));
    }
    return output;
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
    ownsHome_ = true;
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

std::string OpenPgp::createKey(const std::string& userId,
                               const std::string& created)
{
    ownsHome_ = true;
    const Buffer said =
        run({"--status-fd", "1", "--faked-system-time", created + '!',
             "--passphrase", "", "--quick-generate-key", userId,
             TEST_KEY_ALGORITHM, "sign", "never"},
            {}, "cannot make a key");
    constexpr std::string_view made = " KEY_CREATED P ";
    const std::string_view text = textOf(said);
    const std::size_t start = text.find(made);
    require(start != std::string_view::npos, "gpg names no key");
    return std::string(text.substr(start + made.size(), FINGERPRINT_LENGTH));
}

Buffer OpenPgp::exportKey(const std::string& fingerprint)
{
    return run({"--armor", "--export", fingerprint}, {},
               "cannot export the key");
}

} // namespace pack
