#pragma once

#include "handles.hpp"

#include <cstdint>
#include <functional>
#include <thread>

namespace tools
{

/** While it lives, a bar on standard error shows how far long work is. There
 *  is none for less than 100 MiB, where standard error is no terminal, and
 *  within the work of another. */
class Progress
{
  public:
    /** @param size of the work, in bytes */
    explicit Progress(std::uint64_t size);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /** Moves the bar, if there is one, by so many bytes. */
    static void advance(std::uint64_t bytes);
    /** From now on there is none. */
    static void forbid();

    bool isShown() const;
    void moveTo(std::uint64_t done);

  private:
    void draw();

    std::uint64_t size_;
    /** Standard error may be led elsewhere meanwhile. */
    FileDescriptor terminal_;
    std::uint64_t done_ = 0;
    int percent_ = -1;
};

/** A bar for work that does not tell how far it is, so that it is looked at. */
class WatchedProgress
{
  public:
    /** @param done tells how many bytes are done; called in another thread */
    WatchedProgress(std::uint64_t size, std::function<std::uint64_t()> done);

  private:
    Progress progress_;
    std::jthread thread_;
};

} // namespace tools
