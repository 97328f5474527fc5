#pragma once

#include "velmora.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

/** What the tests share. They run inside the simulated BMC, where the
 *  library's fixed places are theirs to write in. */

namespace velmora::test
{

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

using Lines = std::vector<std::string>;

/** Runs @p work and gives the lines written to stderr meanwhile, without the
 *  source lines: "FAILURE", "SUCCESS", "INFO label value" for the cerr style,
 *  "LEVEL function: message" for the stderr style, others as they are. Another
 *  @p fileDescriptor may take the place of stderr's. */
Lines logOf(const std::function<void()>& work, int fileDescriptor = 2);

/** Open file descriptors of this process. */
std::size_t openFileDescriptors();

std::string readFile(const fs::path& path);
void writeFile(const fs::path& path, const std::string& content);

/** Exit status of a shell command, whose output is thrown away. */
int run(const std::string& command);

/** Directory of the test keys that velmora-pack made. */
fs::path keys();

/** Runs velmora-pack; the test fails when it does. */
void pack(const std::string& arguments);

/** A package directory of the given content, signed with the test key. */
struct PackageText
{
    std::string model = "<Model systemID=\"0A1B\"/>";
    std::string payload = "abc";
    /** Composite digest of one file of that content. */
    std::string hash =
        "dfe7a23fefeea519e9bbfdd1a6be94c4b2e4529dd6b7cbea83f9959c2621b13c";
};
void makePackage(const fs::path& directory, const PackageText& text = {});
void sign(const fs::path& directory);

/** An image of the given content, signed with the test key. */
void makeImage(const fs::path& image, const std::string& content);

/** Lines of the log about one signature of a package. */
constexpr std::size_t SIGNATURE_LINES = 12;

/** An empty directory of its own for each test. */
class Scratch
{
  public:
    Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch();

    fs::path operator/(const std::string& name) const { return path / name; }

    fs::path path;
};

/** What most tests work with. */
class LoggedTest : public testing::Test
{
  protected:
    /** Gives what an operation gives, and leaves its lines in the log. */
    template <typename Operation, typename... Arguments>
    auto logged(Operation operation, Arguments&&... arguments)
    {
        std::invoke_result_t<Operation, Arguments...> result{};
        log = logOf(
            [&] { result = operation(std::forward<Arguments>(arguments)...); });
        return result;
    }

    Scratch scratch;
    Lines log;
};

constexpr std::size_t TRAILER = 76800;
constexpr std::size_t CHAIN = 24576;
constexpr std::size_t METADATA = 512;
constexpr std::size_t SIGNATURE = 512;
constexpr const char* ROOT_CA =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
inline const fs::path RUN_TIME = "/var/run/velmora/Zarnholt";

/** Gives the machine one of the test keys' roots. */
void useRootCa(const std::string& name = "root-ca.pem");

/** A payload that is signed with PS384, and a machine that accepts it. */
class SignedPayload : public LoggedTest
{
  protected:
    void SetUp() override;

    static const std::string& good();

    /** Offset of slot 1. */
    static std::size_t slot() { return good().size() - TRAILER; }

    static std::string goodChain() { return good().substr(slot(), CHAIN); }

    /** A good one with other bytes at an offset of its slot 1. */
    static std::string patched(std::size_t offset, const std::string& bytes)
    {
        return std::string(good()).replace(slot() + offset, bytes.size(),
                                           bytes);
    }

    static std::string withChain(std::string chain)
    {
        chain.resize(CHAIN);
        return patched(0, chain);
    }

    static std::string withMetadata(std::string block)
    {
        block.resize(METADATA);
        return patched(CHAIN, block);
    }

    static std::string goodSignature()
    {
        return good().substr(slot() + CHAIN + METADATA, SIGNATURE);
    }

    std::string path = scratch / "payload";
};

/** A service whose answers the test chooses: answers every call to its name by
 * what the handler puts in the reply, or with the errno that it returns; a
 *  handler that returns NO_REPLY lets the caller wait. */
class Service
{
  public:
    static constexpr int NO_REPLY = 1000;
    using Handler =
        std::function<int(sd_bus_message* call, sd_bus_message* reply)>;

    Service(const std::string& name, Handler handler);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service();

    /** What was called: "path interface member", then each string. */
    Lines calls;

  private:
    int handle(sd_bus_message* call);
    void work();

    Handler handler_;
    sd_bus* bus_ = nullptr;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

/** The platform service with the given property bytes. */
Service::Handler systemIdBytes(std::vector<std::uint8_t> bytes);
/** The security service with the given answer. */
Service::Handler keyAnswer(std::uint8_t status, const std::string& key);
/** The key that openssl's pkey makes of its options, as the security service
 *  gives it; without options that of the images' signer. */
std::string busKey(std::string options = "");
/** An answer of the given types. */
template <typename... Values>
Service::Handler answer(const char* types, Values... values)
{
    return [=](sd_bus_message*, sd_bus_message* reply)
    { return sd_bus_message_append(reply, types, values...); };
}
/** What is logged when @p error is the answer, or its beginning. */
inline auto busFailure(const std::string& error)
{
    return ElementsAre(StartsWith("INFO e.what(): sd_bus_call: " + error),
                       "FAILURE");
}
inline constexpr const char* NO_SERVICE =
    "org.freedesktop.DBus.Error.ServiceUnknown: ";
inline constexpr const char* PLATFORM = "com.vorn.bmc.smad";
inline constexpr const char* SECURITY = "xyz.openbmc_project.securityservices";
inline constexpr const char* INVENTORY =
    "xyz.openbmc_project.Software.Installed.Inventory";

} // namespace velmora::test
