#include "common/command_line.hpp"
#include "common/progress.hpp"
#include "common/signals.hpp"
#include "files.hpp"
#include "inspect.hpp"
#include "keys.hpp"
#include "library_version.hpp"
#include "making.hpp"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <new>
#include <vector>

namespace fs = std::filesystem;
using pack::Json;

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

struct ResignOptions
{
    fs::path input;
    /** Empty: its content tells. */
    std::string kind;
    bool isAdded = false;
    int days = 30;
    pack::Signing signing;
    // What each kind has beside these.
    pack::PackageOptions package;
    pack::ImageOptions image;
    pack::PayloadOptions payload;
};

/** An option or, without dashes, an argument.
 *
 *  @param type stands for its value in the help */
template <typename Value>
CLI::Option* add(CLI::App& command, const std::string& name, Value& value,
                 const std::string& type, const std::string& help)
{
    return command.add_option(name, value, help)->type_name(type);
}

CLI::Option* addOutput(CLI::App& command, fs::path& output, bool& force,
                       const std::string& type, const std::string& help)
{
    CLI::Option* const option = add(command, "-o,--output", output, type, help);
    command.add_flag("--force", force, "Replace an output that exists");
    return option;
}

/** One of the three ways to a signature must be chosen, and an output given
 *  unless nothing is signed. */
void addSigning(CLI::App& command, pack::Signing& signing, bool several,
                const std::string& keyHelp, const std::string& signatureHelp,
                const std::string& signedHelp)
{
    CLI::Option* const output =
        addOutput(command, signing.output, signing.force, "FILE",
                  "The file to make; - for standard output");
    CLI::Option_group* const ways =
        command.add_option_group("Signature", "one of these");
    CLI::Option* const key = add(*ways, "--key", signing.keys, "KEY", keyHelp)
                                 ->allow_extra_args(false);
    if (!several)
    {
        key->expected(1);
    }
    add(*ways, "--signature", signing.signature, "FILE", signatureHelp);
    add(*ways, "--to-be-signed", signing.toBeSigned, "FILE",
        "Sign nothing: write the bytes to be signed, " + signedHelp)
        ->excludes(output);
    ways->require_option(1);
    command.parse_complete_callback(
        [&signing]
        {
            if (signing.made().empty())
            {
                throw CLI::RequiredError("--output");
            }
        });
}

/** For a key in a file or a token. */
void addPassphrase(CLI::App& command, pack::Signing& signing)
{
    add(command, "--passphrase-file", signing.passphraseFile, "FILE",
        "Its only line is the key's passphrase or PIN; /dev/fd/N is a file "
        "descriptor")
        ->needs(command.get_option("--key"));
}

void addMinDays(CLI::App& command, int& days)
{
    add(command, "--min-days", days, "DAYS",
        "Days for which key and certificates must still be valid: fewer is a "
        "refusal with --keyring or --root-ca, and a warning without; default "
        "30")
        ->check(CLI::Range(0, MOST_DAYS));
}

void addKeyring(CLI::App& command, pack::PackageOptions& options)
{
    add(command, "--gpg-home", options.gpgHome, "DIR",
        "The GnuPG home with the key, instead of gpg's own");
    add(command, "--keyring", options.trust.anchor, "FILE",
        "The machine's exported public keys: refuse what it would refuse");
}

CLI::Option* addPublicKey(CLI::App& command, pack::ImageOptions& options)
{
    return add(command, "--public-key", options.publicKey, "FILE",
               "With --signature: the signer's public key, PEM");
}

/** @return the options that a new payload needs */
std::vector<CLI::Option*> addPayloadParts(CLI::App& command,
                                          pack::PayloadOptions& options)
{
    add(command, "--timestamp", options.timestamp, "SECONDS",
        "The signing time in seconds since 1970, 1 to 2147483647; default "
        "SOURCE_DATE_EPOCH, or now")
        ->check(CLI::Range(std::int32_t{1},
                           std::numeric_limits<std::int32_t>::max()));
    add(command, "--root-ca", options.trust.anchor, "FILE",
        "The machine's root CA, PEM: refuse what it would refuse");
    return {add(command, "--chain", options.chain, "FILE",
                "The signer's certificate and its chain, PEM, shorter than "
                "24576 bytes"),
            add(command, "--alg", options.algorithm, "NAME",
                "PS256, PS384 or PS512")
                ->check(CLI::IsMember({"PS256", "PS384", "PS512"}))};
}

