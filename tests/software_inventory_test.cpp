#include "support.hpp"

#include <sdbusplus/exception.hpp>

#include <chrono>
#include <stdexcept>

namespace velmora::test
{
namespace
{

using Purpose = ValidateQOR::VersionPurpose;
using Release = ValidateQOR::ReleaseType;
using sdbusplus::exception::InvalidEnumString;
using sdbusplus::exception::SdBusError;

const std::string BMC_PATH = "/xyz/openbmc_project/inventory/system/bmc";
constexpr const char* MANAGER_CALL =
    "/xyz/openbmc_project/software "
    "xyz.openbmc_project.Software.Installed.Inventory ";

Service::Handler answer(const std::string& text)
{
    return [text](auto*, sd_bus_message* reply)
    { return sd_bus_message_append(reply, "s", text.c_str()); };
}

int done(sd_bus_message*, sd_bus_message*) { return 0; }

class Inventory : public LoggedTest
{
  protected:
    Purpose purposeOf(const std::string& component)
    {
        writeFile(scratch / "package.xml",
                  "<p><Device componentID='" + component + "'/></p>");
        return logged(ValidateQOR::getImagePurpose, scratch.path);
    }

    int registerBmc(const std::string& path, Purpose purpose = Purpose::BMC,
                    Release release = Release::Production)
    {
        return logged(ValidateQOR::registerSWInv, path, "one", "two", purpose,
                      release);
    }

    std::string modelOf(const std::string& path)
    {
        return logged(ValidateQOR::getInventoryModel, path);
    }

