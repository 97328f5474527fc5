#pragma once

#include <filesystem>

namespace velmora::front
{

/** A private directory that is gone, with its content, when this is. */
class TemporaryDirectory
{
  public:
    /** @throws std::system_error when it cannot be made */
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

/** From now on SIGHUP, SIGINT and SIGTERM wait for the work at hand, so that
 *  what was made can be removed. */
void deferSignals();

/** @return the signal that has come since, 0 for none */
int deferredSignal();

} // namespace velmora::front
