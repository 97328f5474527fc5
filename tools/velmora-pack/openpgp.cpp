#include "openpgp.hpp"

#include "files.hpp"
#include "inspect.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::size_t FINGERPRINT_LENGTH = 40;
constexpr int REVOCATION_TIME_FIELD = 6;
constexpr std::int64_t SECONDS_PER_DAY = 86400;
constexpr auto NO_TERMINAL =
    "; to ask for a passphrase gpg needs a terminal, with GPG_TTY=$(tty) in "
    "the environment; without one, gpg-preset-passphrase";

using Infos = std::vector<tools::SignatureInfo>;

/** What a message calls a GnuPG home. */
std::string nameOf(const fs::path& home)
{
    return home.empty() ? "gpg" : home.string();
}

std::string contentOf(tools::GpgData data)
{
    std::size_t size = 0;
    const Handle<char, gpgme_free> memory(
        gpgme_data_release_and_get_mem(data.release(), &size));
    return std::string(memory.get(), size);
}

/** The last line of what a program said, behind a colon. */
std::string lastErrorLine(std::string_view text)
{
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    text.remove_prefix(text.rfind('\n') + 1);
    constexpr std::string_view NAME = "gpg: ";
    text.remove_prefix(text.starts_with(NAME) ? NAME.size() : 0);
    return (text.empty() ? "" : ": ") + std::string(text);
}

/** What gpg writes to its standard output when it is given that input. */
std::string runGpg(const fs::path& home, std::vector<std::string> arguments,
                   Bytes input, const std::string& doing)
{
    if (!home.empty())
    {
        arguments.insert(arguments.begin(), {"--homedir", fs::absolute(home)});
    }
    // A user's own options may ask for armour.
    arguments.insert(arguments.begin(),
                     {"gpg", "--batch", "--no-tty", "--no-armor"});
    const auto [output, reason] =
        runProgram(gpgme_get_dirinfo("gpg-name"), arguments, input);
    if (output.empty())
    {
        const bool isPassphrase = reason.find("ioctl") != std::string::npos ||
                                  reason.find("pinentry") != std::string::npos;
        throw Error(nameOf(home),
                    doing + reason + (isPassphrase ? NO_TERMINAL : ""));
    }
    return output;
}

/** The fingerprint in capitals, and perhaps the "!" that asks for no other key
 *  of the same owner. */
struct KeyName
{
    explicit KeyName(const std::string& text) : fingerprint(text)
    {
        isExact = fingerprint.ends_with('!');
        fingerprint.resize(fingerprint.size() - (isExact ? 1 : 0));
        if (fingerprint.size() != FINGERPRINT_LENGTH ||
            fingerprint.find_first_not_of("0123456789abcdefABCDEF") !=
                std::string::npos)
        {
            throw Error(text, "is not a full fingerprint of 40 hexadecimal "
                              "digits");
        }
        std::ranges::transform(fingerprint, fingerprint.begin(),
                               [](unsigned char c)
                               { return static_cast<char>(std::toupper(c)); });
    }

    bool hasMade(const tools::SignatureInfo& info) const
    {
        return info.status == GPG_ERR_NO_ERROR &&
               (info.fingerprint == fingerprint ||
                (info.primary == fingerprint && !isExact));
    }

    std::string fingerprint;
    bool isExact = false;
};

/** The day on which a key was revoked, which GPGME does not tell. */
std::string revocationDay(const fs::path& home, const std::string& fingerprint)
{
    const std::string listed =
        runGpg(home, {"--with-colons", "--list-sigs", fingerprint}, {},
               "cannot list keys");
    const std::size_t end = listed.find(fingerprint + ":\nrev:");
    if (end == std::string::npos)
    {
        return {};
    }
    std::istringstream record(listed.substr(listed.find("rev:", end)));
    std::string seconds;
    for (int field = 1; field <= REVOCATION_TIME_FIELD; ++field)
    {
        std::getline(record, seconds, ':');
    }
    const std::int64_t time = std::strtoll(seconds.c_str(), nullptr, 10);
    return time == 0 ? "" : " on " + tools::dayText(time);
}

/** Why a key cannot sign now, or at the time of SOURCE_DATE_EPOCH; empty when
 *  it can.
 *
 *  @param named the key that was asked for */
std::string objectionTo(const fs::path& home, const _gpgme_key& key,
                        gpgme_subkey_t part, gpgme_subkey_t named)
{
    const std::string subject =
        part == named         ? "the key"
        : part == key.subkeys ? std::string("its primary key ") + part->fpr
                              : std::string("its subkey ") + part->fpr;
    // Times were signed before GPGME 2.
    const auto made = static_cast<std::int64_t>(part->timestamp);
    const auto expires = static_cast<std::int64_t>(part->expires);
    const std::optional<std::int32_t> epoch = sourceDateEpoch();
    if (part->revoked != 0)
    {
        return subject + " was revoked" + revocationDay(home, part->fpr);
    }
    if (part->expired != 0)
    {
        return subject + " expired on " + tools::dayText(expires);
    }
    if (epoch && made > *epoch)
    {
        return subject + " was made on " + tools::dayText(made) +
               ", after the time of SOURCE_DATE_EPOCH";
    }
    if (epoch && expires > 0 && expires <= *epoch)
    {
        return subject + " expires on " + tools::dayText(expires) +
               ", before the time of SOURCE_DATE_EPOCH";
    }
    return {};
}