    const testing::Matcher<Lines> unknownService = ElementsAre(
        StartsWith("INFO e.what(): sd_bus_call: org.freedesktop.DBus.Error."
                   "ServiceUnknown: "),
        "FAILURE");
};

TEST_F(Inventory, KnownComponentsCauseNoTraffic)
{
    const Service service(INVENTORY, done);
    EXPECT_EQ(purposeOf("113440"), Purpose::BMC);
    EXPECT_THAT(log, ElementsAre("SUCCESS", "INFO compID: 113440"));
    EXPECT_EQ(purposeOf("113033"), Purpose::TORLU);
    EXPECT_THAT(log, ElementsAre("SUCCESS", "INFO compID: 113033"));
    EXPECT_THAT(service.calls, ElementsAre());
}

TEST_F(Inventory, OtherComponentsAreAsked)
{
    const std::string prefix =
        "xyz.openbmc_project.Software.Version.VersionPurpose.";
    {
        const Service service(INVENTORY, answer(prefix + "LEAKMCU"));
        for (const std::string component : {"1134400", " 113440"})
        {
            EXPECT_EQ(purposeOf(component), Purpose::LEAKMCU);
        }
        EXPECT_EQ(static_cast<int>(Purpose::LEAKMCU), 14);
        logOf([&] { ValidateQOR::getImagePurpose("/nonexistent"); });
        EXPECT_THAT(
            service.calls,
            ElementsAre(
                MANAGER_CALL + std::string("getVersionPurpose"), "1134400",
                MANAGER_CALL + std::string("getVersionPurpose"), " 113440",
                MANAGER_CALL + std::string("getVersionPurpose"), ""));
    }
    for (const std::string& text :
         {std::string("BMC"), prefix, prefix + "bmc", std::string()})
    {
        const Service service(INVENTORY, answer(text));
        EXPECT_THROW(purposeOf("1"), InvalidEnumString) << text;
    }
    {
        const Service service(INVENTORY, [](auto*, sd_bus_message* reply)
                              { return sd_bus_message_append(reply, "u", 3); });
        EXPECT_EQ(purposeOf("1"), Purpose::Unknown);
        EXPECT_THAT(
            log, ElementsAre("SUCCESS",
                             StartsWith("INFO e.what(): "
                                        "sd_bus_message_read_basic string: "),
                             "FAILURE"));
    }
    EXPECT_EQ(purposeOf("1"), Purpose::Unknown);
    EXPECT_EQ(log.size(), 3U);
}

TEST_F(Inventory, ArgumentsArriveInOrder)
{
    const Service service(INVENTORY, done);
    EXPECT_EQ(registerBmc(BMC_PATH), 1);
    EXPECT_THAT(log, ElementsAre());
    logOf(
        []
        {
            const std::string foreign = "/abc" + BMC_PATH.substr(4) + "2";
            EXPECT_EQ(ValidateQOR::registerInventory("a", Purpose::TPM,
                                                     Release::Prototype,
                                                     "ignored", foreign, "b"),
                      1);
            EXPECT_EQ(ValidateQOR::deregisterInventory(
                          "a", Purpose(99), Release(99), "ignored", BMC_PATH),
                      1);
        });
    const std::string version = "xyz.openbmc_project.Software.Version.";
    EXPECT_THAT(service.calls,
                ElementsAre(MANAGER_CALL + std::string("addSWInventory"),
                            "/xyz/openbmc_project/software/bmc", "one", "two",
                            version + "VersionPurpose.BMC",
                            version + "ReleaseType.Production",
                            MANAGER_CALL + std::string("addSWInventory"),
                            "/xyz/openbmc_project/software/bmc2", "a", "b",
                            version + "VersionPurpose.TPM",
                            version + "ReleaseType.Prototype",
                            MANAGER_CALL + std::string("removeSWInventory"),
                            "/xyz/openbmc_project/software/bmc"));
}

TEST_F(Inventory, FaultsOfTheCaller)
{
    const auto throwsText = [&](const auto& exception, const std::string& text,
                                const std::function<void()>& work)
    {
        try
        {
            work();
            ADD_FAILURE() << "nothing thrown";
        }
        catch (decltype(exception) e)
        {
            EXPECT_EQ(e.what(), text);
        }
    };
    throwsText(std::invalid_argument(""), "3",
               [&] { registerBmc("short", Purpose::BMC, Release(3)); });
    throwsText(std::invalid_argument(""), "-1",
               [&] { registerBmc("short", Purpose(-1)); });
    throwsText(std::invalid_argument(""), "15",
               [&] { registerBmc(BMC_PATH, Purpose(15)); });
    const std::string outOfRange =
        "basic_string::substr: __pos (which is 38) > this->size() (which is "
        "5)";
    throwsText(std::out_of_range(""), outOfRange,
               [&] { registerBmc("short"); });
    throwsText(std::out_of_range(""), outOfRange, [&] { modelOf("short"); });
    throwsText(std::out_of_range(""), outOfRange,
               [] { ValidateQOR::deRegisterSWInv("short"); });
    // The prefix alone is no object path.
    EXPECT_THROW(modelOf(BMC_PATH.substr(0, 38)), SdBusError);
}

TEST_F(Inventory, ModelIsRead)
{
    const auto variant = [](const char* type, auto value)
    {
        return [=](auto*, sd_bus_message* reply)
        { return sd_bus_message_append(reply, "v", type, value); };
    };
    {
        const Service service(INVENTORY, variant("s", "M1"));
        EXPECT_EQ(modelOf(BMC_PATH), "M1");
        EXPECT_THAT(service.calls,
                    ElementsAre("/xyz/openbmc_project/software/bmc "
                                "org.freedesktop.DBus.Properties Get",
                                "xyz.openbmc_project.Software.Model", "Model"));
    }
    const Service service(INVENTORY, variant("u", 7));
    EXPECT_EQ(modelOf(BMC_PATH), "");
    EXPECT_THAT(log, ElementsAre());
}

TEST_F(Inventory, FailedCallsAreLogged)
{
    EXPECT_EQ(registerBmc(BMC_PATH), 0);
    EXPECT_THAT(log, unknownService);
    EXPECT_EQ(modelOf(BMC_PATH), "");
    EXPECT_THAT(log, unknownService);
    EXPECT_EQ(logged(ValidateQOR::deRegisterSWInv, BMC_PATH), 0);
    EXPECT_THAT(log, unknownService);
    const Service service(INVENTORY, [](auto*, auto*) { return -EEXIST; });
    EXPECT_EQ(registerBmc(BMC_PATH), 0);
    EXPECT_THAT(log, ElementsAre("INFO e.what(): sd_bus_call: "
                                 "com.example.Refused: errno 17",
                                 "FAILURE"));
}

TEST_F(Inventory, AServiceThatDoesNotAnswer)
{
    setenv("SYSTEMD_BUS_TIMEOUT", "200ms", 1);
    const Service service(INVENTORY,
                          [](auto*, auto*) { return Service::NO_REPLY; });
    EXPECT_EQ(registerBmc(BMC_PATH), 0);
    unsetenv("SYSTEMD_BUS_TIMEOUT");
    EXPECT_THAT(log.front(), StartsWith("INFO e.what(): sd_bus_call: "));
    EXPECT_EQ(log.size(), 2U);
}

TEST_F(Inventory, NoBusAtAll)
{
    const char* set = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    ASSERT_NE(set, nullptr);
    const std::string address = set;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    try
    {
        registerBmc(BMC_PATH);
        ADD_FAILURE() << "nothing thrown";
    }
    catch (const SdBusError& e)
    {
        EXPECT_STREQ(e.what(),
                     "sd_bus_message_new_method_call: System.Error.ENOTCONN: "
                     "Transport endpoint is not connected");
        EXPECT_EQ(e.get_errno(), ENOTCONN);
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

TEST_F(Inventory, AConnectionThatTheDaemonHoldsStaysUsable)
{
    sd_bus* held = nullptr;
    ASSERT_GE(sd_bus_default_system(&held), 0);
    const Service service(INVENTORY, done);
    EXPECT_EQ(registerBmc(BMC_PATH), 1);
    EXPECT_GT(sd_bus_is_ready(held), 0);
    sd_bus_flush_close_unref(held);
}

TEST(PurposeTable, IsComplete)
{
    using namespace sdbusplus::common::xyz::openbmc_project::software;
    for (std::size_t i = 0; i < 15; ++i)
    {
        const auto& [value, text] = details::mappingVersionVersionPurpose[i];
        EXPECT_EQ(static_cast<std::size_t>(value), i);
        EXPECT_THAT(std::string(text),
                    StartsWith("xyz.openbmc_project.Software.Version."
                               "VersionPurpose."));
    }
}

} // namespace
} // namespace velmora::test
