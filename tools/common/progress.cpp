#include "progress.hpp"

#include "signals.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <utility>

namespace tools
{
namespace
{

constexpr std::uint64_t LARGE = 100U << 20;
constexpr int PERCENT_PER_MARK = 2;
constexpr std::chrono::milliseconds PAUSE(100);

bool isForbidden = false;
Progress* shown = nullptr;

} // namespace

Progress::Progress(std::uint64_t size) : size_(size)
{
    if (shown == nullptr && !isForbidden && size > LARGE &&
        isatty(STDERR_FILENO) == 1)
    {
        shown = this;
        terminal_ = FileDescriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        draw();
    }
}

Progress::~Progress()
{
    if (isShown())
    {
        shown = nullptr;
        dprintf(terminal_.get(), "\r\033[K");
    }
}

void Progress::advance(std::uint64_t bytes)
{
    if (shown != nullptr)
    {
        shown->moveTo(shown->done_ + bytes);
    }
}

void Progress::forbid() { isForbidden = true; }

bool Progress::isShown() const { return shown == this; }

void Progress::moveTo(std::uint64_t done)
{
    done_ = done;
    draw();
}

void Progress::draw()
{
    // Work may turn out to be more than was known.
    const auto percent = static_cast<int>(std::min(done_, size_) * 100 / size_);
    if (percent != percent_)
    {
        percent_ = percent;
        std::string bar(100 / PERCENT_PER_MARK, ' ');
        std::fill_n(bar.begin(), percent / PERCENT_PER_MARK, '#');
        dprintf(terminal_.get(), "\r[%s] %3d %%", bar.c_str(), percent);
    }
}

WatchedProgress::WatchedProgress(std::uint64_t size,
                                 std::function<std::uint64_t()> done) :
    progress_(size)
{
    if (progress_.isShown())
    {
        // Signals are for the thread that may delay them.
        const SignalDelay inherited;
        thread_ = std::jthread(
            [this, done = std::move(done)](const std::stop_token& stop)
            {
                while (!stop.stop_requested())
                {
                    progress_.moveTo(done());
                    std::this_thread::sleep_for(PAUSE);
                }
            });
    }
}

} // namespace tools
