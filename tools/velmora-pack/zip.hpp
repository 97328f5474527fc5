#pragma once

#include "bytes.hpp"
#include "files.hpp"

#include <archive.h>

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>

namespace pack
{

inline constexpr std::size_t mostMembers = 10000;

/** Writes members one after another, always as the same bytes. */
class ZipWriter
{
  public:
    explicit ZipWriter(OutputFile& output);

    void add(const std::string& name, const Source& source);
    void finish();

  private:
    void check(int result);

    OutputFile& output;
    Handle<archive, archive_write_free> writer;
};

struct ZipMember
{
    std::string name;
    /** Of the member's content in the archive. */
    std::uint64_t offset = 0;
    bool regular = false;
};

/** Reads every member of an archive that may be hostile; the visitor is given
 *  each member, and says what is to be done with its content. */
void readZip(const Source& source,
             const std::function<Consumer(const ZipMember&)>& visit);

} // namespace pack
