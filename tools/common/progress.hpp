#pragma once

#include <cstdint>

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

  private:
    void draw();

    std::uint64_t size_;
    std::uint64_t done_ = 0;
    int percent_ = -1;
};

} // namespace tools
