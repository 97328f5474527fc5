// An engine reads keys in tokens where no provider is installed yet.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "keys.hpp"

#include <fcntl.h>
#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <openssl/ui.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::string_view TOKEN_SCHEME = "pkcs11:";
constexpr auto TOKEN_DRIVER = "pkcs11";
/** Of a file, in bytes: OpenSSL takes no longer one. */
constexpr std::size_t MOST_OF_SECRET = 1024;
constexpr auto PIN_VARIABLE = "VELMORA_PACK_PIN";
/** Names the PKCS#11 module to the engine and, here, to the provider too. */
constexpr auto MODULE_VARIABLE = "PKCS11_MODULE_PATH";
constexpr auto PROVIDER_MODULE_VARIABLE = "PKCS11_PROVIDER_MODULE";

using Store = Handle<OSSL_STORE_CTX, OSSL_STORE_close>;
using StoreInfo = Handle<OSSL_STORE_INFO, OSSL_STORE_INFO_free>;
using Prompter = Handle<UI_METHOD, UI_destroy_method>;

/** What VELMORA_PACK_PIN was. */
std::optional<std::string> environmentPin;

/** What OpenSSL is told when it asks for a passphrase or a PIN. */
struct Secret
{
    /** For the prompt. */
    std::string key;
    std::optional<std::string> value;
    bool asked = false;
    /** Why there is none. */
    std::string refusal;

    ~Secret()
    {
        if (value)
        {
            OPENSSL_cleanse(value->data(), value->size());
        }
    }
};

/** A terminal is asked only once: a token counts the wrong answers. */
int tellSecret(char* buffer, int size, int /*forWriting*/, void* data)
{
    Secret& secret = *static_cast<Secret*>(data);
    secret.asked = true;
    if (!secret.value && secret.refusal.empty())
    {
        const std::string prompt = "Passphrase or PIN of " + secret.key + ": ";
        // OpenSSL would read standard input instead.
        const FileDescriptor terminal(
            open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (terminal.get() < 0)
        {
            secret.refusal = "needs a passphrase or PIN, and there is no "
                             "terminal: give it with --passphrase-file or in "
                             "VELMORA_PACK_PIN";
        }
        else if (EVP_read_pw_string(buffer, size, prompt.c_str(), 0) != 0)
        {
            secret.refusal = "no passphrase or PIN was given";
        }
        else
        {
            secret.value = buffer;
        }
    }
    if (!secret.value || secret.value->size() >= static_cast<std::size_t>(size))
    {
        // Otherwise the provider for tokens would ask, on standard input.
        UI_set_default_method(UI_null());
        return -1;
    }
    const std::string& value = *secret.value;
    const auto length = static_cast<int>(value.size());
    std::ranges::copy(value, buffer);
    buffer[length] = '\0';
    return length;
}

/** The only line of a file. What does not hold the secret alone is refused
 *  before a token can count a wrong one. */
std::string secretIn(const fs::path& file)
{
    std::ifstream stream(file);
    if (!stream.is_open())
    {
        throw systemError(file.string());
    }
    std::string text(MOST_OF_SECRET, '\0');
    stream.read(text.data(), MOST_OF_SECRET);
    text.resize(static_cast<std::size_t>(stream.gcount()));
    const std::string line = text.substr(0, text.find('\n'));
    if (line.empty())
    {
        throw Error(file.string(), "no passphrase can be read from it");
    }
    if (text.size() > line.size() + 1 || text.size() == MOST_OF_SECRET)
    {
        throw Error(file.string(), "holds more than the one line, of at most "
                                   "1023 bytes, that a passphrase or PIN is");
    }
    if (line.back() == '\r')
    {
        throw Error(file.string(),
                    "has a carriage return at its end: make it without");
    }
    return line;
}

/** Takes the file with the PIN out of a token's URI. The driver would read it
 *  too, but as it stands.
 *
 *  @return its path, or empty */
fs::path takePinSource(std::string& uri)
{
    if (uri.find("pin-value=") != std::string::npos)
    {
        throw Error("the key's URI",
                    "pin-value shows the PIN to all users: use pin-source, "
                    "--passphrase-file or VELMORA_PACK_PIN");
    }
    constexpr std::string_view SOURCE = "pin-source=";
    constexpr std::string_view SCHEME = "file:";
    const std::size_t start = uri.find(SOURCE, uri.find('?'));
    if (start == std::string::npos)
    {
        return {};
    }
    const std::size_t end = std::min(uri.find('&', start), uri.size());
    const std::string file =
        uri.substr(start, end - start).substr(SOURCE.size());
    uri.erase(start, end - start + 1);
    uri.erase(uri.find_last_not_of("?&") + 1);
    if (file.find('%') != std::string::npos)
    {
        throw Error(file, "pin-source is not read with percent signs: use "
                          "--passphrase-file");
    }
    return file.starts_with(SCHEME) ? file.substr(SCHEME.size()) : file;
}

Key firstKey(OSSL_STORE_CTX* store)
{
    while (store != nullptr && OSSL_STORE_eof(store) == 0)
    {
        const StoreInfo info(OSSL_STORE_load(store));
        if (info &&
            OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY)
        {
            return Key(OSSL_STORE_INFO_get1_PKEY(info.get()));
        }
        if (!info && OSSL_STORE_error(store) != 0)
        {
            break;
        }
    }
    return nullptr;
}

/** Whether OpenSSL has a provider for tokens. */
bool hasProvider()
{
    OSSL_PROVIDER* const provider =
        OSSL_PROVIDER_try_load(nullptr, TOKEN_DRIVER, 1);
    ERR_clear_error();
    return provider != nullptr && OSSL_PROVIDER_unload(provider) == 1;
}

/** Reads a key with the provider, which has no part in what else OpenSSL does:
 *  a token's driver may use OpenSSL itself, and would wait for itself if that
 *  led back to the provider. */
Key keyOfProvider(const std::string& uri, UI_METHOD* prompter, Secret& secret)
{
    static const Handle<OSSL_LIB_CTX, OSSL_LIB_CTX_free> context(
        OSSL_LIB_CTX_new());
    require(context &&
                OSSL_PROVIDER_load(context.get(), "default") != nullptr &&
                OSSL_PROVIDER_load(context.get(), TOKEN_DRIVER) != nullptr,
            "the provider for tokens cannot be loaded");
    return firstKey(
        Store(OSSL_STORE_open_ex(uri.c_str(), context.get(), nullptr, prompter,
                                 &secret, nullptr, nullptr, nullptr))
            .get());
}

/** For an OpenSSL that has no provider for tokens, but still has engines. */
Key keyOfEngine([[maybe_unused]] const std::string& uri,
                [[maybe_unused]] UI_METHOD* prompter,
                [[maybe_unused]] Secret& secret)
{
#ifndef OPENSSL_NO_ENGINE
    const Handle<ENGINE, ENGINE_free> engine(ENGINE_by_id(TOKEN_DRIVER));
    // By itself it would print what fails, with the PIN.
    if (engine &&
        ENGINE_ctrl_cmd_string(engine.get(), "QUIET", nullptr, 1) == 1 &&
        ENGINE_init(engine.get()) == 1)
    {
        Key key(ENGINE_load_private_key(engine.get(), uri.c_str(), prompter,
                                        &secret));
        ENGINE_finish(engine.get());
        return key;
    }
#endif
    throw Error(secret.key, "OpenSSL cannot use tokens here: install "
                            "pkcs11-provider or libengine-pkcs11-openssl");
}

Key keyOfToken(const std::string& uri, UI_METHOD* prompter, Secret& secret)
{
    // Otherwise any key in the token would do (RFC 7512, 2.3).
    if (std::ranges::none_of(
            std::array{":object=", ";object=", ":id=", ";id="},
            [&](const char* name)
            { return secret.key.find(name) != std::string::npos; }))
    {
        throw Error(secret.key, "names no key: add object= or id=");
    }
    if (const char* const module = std::getenv(MODULE_VARIABLE))
    {
        // The engine would print that by itself.
        if (fs::path(module).has_parent_path() && access(module, R_OK) != 0)
        {
            throw systemError(module);
        }
        setenv(PROVIDER_MODULE_VARIABLE, module, 0);
    }
    return hasProvider() ? keyOfProvider(uri, prompter, secret)
                         : keyOfEngine(uri, prompter, secret);
}

Key keyOfFile(const fs::path& file, UI_METHOD* prompter, Secret& secret)
{
    const Source source(file);
    const Bio bio(BIO_new_file(file.c_str(), "r"));
    return firstKey(
        Store(OSSL_STORE_attach(bio.get(), "file", nullptr, nullptr, prompter,
                                &secret, nullptr, nullptr, nullptr))
            .get());
}

} // namespace

