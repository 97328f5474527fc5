#pragma once

#include "bytes.hpp"
#include "common/openpgp.hpp"
#include "making.hpp"

#include <filesystem>
#include <string>
#include <vector>

namespace pack
{

struct ProgramOutput
{
    std::string output;
    /** Its last line on standard error, for the end of a message. */
    std::string reason;
};

/** Runs a program to its end. Its exit status is not known, so look at its
 *  output.
 *
 *  @throws Error when it cannot be run */
ProgramOutput runProgram(const char* program,
                         const std::vector<std::string>& arguments,
                         Bytes input = {});

/** Detached and binary signatures behind one another, made at the time of
 *  SOURCE_DATE_EPOCH if that is set.
 *
 *  @param home the GnuPG home; empty, gpg's own
 *  @param keys full fingerprints. Of a primary key, its part that gpg chooses
 *         signs; of a subkey, and with "!" behind it, just that key.
 *  @throws Error when one of them cannot sign */
Buffer signDetached(const std::filesystem::path& home,
                    const std::vector<std::string>& keys, Bytes data);

/** Checks as the machine will if its keyring is given, and else with the keys
 *  of the GnuPG home.
 *
 *  @param keys as for signing: each must have made a good signature
 *  @throws Error when there is no good signature, or a bad one */
void checkSignatures(const std::filesystem::path& home, const Trust& trust,
                     const std::vector<std::string>& keys, Bytes data,
                     Bytes signatures);

} // namespace pack
