#pragma once

#include "openssl.hpp"

#include <filesystem>
#include <string>

namespace pack
{

/** The key's name for messages: a URI without its query, which may hold the
 *  PIN. */
std::string keyName(const std::string& key);

/** Reads a private key to sign with.
 *
 *  @param key a PEM file, or a pkcs11: URI of a key in a token
 *  @param passphraseFile its first line is the passphrase or PIN; if empty,
 *         that is in VELMORA_PACK_PIN, or asked for on the terminal, once
 *  @throws Error when there is no such key, or its passphrase is wrong */
Key readPrivateKey(const std::string& key,
                   const std::filesystem::path& passphraseFile = {});

} // namespace pack