std::string keyName(const std::string& key)
{
    return key.starts_with(TOKEN_SCHEME) ? key.substr(0, key.find('?')) : key;
}

void hideSecrets()
{
    prctl(PR_SET_DUMPABLE, 0);
    char* const pin = std::getenv(PIN_VARIABLE);
    if (pin != nullptr && *pin != '\0')
    {
        environmentPin = pin;
        // This is also what the system shows as the process's environment.
        OPENSSL_cleanse(pin, std::strlen(pin));
    }
    unsetenv(PIN_VARIABLE);
}

Key readPrivateKey(std::string key, const fs::path& passphraseFile)
{
    const bool isToken = key.starts_with(TOKEN_SCHEME);
    Secret secret;
    secret.key = keyName(key);
    fs::path file = isToken ? takePinSource(key) : "";
    file = file.empty() ? passphraseFile : file;
    secret.value = file.empty() ? environmentPin : secretIn(file);
    const Prompter prompter(UI_UTIL_wrap_read_pem_callback(tellSecret, 0));
    require(prompter != nullptr, "no memory");
    Key found = isToken ? keyOfToken(key, prompter.get(), secret)
                        : keyOfFile(key, prompter.get(), secret);
    if (!secret.refusal.empty())
    {
        throw Error(secret.key, secret.refusal);
    }
    if (!found && secret.asked)
    {
        // What OpenSSL says of a wrong passphrase explains nothing.
        throw Error(secret.key, "no private key can be read from it with that "
                                "passphrase or PIN");
    }
    if (!found)
    {
        throw opensslError(secret.key, "no private key can be read from it");
    }
    ERR_clear_error();
    return found;
}

} // namespace pack
