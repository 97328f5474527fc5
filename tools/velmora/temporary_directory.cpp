#include "temporary_directory.hpp"

#include <stdlib.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace velmora::front
{

namespace
{

volatile std::sig_atomic_t signalSeen = 0;

void remember(int signal) { signalSeen = signal; }

} // namespace

TemporaryDirectory::TemporaryDirectory()
{
    std::string name = (fs::temp_directory_path() / "velmora-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
    {
        throw std::system_error(errno, std::generic_category(),
                                "cannot make a temporary directory in " +
                                    fs::temp_directory_path().string());
    }
    path_ = name;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    // A package may hold directories that do not let their owner in.
    for (fs::recursive_directory_iterator entry(
             path_, fs::directory_options::skip_permission_denied, ignored),
         end;
         !ignored && entry != end; entry.increment(ignored))
    {
        if (entry->is_directory() && !entry->is_symlink())
        {
            fs::permissions(entry->path(), fs::perms::owner_all,
                            fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(path_, ignored);
}

void deferSignals()
{
    struct sigaction action{};
    action.sa_handler = remember;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGHUP, SIGINT, SIGTERM})
    {
        sigaction(signal, &action, nullptr);
    }
}

int deferredSignal() { return signalSeen; }

} // namespace velmora::front
