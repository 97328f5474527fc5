#include "progress.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace tools
{
namespace
{

constexpr std::uint64_t LARGE = 100U << 20;
constexpr int PERCENT_PER_MARK = 2;

bool isForbidden = false;
Progress* shown = nullptr;

} // namespace

Progress::Progress(std::uint64_t size) : size_(size)
{
    if (shown == nullptr && !isForbidden && size > LARGE &&
        isatty(STDERR_FILENO) == 1)
    {
        shown = this;
        draw();
    }
}

Progress::~Progress()
{
    if (shown == this)
    {
        shown = nullptr;
        std::fputs("\r\033[K", stderr);
    }
}

void Progress::advance(std::uint64_t bytes)
{
    if (shown != nullptr)
    {
        shown->done_ += bytes;
        shown->draw();
    }
}

void Progress::forbid() { isForbidden = true; }

void Progress::draw()
{
    // Work may turn out to be more than was known.
    const auto percent = static_cast<int>(std::min(done_, size_) * 100 / size_);
    if (percent != percent_)
    {
        percent_ = percent;
        std::string bar(100 / PERCENT_PER_MARK, ' ');
        std::fill_n(bar.begin(), percent / PERCENT_PER_MARK, '#');
        std::fprintf(stderr, "\r[%s] %3d %%", bar.c_str(), percent);
    }
}

} // namespace tools