void addPackage(CLI::App& app, pack::PackageOptions& options)
{
    CLI::App& command = *app.add_subcommand(
        "package", "Make a package: descriptor, its OpenPGP signature and the "
                   "payload in a ZIP");
    add(command, "--payload", options.payload, "PATH",
        "A file, or a directory of files without subdirectories")
        ->required();
    add(command, "--model", options.model, "ID", "The component identifier")
        ->required();
    add(command, "--version", options.version, "TEXT", "The firmware version")
        ->required();
    add(command, "--system-id", options.systemIds, "HEX",
        "A supported system, 1 to 4 hexadecimal digits; without any, all are")
        ->transform(CLI::Validator(tools::normaliseSystemId, ""));
    addKeyring(command, options);
    addMinDays(command, options.trust.days);
    addSigning(command, options.signing, true,
               "The full fingerprint of an OpenPGP key or subkey to sign with; "
               "more than one make as many signatures",
               "A detached binary OpenPGP signature that was made elsewhere; "
               "its key must be in the GnuPG home or in --keyring",
               "the descriptor, to this file");
    command.final_callback([&options] { pack::makePackage(options); });
}

void addImage(CLI::App& app, pack::ImageOptions& options)
{
    CLI::App& command = *app.add_subcommand(
        "image",
        "Sign an image with ECDSA, P-384 and SHA-512: 96 bytes are appended");
    add(command, "input", options.input, "FILE", "The image's content")
        ->required();
    CLI::Option* const publicKey = addPublicKey(command, options);
    addSigning(command, options.signing, false,
               "The EC private key: a PEM file or a pkcs11: URI",
               "A signature that was made elsewhere, DER or 96 bytes; needs "
               "--public-key",
               "the content, to this file");
    addPassphrase(command, options.signing);
    CLI::Option* const signature = command.get_option("--signature");
    signature->needs(publicKey);
    publicKey->needs(signature);
    command.final_callback([&options] { pack::makeImage(options); });
}

void addManifest(CLI::App& app, pack::ManifestOptions& options)
{
    CLI::App& command = *app.add_subcommand(
        "manifest", "Make a manifest: image-ktb and a small image-ktb.sig");
    add(command, "--release", options.release, "N",
        "The release marker, 1 or 2; without it there is none")
        ->check(CLI::IsMember({1, 2}));
    add(command, "--prefix", options.prefix, "FILE",
        "A file whose bytes stand before the manifest");
    addOutput(command, options.output, options.force, "DIR",
              "The directory for both files; made if there is none")
        ->required();
    command.final_callback([&options] { pack::makeManifest(options); });
}

void addPayload(CLI::App& app, pack::PayloadOptions& options)
{
    CLI::App& command = *app.add_subcommand(
        "payload",
        "Sign a payload with RSA-PSS: the trailer of 76800 bytes is appended");
    add(command, "input", options.input, "FILE", "The payload's body")
        ->required();
    for (CLI::Option* const option : addPayloadParts(command, options))
    {
        option->required();
    }
    addMinDays(command, options.trust.days);
    addSigning(command, options.signing, false,
               "The RSA private key of 4096 bits: a PEM file or a pkcs11: URI",
               "A signature of 512 bytes that was made elsewhere, for the "
               "same --timestamp",
               "body, chain and metadata, to this file");
    addPassphrase(command, options.signing);
    command.final_callback([&options] { pack::makePayload(options); });
}

/** Refuses an option that means nothing for what is signed. */
void refuseForeign(const CLI::App& command, const ResignOptions& options,
                   const std::string& kind)
{
    const std::map<std::string, std::vector<std::string>> own{
        {"package", {"--add", "--gpg-home", "--keyring"}},
        {"image", {"--old-public-key", "--public-key", "--passphrase-file"}},
        {"payload",
         {"--chain", "--alg", "--timestamp", "--root-ca", "--passphrase-file"}},
    };
    const std::vector<std::string>& allowed = own.at(kind);
    for (const auto& [other, names] : own)
    {
        for (const std::string& name : names)
        {
            if (command.count(name) > 0 &&
                std::ranges::find(allowed, name) == allowed.end())
            {
                throw CLI::ValidationError(name, "means nothing for " + kind);
            }
        }
    }
    const bool needsKey = kind == "image" && !options.signing.signature.empty();
    if (kind != "package" && options.signing.keys.size() > 1)
    {
        throw CLI::ValidationError("--key", "is for one key here");
    }
    if (kind == "image" && (options.image.oldPublicKey.empty() ||
                            needsKey == options.image.publicKey.empty()))
    {
        throw CLI::ValidationError(
            "image", "needs --old-public-key, and with --signature, but not "
                     "without, --public-key");
    }
}

