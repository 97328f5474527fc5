#pragma once

#include "bytes.hpp"
#include "making.hpp"

#include <filesystem>
#include <string>
#include <vector>

namespace pack
{

struct Said
{
    Buffer output;
    Buffer errors;
};

/** Runs a program to its end. Its exit status is not known, so look at its
 *  output.
 *
 *  @throws Error when it cannot be run */
Said runProgram(const char* program, const std::vector<std::string>& arguments,
                Bytes input = {});

/** The last thing that a program said, for the end of a message. */
std::string reasonIn(const Said& said);

/** Whether both texts name one key; fingerprints are written in any case. */
bool sameFingerprint(const std::string& left, const std::string& right);

/** A detached and binary signature, made at the time of SOURCE_DATE_EPOCH if
 *  that is set.
 *
 *  @param home the GnuPG home; empty, gpg's own
 *  @param fingerprint names the primary key in full */
Buffer signDetached(const std::filesystem::path& home,
                    const std::string& fingerprint, Bytes data);

/** Checks as the machine will if its keyring is given, and else with that of
 *  the GnuPG home.
 *
 *  @return the fingerprint of the primary key that made the first good
 *           signature
 *  @throws Error when there is none */
std::string verifyDetached(const std::filesystem::path& home,
                           const Trust& trust, Bytes data, Bytes signature);

} // namespace pack
