#include "library_log.hpp"

#include "common/error.hpp"
#include "common/files.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string_view>

namespace velmora::front
{

namespace
{

/** Leads a standard descriptor elsewhere while it lives. */
class Redirection
{
  public:
    Redirection(int from, int to) :
        from_(from), saved_(fcntl(from, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
    {
        if (saved_.get() < 0)
        {
            throw tools::systemError("the log cannot be led elsewhere");
        }
        dup2(to, from_);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection() { dup2(saved_.get(), from_); }

  private:
    int from_;
    tools::FileDescriptor saved_;
};

void flushStreams()
{
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
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
    const tools::FileDescriptor memory = tools::memoryFile();
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
    lseek(memory.get(), 0, SEEK_SET);
    LibraryLog log(tools::readAll(memory, "the log"));
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
