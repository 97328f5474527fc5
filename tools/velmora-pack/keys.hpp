#pragma once

#include "openssl.hpp"

#include <filesystem>
#include <string>

namespace pack
{

/** The key's name for messages: a URI without its query, which may hold the
 *  PIN. */
std::string keyName(const std::string& key);

/** Keeps passphrases and PINs from others: takes VELMORA_PACK_PIN out of the
 *  environment, which the programs that are started get, and forbids a core
 *  dump. To be called before anything else. */
void hideSecrets();

/** Reads a private key to sign with.
 *
 *  @param key a PEM file, or a pkcs11: URI of a key in a token
 *  @param passphraseFile its only line is the passphrase or PIN; if empty,
 *         that is in the URI's pin-source, was in VELMORA_PACK_PIN, or is
 *         asked for on the terminal, once
 *  @throws Error when there is no such key, or its passphrase is wrong */
Key readPrivateKey(std::string key,
                   const std::filesystem::path& passphraseFile = {});

} // namespace pack
