#include "library_log.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string_view>
#include <system_error>
#include <utility>

namespace velmora::front
{

namespace
{

/** One file descriptor. */
class Descriptor
{
  public:
    /** @throws std::system_error when @p descriptor is negative */
    Descriptor(int descriptor, const char* what) : descriptor_(descriptor)
    {
        if (descriptor_ < 0)
        {
            throw std::system_error(errno, std::generic_category(), what);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(descriptor_); }

    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

/** Leads a standard descriptor elsewhere while it lives. */
class Redirection
{
  public:
    Redirection(int from, int to) :
        from_(from), saved_(dup(from), "cannot redirect the log")
    {
        dup2(to, from_);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection() { dup2(saved_.get(), from_); }

  private:
    int from_;
    Descriptor saved_;
};

void flushStreams()
{
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
}

std::string contentOf(int descriptor)
{
    std::string text;
    std::array<char, 4096> piece{};
    off_t offset = 0;
    ssize_t size = 0;
    while ((size = pread(descriptor, piece.data(), piece.size(), offset)) > 0)
    {
        text.append(piece.data(), static_cast<std::size_t>(size));
        offset += size;
    }
    return text;
}

/** What stands between the last @p start and the next @p end. */
std::string lastBetween(std::string_view text, std::string_view start,
                        std::string_view end)
{
    const std::size_t found = text.rfind(start);
    if (found == std::string_view::npos)
    {
        return {};
    }
    text.remove_prefix(found + start.size());
    return std::string(text.substr(0, text.find(end)));
}

} // namespace

std::string LibraryLog::busError() const
{
    return lastBetween(text_, " [INFO e.what(): ", "]\n");
}

std::string LibraryLog::lastFailure() const
{
    // Behind the level stand the function and the line.
    const std::string line = lastBetween(text_, "FAILURE: ", "\n");
    const std::size_t message = line.find(": ");
    return message != std::string::npos ? line.substr(message + 2) : "";
}

std::size_t LibraryLog::failures() const
{
    constexpr std::string_view mark = " [FAILURE]\n";
    std::size_t count = 0;
    for (std::size_t at = text_.find(mark); at != std::string::npos;
         at = text_.find(mark, at + mark.size()))
    {
        ++count;
    }
    return count;
}

LibraryLog caught(bool verbose, const std::function<void()>& work)
{
    const Descriptor memory(memfd_create("velmora-log", MFD_CLOEXEC),
                            "cannot keep the log");
    std::exception_ptr thrown;
    flushStreams();
    {
        const Redirection out(STDOUT_FILENO, memory.get());
        const Redirection err(STDERR_FILENO, memory.get());
        try
        {
            work();
        }
        catch (...)
        {
            thrown = std::current_exception();
        }
        flushStreams();
    }
    LibraryLog log(contentOf(memory.get()));
    if (verbose)
    {
        std::cerr << log.text();
    }
    if (thrown)
    {
        std::rethrow_exception(thrown);
    }
    return log;
}

} // namespace velmora::front
