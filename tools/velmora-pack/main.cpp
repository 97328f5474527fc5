#include "common/command_line.hpp"
#include "common/progress.hpp"
#include "common/signals.hpp"
#include "files.hpp"
#include "inspect.hpp"
#include "keys.hpp"
#include "library_version.hpp"
#include "making.hpp"

#include <charconv>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <limits>
#include <new>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;
using pack::Json;
using pack::Options;

namespace
{

constexpr int BAD_INPUT = 1;
constexpr int MOST_DAYS = 36500;
constexpr auto FOOTER =
    "\nExit status: 0 when done, 1 for bad input or a failure (one line on\n"
    "standard error tells which), 2 for wrong usage.\n"
    "\nEnvironment: SOURCE_DATE_EPOCH, seconds since 1970, is the time of the\n"
    "members of a package, of its signature, and the default timestamp of a\n"
    "payload. VELMORA_PACK_PIN is the passphrase or PIN of a key.";

struct InspectOptions
{
    std::vector<fs::path> files;
    /** Empty: each file's content tells its kind. */
    std::string kind;
    bool json = false;
    bool strict = false;
};

/** An option or, without dashes, an argument.
 *
 *  @param type stands for its value in the help */
template <typename Value>
CLI::Option* add(CLI::App& command, const std::string& name, Value& value,
                 const std::string& type, const std::string& help)
{
    return command.add_option(name, value, help)
        ->type_name(type)
        // As a script's variable is that was not set: nothing would be checked.
        ->check([](const std::string& text)
                { return text.empty() ? "must not be empty" : ""; }, "");
}

/** One of the three ways to a signature must be chosen, and an output given
 *  unless nothing is signed.
 *
 *  @return the option for a key */
CLI::Option* addSigning(CLI::App& command, Options& options,
                        const std::string& keyHelp,
                        const std::string& signatureHelp,
                        const std::string& signedHelp)
{
    CLI::Option* const output =
        add(command, "-o,--output", options.output, "FILE", "The file to make");
    command.add_flag("--force", options.force, "Replace an output that exists");
    CLI::Option_group* const ways =
        command.add_option_group("Signature", "one of these");
    CLI::Option* const key = add(*ways, "--key", options.keys, "KEY", keyHelp)
                                 ->allow_extra_args(false);
    add(*ways, "--signature", options.signature, "FILE", signatureHelp);
    add(*ways, "--to-be-signed", options.toBeSigned, "FILE",
        "Sign nothing: write the bytes to be signed, " + signedHelp)
        ->excludes(output);
    ways->require_option(1);
    command.parse_complete_callback(
        [&options]
        {
            if (options.made().empty())
            {
                throw CLI::RequiredError("--output");
            }
        });
    return key;
}

/** For a key in a file or a token. */
void addPassphrase(CLI::App& command, Options& options, CLI::Option* key)
{
    add(command, "--passphrase-file", options.passphraseFile, "FILE",
        "Its only line is the key's passphrase or PIN; /dev/fd/N is a file "
        "descriptor")
        ->needs(key);
}

/** CLI11 takes a number with a leading zero for an octal one. */
CLI::Validator decimal(std::int64_t least, std::int64_t most)
{
    const auto read = [least, most](std::string& text)
    {
        std::int64_t number = -1;
        const char* const end = text.data() + text.size();
        const auto result = std::from_chars(text.data(), end, number);
        const bool isGood =
            result.ptr == end && number >= least && number <= most;
        text = isGood ? std::to_string(number) : text;
        return isGood         ? ""
               : text.empty() ? "must not be empty"
                              : "not a number from " + std::to_string(least) +
                                    " to " + std::to_string(most) + ": " + text;
    };
    return {read, ""};
}

void addMinDays(CLI::App& command, Options& options)
{
    add(command, "--min-days", options.trust.days, "DAYS",
        "Days for which key and certificates must still be valid: fewer is a "
        "refusal with --keyring or --root-ca, and a warning without; default "
        "30")
        ->transform(decimal(0, MOST_DAYS));
}

// What a file can have that is made, or signed again.

void addPackageParts(CLI::App& command, Options& options)
{
    add(command, "--gpg-home", options.gpgHome, "DIR",
        "The GnuPG home with the key, instead of gpg's own");
    add(command, "--keyring", options.trust.anchor, "FILE",
        "The machine's exported public keys: refuse what it would refuse");
}

void addImageParts(CLI::App& command, Options& options)
{
    add(command, "--public-key", options.publicKey, "FILE",
        "With --signature: the signer's public key, PEM");
}

void addPayloadParts(CLI::App& command, Options& options)
{
    add(command, "--timestamp", options.timestamp, "SECONDS",
        "The signing time in seconds since 1970, 1 to 2147483647; default "
        "SOURCE_DATE_EPOCH, or now")
        ->transform(decimal(1, std::numeric_limits<std::int32_t>::max()));
    add(command, "--root-ca", options.trust.anchor, "FILE",
        "The machine's root CA, PEM: refuse what it would refuse");
    add(command, "--chain", options.chain, "FILE",
        "The signer's certificate and its chain, PEM, shorter than 24576 "
        "bytes");
    add(command, "--alg", options.algorithm, "NAME", "PS256, PS384 or PS512")
        ->check(CLI::IsMember({"PS256", "PS384", "PS512"}));
}

void expectOneKey(const Options& options)
{
    if (options.keys.size() > 1)
    {
        throw CLI::ValidationError("--key", "is for one key here");
    }
}

void addPackage(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand(
        "package", "Make a package: descriptor, its OpenPGP signature and the "
                   "payload in a ZIP");
    add(command, "--payload", options.input, "PATH",
        "A file, or a directory of files without subdirectories")
        ->required();
    add(command, "--model", options.model, "ID", "The component identifier")
        ->required();
    add(command, "--version", options.version, "TEXT", "The firmware version")
        ->required();
    add(command, "--system-id", options.systemIds, "HEX",
        "A supported system, 1 to 4 hexadecimal digits; without any, all are")
        ->transform(CLI::Validator(tools::normaliseSystemId, ""));
    addPackageParts(command, options);
    addMinDays(command, options);
    addSigning(command, options,
               "The full fingerprint of an OpenPGP key or subkey to sign with; "
               "more than one make as many signatures",
               "A detached binary OpenPGP signature that was made elsewhere; "
               "its key must be in the GnuPG home or in --keyring",
               "the descriptor, to this file");
    command.final_callback([&options] { pack::makePackage(options); });
}

void addImage(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand(
        "image",
        "Sign an image with ECDSA, P-384 and SHA-512: 96 bytes are appended");
    add(command, "input", options.input, "FILE", "The image's content")
        ->required();
    addImageParts(command, options);
    CLI::Option* const key = addSigning(
        command, options, "The EC private key: a PEM file or a pkcs11: URI",
        "A signature that was made elsewhere, DER or 96 bytes; needs "
        "--public-key",
        "the content, to this file");
    addPassphrase(command, options, key);
    command.final_callback(
        [&options]
        {
            expectOneKey(options);
            pack::makeImage(options);
        });
}

void addManifest(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand(
        "manifest", "Make a manifest: image-ktb and a small image-ktb.sig");
    add(command, "--release", options.release, "N",
        "The release marker, 1 or 2; without it there is none")
        ->check(CLI::IsMember({1, 2}));
    add(command, "-o,--output", options.output, "DIR",
        "The directory to make; it must be absent or empty")
        ->required();
    command.final_callback([&options] { pack::makeManifest(options); });
}

void addPayload(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand(
        "payload",
        "Sign a payload with RSA-PSS: the trailer of 76800 bytes is appended");
    add(command, "input", options.input, "FILE", "The payload's body")
        ->required();
    addPayloadParts(command, options);
    command.get_option("--chain")->required();
    command.get_option("--alg")->required();
    addMinDays(command, options);
    CLI::Option* const key = addSigning(
        command, options,
        "The RSA private key of 4096 bits: a PEM file or a pkcs11: URI",
        "A signature of 512 bytes that was made elsewhere, for the same "
        "--timestamp",
        "body, chain and metadata, to this file");
    addPassphrase(command, options, key);
    command.final_callback(
        [&options]
        {
            expectOneKey(options);
            pack::makePayload(options);
        });
}

/** Signs again what the file is: an image if the key of its old signature is
 *  given, and else what its content tells.
 *
 *  @param groups options that are not for all kinds; their names tell whose */
void resign(const std::vector<CLI::App*>& groups, Options& options)
{
    const bool isImage = !options.oldPublicKey.empty();
    const std::string kind =
        isImage ? "image" : pack::kindOf(pack::Source(options.input));
    if (!isImage && kind != "package" && kind != "payload")
    {
        throw pack::Error(options.input.string(),
                          "is no package and no signed payload; "
                          "an image needs --old-public-key");
    }
    for (const CLI::App* const group : groups)
    {
        for (const CLI::Option* const option : group->get_options())
        {
            if (option->count() > 0 &&
                group->get_group().find(kind) == std::string::npos)
            {
                throw CLI::ValidationError(option->get_name(),
                                           "means nothing for this " + kind);
            }
        }
    }
    if (kind == "package")
    {
        pack::resignPackage(options);
        return;
    }
    expectOneKey(options);
    options.isSigned = true;
    if (isImage)
    {
        pack::makeImage(options);
    }
    else
    {
        pack::makePayload(options);
    }
}

void addResign(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand(
        "resign", "Sign a package, a payload or an image again, from it alone");
    add(command, "input", options.input, "FILE", "What was signed before")
        ->required();
    CLI::Option* const key = addSigning(
        command, options, "The key, as for package, payload or image",
        "A signature that was made elsewhere", "to this file");
    CLI::App* const lasting =
        command.add_option_group("a package or a payload");
    addMinDays(*lasting, options);
    CLI::App* const package = command.add_option_group("a package");
    package
        ->add_flag("--add", options.isAdded,
                   "Put the signature behind those of the package")
        ->excludes(command.get_option("--to-be-signed"));
    addPackageParts(*package, options);
    CLI::App* const image = command.add_option_group("an image");
    add(*image, "--old-public-key", options.oldPublicKey, "FILE",
        "The key of the image's old signature, PEM");
    addImageParts(*image, options);
    CLI::App* const payload = command.add_option_group("a payload");
    addPayloadParts(*payload, options);
    CLI::App* const either = command.add_option_group("an image or a payload");
    addPassphrase(*either, options, key);
    command.final_callback(
        [&options, groups = std::vector{lasting, package, image, payload,
                                        either}] { resign(groups, options); });
}

int fail(std::string_view message)
{
    std::cerr << "velmora-pack: " << message << '\n';
    return BAD_INPUT;
}

/** What went wrong, as one line; empty when nothing did. */
std::string failureOf(const std::function<void()>& work)
{
    try
    {
        work();
        return {};
    }
    catch (const fs::filesystem_error& error)
    {
        return pack::printable(error.path1().string()) + ": " +
               error.code().message();
    }
    catch (const std::bad_alloc&)
    {
        return "memory: not enough";
    }
    catch (const std::exception& error)
    {
        return pack::printable(error.what());
    }
}

/** What the file is, and the remarks below. */
std::string shortText(const Json& fields)
{
    std::string text = pack::printable(std::string(fields["file"])) + ": " +
                       std::string(fields["kind"]) + ", remarks: " +
                       std::to_string(fields["remarks"].size()) + '\n';
    for (const std::string remark : fields["remarks"])
    {
        text += "  - " + pack::printable(remark) + '\n';
    }
    return text;
}

/** All of one file, or a line for each of several and a summary; the status is
 *  the worst. */
int inspect(const InspectOptions& options)
{
    const bool several = options.files.size() > 1;
    Json list = Json::array();
    std::size_t remarked = 0;
    std::size_t failed = 0;
    int status = EXIT_SUCCESS;
    for (const fs::path& file : options.files)
    {
        std::error_code unknown;
        if (several && fs::is_directory(file, unknown))
        {
            // The shell's "*" names it as well.
            continue;
        }
        // Of two releases in two directories, JSON shows what differs.
        const std::string name =
            options.json ? file.filename().string() : file.string();
        Json fields;
        const std::string failure = failureOf(
            [&]
            {
                fields = pack::inspect(pack::Source(file, name), options.kind);
            });
        if (!failure.empty())
        {
            status = fail(failure);
            ++failed;
            list.push_back({{"file", name}, {"error", failure}});
            continue;
        }
        list.push_back(fields);
        const bool hasRemarks = !fields["remarks"].empty();
        remarked += hasRemarks ? 1 : 0;
        if (options.strict && hasRemarks)
        {
            status = fail(pack::printable(file.string()) +
                          ": has remarks, which --strict does not allow");
        }
        if (!options.json)
        {
            std::cout << (several ? shortText(fields)
                                  : pack::renderText(fields));
        }
    }
    if (list.empty())
    {
        status = fail("only directories are named, and no file");
    }
    else if (options.json && (several || failed == 0))
    {
        std::cout << (several ? list : list.front())
                         .dump(2, ' ', true, Json::error_handler_t::replace)
                  << '\n';
    }
    else if (several)
    {
        std::cout << list.size() << " files: " << remarked << " with remarks, "
                  << failed << " could not be inspected\n";
    }
    return status;
}

void addInspect(CLI::App& app, InspectOptions& options, int& status)
{
    CLI::App& command = *app.add_subcommand(
        "inspect", "Say what files are, list their fields and remark on what "
                   "a machine would refuse");
    add(command, "file", options.files, "FILE", "The files")->required();
    add(command, "--as", options.kind, "KIND",
        "What the files are; a signed image must be named")
        ->check(CLI::IsMember(pack::kindNames()));
    command.add_flag("--json", options.json, "List the fields as JSON");
    command.add_flag("--strict", options.strict, "Exit with 1 on a remark");
    command.final_callback([&] { status = inspect(options); });
}

void addTestKeys(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand(
        "test-keys", "Make keys and certificates for trying things out");
    add(command, "directory", options.output, "DIR",
        "The directory to make; it must be absent or empty")
        ->required();
    command.final_callback([&options] { pack::makeTestKeys(options); });
}

/** Does what the arguments say. */
void run(CLI::App& app, int argc, char** argv, int& status)
{
    try
    {
        tools::parse(app, argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        status = tools::endParse(app, error);
    }
    if (!std::cout.flush())
    {
        throw pack::systemError("standard output");
    }
}

} // namespace

int main(int argc, char** argv)
{
    tools::cleanUpOnSignals();
    tools::openStandardStreams();
    // What gpg says is read here, and passed on.
    setenv("LC_ALL", "C.UTF-8", 1);
    pack::hideSecrets();

    Options options;
    InspectOptions inspected;
    CLI::App app("Makes and inspects what libvelmora checks: firmware "
                 "packages, signed images, manifests and signed payloads.",
                 "velmora-pack");
    app.footer(FOOTER);
    app.set_version_flag("--version",
                         std::string("velmora-pack " VELMORA_VERSION ", ") +
                             LIBRARY_VERSION);
    tools::setUpComplaints(app);
    app.require_subcommand(1);
    app.add_flag_callback("--quiet", tools::Progress::forbid,
                          "Show no bar while more than 100 MiB are read");
    app.fallthrough();
    int status = EXIT_SUCCESS;
    addPackage(app, options);
    addImage(app, options);
    addManifest(app, options);
    addPayload(app, options);
    addResign(app, options);
    addInspect(app, inspected, status);
    addTestKeys(app, options);
    const std::string failure =
        failureOf([&] { run(app, argc, argv, status); });
    if (!failure.empty())
    {
        status = fail(failure);
    }
    return status;
}
