#pragma once

#include "handles.hpp"
#include "session.hpp"

#include <filesystem>
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

    [[nodiscard]] Site site() const
    {
        return {.workDirectory = workDirectory, .hasCopies = false};
    }

  private:
    explicit InPlaceSite(FileDescriptor lock);

    void makeDirectory(const std::filesystem::path& directory);

    FileDescriptor hostLock;
    /** In the order of their making. */
    std::vector<std::filesystem::path> madeDirectories;
    std::filesystem::path workDirectory;
};

} // namespace bmc_sim
