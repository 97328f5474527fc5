#include "support.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <random>
#include <thread>

namespace velmora::test
{
namespace
{

constexpr const char* EMPTY_DIGEST =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* EMPTY_AND_ABC =
    "302d3d24b187100835e04a2cd639ad14026ab49e914d2fdc80abf018000b10dd";

std::string shaLine(const std::string& path, const std::string& digest)
{
    return "INFO \"Hash for file \" + filePath + \": \" + shaString.str(): "
           "Hash for file " +
           path + ": " + digest;
}

/** Digest of a file as the stock tool has it. */
std::string stockDigest(const fs::path& path)
{
    const Scratch made;
    run("sha256sum < " + path.string() + " > " + (made / "sum").string());
    return readFile(made / "sum").substr(0, 64);
}

class Digest : public LoggedTest
{
  protected:
    std::string file(const fs::path& path)
    {
        return logged(calculateFileSHA, path);
    }

    std::string directory(const fs::path& path)
    {
        return logged(ValidateQOR::getSHAStrFromImage, path);
    }
};

TEST_F(Digest, OfFilesAroundThePieceSize)
{
    constexpr std::size_t PIECE = 10'485'760;
    for (const std::size_t size :
         {std::size_t(3), PIECE - 1, PIECE, PIECE + 1, 2 * PIECE + 7})
    {
        std::string content(size, 'x');
        content[size / 2] = '\0';
        content.back() = 'y';
        writeFile(scratch / "f", content);
        EXPECT_EQ(file(scratch / "f"), stockDigest(scratch / "f")) << size;
    }
    // The path is logged as it was spelt.
    std::string path = scratch.path.string();
    while (path.size() < 1000)
    {
        path += "/.";
    }
    path += "//f";
    writeFile(path, "");
    EXPECT_EQ(file(path), EMPTY_DIGEST);
    EXPECT_THAT(log, ElementsAre(shaLine(path, EMPTY_DIGEST)));
}

TEST_F(Digest, WhatIsNoReadableFileGivesOneFailure)
{
    ASSERT_EQ(mkfifo((scratch / "fifo").c_str(), 0600), 0);
    for (const fs::path& path : {scratch / "none", scratch / "fifo",
                                 fs::path("/dev/zero"), scratch.path})
    {
        EXPECT_EQ(file(path), "") << path;
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
}

TEST_F(Digest, CompositeOfKnownContents)
{
    EXPECT_EQ(directory(scratch.path), EMPTY_DIGEST);
    EXPECT_THAT(log, ElementsAre("INFO \"final sha: \" + finalShaString.str(): "
                                 "final sha: " +
                                 std::string(EMPTY_DIGEST)));
    writeFile(scratch / "b", "abc");
    writeFile(scratch / "a", "");
    EXPECT_EQ(directory(scratch.path), EMPTY_AND_ABC);
    EXPECT_EQ(directory(scratch.path.string() + "/"), EMPTY_AND_ABC);
    EXPECT_EQ(log.front(), shaLine(scratch / "a", EMPTY_DIGEST));
}

TEST_F(Digest, CompositeFollowsTheByteOrderOfNames)
{
    const Lines sorted{".h",  "B",      "a",     "a.bin",
                       "a_b", "file10", "file2", "\x80\xff"};
    // Some file systems list the newest first, or the oldest.
    Lines mixed = sorted;
    std::shuffle(mixed.begin(), mixed.end(), std::mt19937(1));
    for (const std::string& name : mixed)
    {
        writeFile(scratch / name, name);
    }
    directory(scratch.path);
    ASSERT_EQ(log.size(), sorted.size() + 1);
    for (std::size_t i = 0; i < sorted.size(); ++i)
    {
        EXPECT_THAT(log[i], HasSubstr((scratch / sorted[i]).string() + ": "));
    }
}

TEST_F(Digest, CompositeLeavesOutWhatIsNoFile)
{
    writeFile(scratch / "b", "abc");
    fs::create_directory(scratch / "d");
    writeFile(scratch / "d/target", "");
    fs::create_symlink("d/target", scratch / "a");
    fs::create_symlink("none", scratch / "dangling");
    fs::create_directory_symlink("d", scratch / "link");
    ASSERT_EQ(mkfifo((scratch / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(directory(scratch.path), EMPTY_AND_ABC);
    EXPECT_EQ(std::count(log.begin(), log.end(), "FAILURE"), 4);
    EXPECT_EQ(log.size(), 7U);
}

TEST_F(Digest, AFileThatIsBeingWrittenIsWaitedFor)
{
    writeFile(scratch / "f", "");
    sigset_t io{};
    sigemptyset(&io);
    sigaddset(&io, SIGIO);
    pthread_sigmask(SIG_BLOCK, &io, nullptr);
    const int number = open((scratch / "f").c_str(), O_RDWR);
    EXPECT_EQ(fcntl(number, F_SETLEASE, F_WRLCK), 0);
    std::thread writer(
        [&]
        {
            const timespec limit{.tv_sec = 10, .tv_nsec = 0};
            EXPECT_EQ(sigtimedwait(&io, nullptr, &limit), SIGIO);
            EXPECT_EQ(write(number, "abc", 3), 3);
            fcntl(number, F_SETLEASE, F_UNLCK);
        });
    const std::string digest = file(scratch / "f");
    writer.join();
    close(number);
    pthread_sigmask(SIG_UNBLOCK, &io, nullptr);
    EXPECT_EQ(digest, stockDigest(scratch / "f"));
    EXPECT_EQ(readFile(scratch / "f"), "abc");
}

TEST_F(Digest, CompositeOfWhatIsNoDirectory)
{
    writeFile(scratch / "f", "");
    for (const fs::path& path : {scratch / "f", scratch / "none"})
    {
        EXPECT_EQ(directory(path), "");
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    fs::create_symlink("loop", scratch / "loop");
    EXPECT_THROW(directory(scratch / "loop"), fs::filesystem_error);
    EXPECT_THROW(directory(scratch.path), fs::filesystem_error);
}

} // namespace
} // namespace velmora::test