void resign(const CLI::App& command, ResignOptions& options)
{
    const std::string kind = options.kind.empty()
                                 ? pack::kindOf(pack::Source(options.input))
                                 : options.kind;
    if (kind != "package" && kind != "payload" && kind != "image")
    {
        throw pack::Error(options.input.string(),
                          "is no package and no signed payload; an image needs "
                          "--as image");
    }
    refuseForeign(command, options, kind);
    if (kind == "package")
    {
        options.package.payload = options.input;
        options.package.trust.days = options.days;
        options.package.signing = options.signing;
        pack::resignPackage(options.package, options.isAdded);
    }
    else if (kind == "image")
    {
        options.image.input = options.input;
        options.image.signing = options.signing;
        pack::makeImage(options.image);
    }
    else
    {
        options.payload.input = options.input;
        options.payload.isSigned = true;
        options.payload.trust.days = options.days;
        options.payload.signing = options.signing;
        pack::makePayload(options.payload);
    }
}

void addResign(CLI::App& app, ResignOptions& options)
{
    CLI::App& command = *app.add_subcommand(
        "resign", "Sign a package, a payload or an image again, from it alone");
    add(command, "input", options.input, "FILE", "What was signed before")
        ->required();
    add(command, "--as", options.kind, "KIND",
        "package, payload or image; an image must be named")
        ->check(CLI::IsMember({"package", "payload", "image"}));
    command.add_flag("--add", options.isAdded,
                     "Put the signature behind those of the package");
    addKeyring(command, options.package);
    add(command, "--old-public-key", options.image.oldPublicKey, "FILE",
        "The key of an image's old signature, PEM");
    addPublicKey(command, options.image);
    addPayloadParts(command, options.payload);
    addMinDays(command, options.days);
    addSigning(command, options.signing, true,
               "The key, as for package, payload or image",
               "A signature that was made elsewhere", "to this file");
    addPassphrase(command, options.signing);
    command.final_callback([&] { resign(command, options); });
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
    catch (const pack::Error& error)
    {
        return error.what();
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
    const auto& remarks = fields["remarks"];
    const std::string file = fields["file"];
    const std::string kind = fields["kind"];
    std::string text = pack::printable(file) + ": " + kind + ", " +
                       std::to_string(remarks.size()) + " remark" +
                       (remarks.size() == 1 ? "" : "s") + '\n';
    for (const std::string remark : remarks)
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
        Json& fields = list.emplace_back();
        // Of two releases in two directories, JSON shows what differs.
        const std::string name =
            options.json ? file.filename().string() : file.string();
        const std::string failure = failureOf(
            [&]
            {
                fields = pack::inspect(pack::Source(file, name), options.kind);
            });
        if (!failure.empty())
        {
            status = fail(failure);
            ++failed;
            fields = {{"file", name}, {"error", failure}};
            continue;
        }
        remarked += fields["remarks"].empty() ? 0 : 1;
        if (options.strict && !fields["remarks"].empty())
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
    if (options.json && (several || failed == 0))
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

void addTestKeys(CLI::App& app, fs::path& directory)
{
    CLI::App& command = *app.add_subcommand(
        "test-keys", "Make keys and certificates for trying things out");
    add(command, "directory", directory, "DIR",
        "The directory to make; it must be absent or empty")
        ->required();
    command.final_callback([&directory] { pack::makeTestKeys(directory); });
}

/** Does what the arguments say. */
void run(CLI::App& app, int argc, char** argv, int& status)
{
    try
    {
        app.parse(argc, argv);
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
    // A file that grows too large, or a reader that goes away, is to give an
    // error like any other, and leave nothing behind.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    tools::cleanUpOnSignals();
    pack::hideSecrets();

    pack::PackageOptions package;
    pack::ImageOptions image;
    pack::ManifestOptions manifest;
    pack::PayloadOptions payload;
    ResignOptions resigned;
    InspectOptions inspected;
    fs::path testKeys;
    const auto forbidProgress = [](std::int64_t) { tools::Progress::forbid(); };
    CLI::App app("Makes and inspects what libvelmora checks: firmware "
                 "packages, signed images, manifests and signed payloads.",
                 "velmora-pack");
    app.footer(FOOTER);
    app.set_version_flag("--version",
                         std::string("velmora-pack " VELMORA_VERSION ", ") +
                             LIBRARY_VERSION);
    tools::setUpComplaints(app);
    app.require_subcommand(1);
    app.add_flag_function("--quiet", forbidProgress,
                          "Show no bar while more than 100 MiB are read");
    app.fallthrough();
    int status = EXIT_SUCCESS;
    addPackage(app, package);
    addImage(app, image);
    addManifest(app, manifest);
    addPayload(app, payload);
    addResign(app, resigned);
    addInspect(app, inspected, status);
    addTestKeys(app, testKeys);
    const std::string failure =
        failureOf([&] { run(app, argc, argv, status); });
    if (!failure.empty())
    {
        status = fail(failure);
    }
    return status;
}
