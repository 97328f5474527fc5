#pragma once

#include "common/files.hpp"
#include "session.hpp"

#include <filesystem>
#include <memory>
#include <vector>

namespace bmc_sim
{

/** The library's places made on the host itself. What was made is removed
 *  and every process started meanwhile is killed when this object goes. */
class InPlaceSite
{
  public:
    /** Waits for another bmc-sim that works in place; refuses when a place
     *  of the library is in use. */
    InPlaceSite();
    ~InPlaceSite();
    InPlaceSite(const InPlaceSite&) = delete;
    InPlaceSite& operator=(const InPlaceSite&) = delete;

    Site site() const { return {.workDirectory = workDirectory_->path()}; }

  private:
    explicit InPlaceSite(tools::FileDescriptor lock);

    void makeDirectory(const std::filesystem::path& directory);

    tools::FileDescriptor hostLock_;
    /** In the order of their making. */
    std::vector<std::filesystem::path> madeDirectories_;
    std::unique_ptr<tools::TemporaryDirectory> workDirectory_;
};

} // namespace bmc_sim
