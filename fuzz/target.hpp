#pragma once

#include <fcntl.h>
#include <openssl/ui.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>

/** @file What the fuzz targets share. They run inside the simulated BMC, where
 *  the library's fixed places are theirs to write in. */

/** One run of a target; libFuzzer calls it, and so does the replay. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size);

namespace fuzz
{

using Bytes = std::span<const std::uint8_t>;

/** What must be so for every input. */
inline void expect(bool claim)
{
    if (!claim)
    {
        std::abort();
    }
}

inline std::string textOf(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

/** Takes a part off the front of the input: two bytes of length,
 *  little-endian, and as many of the bytes behind them as there are. */
inline Bytes takePart(Bytes& input)
{
    if (input.size() < 2)
    {
        return {};
    }
    const std::size_t length = input[0] | std::size_t{input[1]} << 8;
    input = input.subspan(2);
    const Bytes part = input.first(std::min(length, input.size()));
    input = input.subspan(part.size());
    return part;
}

/** Has OpenSSL end the process where it would ask the user for something. */
inline void forbidPrompts()
{
    static const bool done = []
    {
        UI_METHOD* const method = UI_create_method("none");
        UI_method_set_opener(method,
                             [](UI*)
                             {
                                 std::abort();
                                 return 0;
                             });
        UI_set_default_method(method);
        return true;
    }();
    expect(done);
}

/** A directory in memory for the files that an operation is given. */
class Scratch
{
  public:
    Scratch() { expect(mkdtemp(path_.data()) != nullptr); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }

  private:
    std::string path_ = "/tmp/fuzz-XXXXXX";
};

/** One file of it, kept open: only its content changes between runs. */
class InputFile
{
  public:
    InputFile(const Scratch& scratch, const std::string& name) :
        path_(scratch.path() + "/" + name),
        file_(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    ~InputFile() { close(file_); }

    void set(Bytes content)
    {
        expect(pwrite(file_, content.data(), content.size(), 0) ==
                   static_cast<ssize_t>(content.size()) &&
               ftruncate(file_, static_cast<off_t>(content.size())) == 0);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    int file_;
};

} // namespace fuzz
