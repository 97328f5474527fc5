#include "support.hpp"

#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

namespace velmora::test
{
namespace
{

bool comesTrue(const std::function<bool()>& condition)
{
    for (int i = 0; i < 2000; ++i)
    {
        // Once: a process that has been seen may be gone the next time.
        if (condition())
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

/** Directory below /proc of the extractor that a process has started. */
fs::path extractorOf(pid_t process)
{
    const std::string number = std::to_string(process);
    fs::path found;
    EXPECT_TRUE(comesTrue(
        [&]
        {
            std::string child =
                readFile("/proc/" + number + "/task/" + number + "/children");
            found = "/proc/" + child.substr(0, child.find(' '));
            // It has its name a moment before its arguments.
            return readFile(found / "comm") == "unzip\n" &&
                   !readFile(found / "cmdline").empty();
        }));
    return found;
}

class Unzip : public LoggedTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(run("cd " + scratch.path.string() +
                      " && echo x > package.xml && mkdir out payload"
                      " && zip -q no-payload.zip package.xml"
                      " && head -c 200000 /dev/urandom > payload/a"
                      " && zip -qr good.zip package.xml payload"
                      " && zip -qrP secret encrypted.zip package.xml payload"),
                  0);
    }

    bool extract(const std::string& name)
    {
        return logged(ValidateQOR::unZip, scratch / name, scratch / "out");
    }

    /** Extracts in a process that has a terminal of its own.
     *
     *  @param meanwhile with the process and the terminal's other side
     *  @return its wait status; it is killed when it does not end */
    int extractOnTerminal(const std::string& name,
                          const std::function<void(pid_t, int)>& meanwhile)
    {
        int terminal = -1;
        const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0)
        {
            _exit(ValidateQOR::unZip(scratch / name, scratch / "out") ? 0 : 1);
        }
        meanwhile(child, terminal);
        int status = -1;
        const bool ended =
            comesTrue([&] { return waitpid(child, &status, WNOHANG) != 0; });
        EXPECT_TRUE(ended);
        if (!ended)
        {
            kill(-child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        close(terminal);
        return status;
    }
};

TEST_F(Unzip, StopsAtTheFirstFailedExtraction)
{
    EXPECT_FALSE(extract("no-payload.zip"));
    EXPECT_THAT(log, ElementsAre(HasSubstr("payload*"), "INFO pidStatus: 2816",
                                 "FAILURE"));
    EXPECT_TRUE(fs::exists(scratch / "out/package.xml"));

    writeFile(scratch / "out/package.xml", "to be overwritten");
    EXPECT_TRUE(extract("good.zip"));
    EXPECT_THAT(log, ElementsAre("SUCCESS"));
    EXPECT_EQ(readFile(scratch / "out/package.xml"), "x\n");
    EXPECT_EQ(readFile(scratch / "out/payload/a"),
              readFile(scratch / "payload/a"));
}

TEST_F(Unzip, NoFileDescriptorNeedsToBeFree)
{
    std::vector<int> all;
    for (int number = dup(STDIN_FILENO); number >= 0; number = dup(number))
    {
        all.push_back(number);
    }
    const bool done = ValidateQOR::unZip(scratch / "good.zip", scratch / "out");
    std::for_each(all.begin(), all.end(), close);
    EXPECT_TRUE(done);
}

TEST_F(Unzip, NobodyIsAskedForAPassword)
{
    const int status = extractOnTerminal("encrypted.zip", [](pid_t, int) {});
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(Unzip, TheExtractorGetsOutputAndNothingElse)
{
    // It waits for somebody who writes into its archive.
    ASSERT_EQ(mkfifo((scratch / "fifo").c_str(), 0600), 0);
    const int inherited = dup(STDIN_FILENO);
    const Lines options{"UNZIP", "UNZIPOPT", "ZIPINFO", "ZIPINFOOPT"};
    for (const std::string& name : options)
    {
        setenv(name.c_str(), "-Z", 1);
    }
    setenv("UNZIPPED", "kept", 1);
    const auto inspect = [&](const fs::path& extractor, const std::string& last)
    {
        std::string arguments = readFile(extractor / "cmdline");
        std::replace(arguments.begin(), arguments.end(), '\0', ' ');
        EXPECT_EQ(arguments, "/usr/bin/unzip -o -q " +
                                 (scratch / "fifo").string() + " -d " +
                                 (scratch / "out").string() + " " + last + " ");
        // Its loader holds a library open for a moment.
        EXPECT_TRUE(comesTrue(
            [&]
            {
                Lines open;
                for (const auto& entry :
                     fs::directory_iterator(extractor / "fd"))
                {
                    open.push_back(entry.path().filename());
                }
                std::sort(open.begin(), open.end());
                return open == Lines{"0", "1", "2"};
            }));
        EXPECT_EQ(fs::read_symlink(extractor / "fd/0"), "/dev/null");
        const std::string environment =
            '\0' + readFile(extractor / "environ") + '\0';
        EXPECT_THAT(environment,
                    HasSubstr(std::string("\0UNZIPPED=kept\0", 15)));
        for (const std::string& name : options)
        {
            EXPECT_THAT(environment,
                        testing::Not(HasSubstr('\0' + name + '=')));
        }
    };
    fs::path second;
    const auto meanwhile = [&](pid_t child, int terminal)
    {
        const fs::path first = extractorOf(child);
        inspect(first, "package.xml*");
        // Only an exit code fails an extraction. An interrupt ends both.
        kill(std::stoi(first.filename()), SIGKILL);
        EXPECT_TRUE(comesTrue([&] { return extractorOf(child) != first; }));
        second = extractorOf(child);
        inspect(second, "payload*");
        EXPECT_EQ(write(terminal, "\x03", 1), 1);
    };
    const int status = extractOnTerminal("fifo", meanwhile);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGINT);
    EXPECT_TRUE(comesTrue(
        [&]
        {
            std::error_code ended;
            return fs::read_symlink(second / "exe", ended).empty();
        }));
    for (const std::string& name : options)
    {
        unsetenv(name.c_str());
    }
    unsetenv("UNZIPPED");
    close(inherited);
}

} // namespace
} // namespace velmora::test
