#pragma once

#include "files.hpp"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <iostream>
#include <string>

/** @file A reason out of a library that answers yes or no. */

namespace update_daemon
{

/** Leads what the library writes to standard error into a file in memory, and
 *  writes it on when it ends. A pipe would have to be read meanwhile. */
class LibraryLog
{
  public:
    LibraryLog() :
        file_(memfd_create("log", MFD_CLOEXEC), "cannot keep the log"),
        standardError_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3),
                       "standard error")
    {
        if (dup2(file_.get(), STDERR_FILENO) < 0)
        {
            failWithErrno("standard error");
        }
    }

    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;

    ~LibraryLog() { end(true); }

    /** Standard error is again what it was; the log is shown or dropped. */
    void end(bool show)
    {
        if (ended_)
        {
            return;
        }
        ended_ = true;
        dup2(standardError_.get(), STDERR_FILENO);
        if (show)
        {
            std::cerr << contentOf(file_.get()) << std::flush;
        }
    }

    int file() const { return file_.get(); }

  private:
    FileDescriptor file_;
    FileDescriptor standardError_;
    bool ended_ = false;
};

/** What `velmora explain --json` makes of a log; null where the tool is not
 *  installed, or has no answer. */
inline nlohmann::json explain(int log)
{
    const FileDescriptor answer(memfd_create("answer", MFD_CLOEXEC),
                                "cannot keep the answer");
    posix_spawn_file_actions_t actions;
    if (lseek(log, 0, SEEK_SET) != 0 ||
        posix_spawn_file_actions_init(&actions) != 0)
    {
        return nullptr;
    }
    std::array<std::string, 3> words{"velmora", "explain", "--json"};
    std::array<char*, 4> arguments{words[0].data(), words[1].data(),
                                   words[2].data(), nullptr};
    pid_t child = -1;
    if (posix_spawn_file_actions_adddup2(&actions, log, STDIN_FILENO) != 0 ||
        posix_spawn_file_actions_adddup2(&actions, answer.get(),
                                         STDOUT_FILENO) != 0 ||
        posix_spawnp(&child, "velmora", &actions, nullptr, arguments.data(),
                     environ) != 0)
    {
        child = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
    {
        return nullptr;
    }
    auto parsed =
        nlohmann::json::parse(contentOf(answer.get()), nullptr, false);
    return parsed.is_discarded() ? nlohmann::json() : parsed;
}

/** The last failure that a log of the library tells of; empty where there is
 *  none, or nobody knows. */
inline nlohmann::json lastFailure(int log)
{
    nlohmann::json last = nlohmann::json::object();
    for (const nlohmann::json& operation : explain(log))
    {
        const std::string verdict =
            operation.is_object() ? operation.value("verdict", "") : "";
        if (verdict == "refused" || verdict == "failed")
        {
            last = operation;
        }
    }
    return last;
}

} // namespace update_daemon
