#pragma once

#include "files.hpp"

#include <archive.h>

#include <cstdint>
#include <functional>
#include <string>

namespace pack
{

inline constexpr std::size_t MOST_MEMBERS = 10000;

/** Writes members one after another, always as the same bytes. */
class ZipWriter
{
  public:
    explicit ZipWriter(OutputFile& output);

    void add(const std::string& name, const Source& source);
    void finish();

  private:
    void check(int result);

    OutputFile& output_;
    Handle<archive, archive_write_free> writer_;
};

struct ZipMember
{
    std::string name;
    /** Of the member's content in the archive. */
    std::uint64_t offset = 0;
    bool regular = false;
};

/** Hands on a member's content, as far as it can be read. */
using ZipContent = std::function<void(const Consumer&)>;

/** Reads the members of an archive that may be hostile, one after another.
 *  @p remarks receives what is wrong with a member. */
void readZip(
    const Source& source, Remarks& remarks,
    const std::function<void(const ZipMember&, const ZipContent&)>& visit);

} // namespace pack
