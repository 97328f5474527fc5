#pragma once

#include "bytes.hpp"
#include "error.hpp"
#include "signing.hpp"

#include <gpgme.h>

#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

namespace pack
{

struct Said
{
    Buffer output;
    Buffer errors;
};

/** Runs a program to its end, whatever that is.
 *
 *  @throws Error when it cannot be run */
Said runProgram(const char* program, const std::vector<std::string>& arguments,
                Bytes input = {});

/** The last thing that a program said, for the end of a message. */
std::string reasonIn(const Said& said);

/** Whether both texts name one key; fingerprints are written in any case. */
bool sameFingerprint(const std::string& left, const std::string& right);

/** One GnuPG home directory, worked on by the gpg engine. */
class OpenPgp
{
  public:
    /** An empty path stands for gpg's own home. */
    explicit OpenPgp(std::filesystem::path home);

    /** Detached and binary, made at the time of SOURCE_DATE_EPOCH if that is
     *  set. The full fingerprint names the primary key. */
    Buffer sign(const std::string& fingerprint, Bytes data);
    /** The fingerprint of the primary key that made the first good signature,
     *  or the first that a machine with that keyring accepts.
     *
     *  @throws Error when there is none */
    std::string verify(Bytes data, Bytes signature, const Trust& trust = {});
    /** Trusts each key that the file holds, and no other. */
    void importKeyring(const std::filesystem::path& file);

  private:
    using Context = Handle<std::remove_pointer_t<gpgme_ctx_t>, gpgme_release>;

    void check(gpgme_error_t error, const std::string& doing) const;
    /** What gpg writes to its standard output when it is given that input. */
    Buffer run(std::vector<std::string> arguments, Bytes input,
               const std::string& doing) const;
    std::string name() const;

    std::filesystem::path home_;
    Context context_;
};

} // namespace pack