/** What gpg is to call the key.
 *
 *  @throws Error when it cannot sign, for gpg would not say why */
std::string signingKey(const fs::path& home, const std::string& text)
{
    const KeyName name(text);
    const tools::GpgContext context = tools::gpgContext(home);
    gpgme_key_t found = nullptr;
    gpgme_get_key(context.get(), name.fingerprint.c_str(), &found, 1);
    if (found == nullptr)
    {
        gpgme_get_key(context.get(), name.fingerprint.c_str(), &found, 0);
        const tools::GpgKey known(found);
        throw Error(text, nameOf(home) + " has no secret key of that name" +
                              (known ? ", or its agent cannot be reached (gpg "
                                       "-K tells)"
                                     : ""));
    }
    const tools::GpgKey key(found);
    gpgme_subkey_t named = key->subkeys;
    while (named->next != nullptr && name.fingerprint != named->fpr)
    {
        named = named->next;
    }
    const bool isExact = name.isExact || named != key->subkeys;
    std::string objection = objectionTo(home, *key, key->subkeys, named);
    if (objection.empty() && key->disabled != 0)
    {
        objection = "the key is disabled";
    }
    if (!objection.empty())
    {
        throw Error(text, objection);
    }
    objection = "the key is not one that signs, or its secret part is missing";
    for (gpgme_subkey_t part = isExact ? named : key->subkeys; part != nullptr;
         part = isExact ? nullptr : part->next)
    {
        if (part->can_sign == 0 || part->secret == 0)
        {
            continue;
        }
        objection = objectionTo(home, *key, part, named);
        if (objection.empty())
        {
            return name.fingerprint + (isExact ? "!" : "");
        }
    }
    throw Error(text, objection);
}

/** Lets a home trust each key that the file holds, and no other. */
void importKeyring(const fs::path& home, const fs::path& file)
{
    const tools::GpgContext context = tools::gpgContext(home);
    const Buffer keys = Source(file).readAll();
    const tools::GpgData data = tools::gpgData(textOf(keys));
    std::string trusted;
    gpgme_op_import(context.get(), data.get());
    const gpgme_import_result_t result = gpgme_op_import_result(context.get());
    if (result != nullptr)
    {
        for (gpgme_import_status_t key = result->imports; key != nullptr;
             key = key->next)
        {
            trusted += key->result == GPG_ERR_NO_ERROR
                           ? std::string("trusted-key ") + key->fpr + '\n'
                           : "";
        }
    }
    if (trusted.empty())
    {
        const bool hasKeys = result != nullptr && result->considered > 0;
        throw Error(file.string(),
                    hasKeys
                        ? "gpg takes none of its keys (gpg --import tells why)"
                        : "holds no OpenPGP public key as gpg --export "
                          "writes it");
    }
    if (!(std::ofstream(home / "gpg.conf") << trusted << std::flush))
    {
        throw systemError(home.string());
    }
}

/** The good signatures, which for a machine are those that are fully valid.
 *
 *  @param where stands for the keys in messages
 *  @throws Error when there is none, or a bad one */
Infos goodSignatures(const fs::path& home, const std::string& where,
                     bool forMachine, Bytes data, Bytes signatures)
{
    Infos good;
    std::string reason = "there is none";
    for (tools::SignatureInfo& info :
         tools::signaturesOf(home, textOf(data), textOf(signatures)))
    {
        const bool isGood =
            forMachine ? info.isValid : info.status == GPG_ERR_NO_ERROR;
        if (!isGood)
        {
            reason = info.problem + ", key " + info.name();
        }
        if (info.status == GPG_ERR_BAD_SIGNATURE)
        {
            good.clear();
            break;
        }
        if (isGood)
        {
            good.push_back(std::move(info));
        }
    }
    if (good.empty())
    {
        throw Error(where, "gives no good signature: " + reason);
    }
    return good;
}

/** The day from which a signature no longer counts: its own, or its key's. */
std::int64_t lastDayOf(const tools::SignatureInfo& info)
{
    return info.expires == 0 || info.keyExpires == 0
               ? info.expires + info.keyExpires
               : std::min(info.expires, info.keyExpires);
}

/** Objects when each signature expires too soon. */
void checkExpiry(const std::string& where, const Trust& trust,
                 const Infos& signatures)
{
    const std::int64_t soon =
        std::int64_t{std::time(nullptr)} + trust.days * SECONDS_PER_DAY;
    const bool oneLasts = std::ranges::any_of(
        signatures, [soon](const tools::SignatureInfo& info)
        { return lastDayOf(info) == 0 || lastDayOf(info) >= soon; });
    if (!oneLasts)
    {
        const tools::SignatureInfo& first = signatures.front();
        const bool isKey = lastDayOf(first) == first.keyExpires;
        trust.refuseOrWarn(
            where, (isKey ? "key " : "the signature of key ") + first.name() +
                       " expires within " + std::to_string(trust.days) +
                       " days, on " + tools::dayText(lastDayOf(first)));
    }
}

} // namespace

ProgramOutput runProgram(const char* program,
                         const std::vector<std::string>& arguments, Bytes input)
{
    std::vector<const char*> pointers(arguments.size() + 1);
    std::ranges::transform(arguments, pointers.begin(),
                           [](const std::string& text)
                           { return text.c_str(); });
    const tools::GpgContext context = tools::gpgContext({});
    const tools::GpgData given = tools::gpgData(textOf(input));
    tools::GpgData output = tools::gpgData({});
    tools::GpgData errors = tools::gpgData({});
    if (program == nullptr ||
        gpgme_set_protocol(context.get(), GPGME_PROTOCOL_SPAWN) !=
            GPG_ERR_NO_ERROR ||
        gpgme_op_spawn(context.get(), program, pointers.data(), given.get(),
                       output.get(), errors.get(), 0) != GPG_ERR_NO_ERROR)
    {
        throw Error(arguments.front(), "cannot be run");
    }
    return {contentOf(std::move(output)),
            lastErrorLine(contentOf(std::move(errors)))};
}

Buffer signDetached(const fs::path& home, const std::vector<std::string>& keys,
                    Bytes data)
{
    std::vector<std::string> arguments;
    std::string doing = "cannot sign with";
    if (const auto epoch = sourceDateEpoch())
    {
        arguments.push_back("--faked-system-time=" + std::to_string(*epoch) +
                            '!');
    }
    for (const std::string& key : keys)
    {
        arguments.insert(arguments.end(),
                         {"--local-user", signingKey(home, key)});
        doing += ' ' + key;
    }
    arguments.emplace_back("--detach-sign");
    // The agent's prompt for a passphrase, as gpg would find it by itself.
    if (const char* const terminal = ttyname(STDIN_FILENO))
    {
        setenv("GPG_TTY", terminal, 0);
    }
    const std::string signatures = runGpg(home, arguments, data, doing);
    const Bytes bytes = bytesOf(signatures);
    return {bytes.begin(), bytes.end()};
}

void checkSignatures(const fs::path& home, const Trust& trust,
                     const std::vector<std::string>& keys, Bytes data,
                     Bytes signatures)
{
    const bool hasKeyring = !trust.anchor.empty();
    if (!hasKeyring || !keys.empty())
    {
        const Infos good =
            goodSignatures(home, nameOf(home), false, data, signatures);
        for (const std::string& key : keys)
        {
            if (std::ranges::none_of(good,
                                     [name = KeyName(key)](const auto& info)
                                     { return name.hasMade(info); }))
            {
                throw Error(key, "has not made a good signature");
            }
        }
        if (!hasKeyring)
        {
            checkExpiry(nameOf(home), trust, good);
        }
    }
    if (hasKeyring)
    {
        const tools::TemporaryDirectory machine;
        importKeyring(machine.path(), trust.anchor);
        checkExpiry(trust.anchor.string(), trust,
                    goodSignatures(machine.path(), trust.anchor.string(), true,
                                   data, signatures));
    }
}

Json describeSignatures(Bytes file, Remarks& remarks)
{
    Json signatures = Json::array();
    // Without any key gpg still tells who signed, when and how.
    const tools::TemporaryDirectory noKeys;
    try
    {
        if (file.size() > tools::LARGEST_SIGNATURE)
        {
            throw Error("the OpenPGP signature", "is larger than 65536 bytes");
        }
        if (!tools::holdsOnlySignatures(textOf(file)))
        {
            throw Error("the OpenPGP signature",
                        "is not at most 100 binary ones and nothing else (gpg "
                        "--dearmor makes them of armoured ones)");
        }
        for (const tools::SignatureInfo& info :
             tools::signaturesOf(noKeys.path(), {}, textOf(file)))
        {
            signatures.push_back({{"fingerprint", info.fingerprint},
                                  {"algorithm", info.keyAlgorithm},
                                  {"digestAlgorithm", info.digestAlgorithm},
                                  {"created", info.created},
                                  {"createdDate", dateText(info.created)}});
        }
    }
    catch (const Error& error)
    {
        remarks.emplace_back(error.what());
    }
    return signatures;
}

Json describeSignature(const Source& file, Remarks& remarks)
{
    const Json signatures = describeSignatures(file.readAll(), remarks);
    if (signatures.empty())
    {
        throw Error(file.name(), remarks.empty() ? "holds no OpenPGP signature"
                                                 : remarks.back());
    }
    return {{"signatures", signatures}};
}

bool isSignature(const Source& file)
{
    if (file.size() > tools::LARGEST_SIGNATURE)
    {
        return false;
    }
    // An image begins like one, too, at times.
    Remarks ignored;
    return !describeSignatures(file.readAll(), ignored).empty();
}

} // namespace pack
