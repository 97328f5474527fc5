#include "support.hpp"

#include <sdbusplus/exception.hpp>

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
const std::string MANAGER_CALL =
    "/xyz/openbmc_project/software "
    "xyz.openbmc_project.Software.Installed.Inventory ";

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
};

TEST_F(Inventory, OtherComponentsAreAsked)
{
    const std::string prefix =
        "xyz.openbmc_project.Software.Version.VersionPurpose.";
    {
        const std::string known = prefix + "LEAKMCU";
        const Service service(INVENTORY, answer("s", known.c_str()));
        // Two are known and cause no traffic.
        EXPECT_EQ(purposeOf("113440"), Purpose::BMC);
        EXPECT_THAT(log, ElementsAre("SUCCESS", "INFO compID: 113440"));
        EXPECT_EQ(purposeOf("113033"), Purpose::TORLU);
        EXPECT_THAT(log, ElementsAre("SUCCESS", "INFO compID: 113033"));
        EXPECT_EQ(purposeOf("1134400"), Purpose::LEAKMCU);
        EXPECT_EQ(purposeOf(" 113440"), Purpose::LEAKMCU);
        logOf([&] { ValidateQOR::getImagePurpose("/nonexistent"); });
        EXPECT_THAT(service.calls,
                    ElementsAre(MANAGER_CALL + "getVersionPurpose", "1134400",
                                MANAGER_CALL + "getVersionPurpose", " 113440",
                                MANAGER_CALL + "getVersionPurpose", ""));
    }
    for (const std::string& text :
         {std::string("BMC"), prefix, prefix + "bmc", std::string()})
    {
        const Service service(INVENTORY, answer("s", text.c_str()));
        EXPECT_THROW(purposeOf("1"), InvalidEnumString) << text;
    }
    const Service service(INVENTORY, answer("u", 3));
    EXPECT_EQ(purposeOf("1"), Purpose::Unknown);
    EXPECT_THAT(log,
                ElementsAre("SUCCESS",
                            StartsWith("INFO e.what(): "
                                       "sd_bus_message_read_basic string: "),
                            "FAILURE"));
}

TEST_F(Inventory, ArgumentsArriveInOrder)
{
    const Service service(INVENTORY, answer(""));
    // A connection that the daemon holds stays usable.
    sd_bus* held = nullptr;
    ASSERT_GE(sd_bus_default_system(&held), 0);
    EXPECT_EQ(registerBmc(BMC_PATH), 1);
    EXPECT_GT(sd_bus_is_ready(held), 0);
    sd_bus_flush_close_unref(held);
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
                ElementsAre(MANAGER_CALL + "addSWInventory",
                            "/xyz/openbmc_project/software/bmc", "one", "two",
                            version + "VersionPurpose.BMC",
                            version + "ReleaseType.Production",
                            MANAGER_CALL + "addSWInventory",
                            "/xyz/openbmc_project/software/bmc2", "a", "b",
                            version + "VersionPurpose.TPM",
                            version + "ReleaseType.Prototype",
                            MANAGER_CALL + "removeSWInventory",
                            "/xyz/openbmc_project/software/bmc"));
}

TEST_F(Inventory, FaultsOfTheCaller)
{
    const auto badEnum = [](const char* number)
    { return testing::ThrowsMessage<std::invalid_argument>(number); };
    EXPECT_THAT([&] { registerBmc("short", Purpose::BMC, Release(3)); },
                badEnum("3"));
    EXPECT_THAT([&] { registerBmc("short", Purpose(-1)); }, badEnum("-1"));
    EXPECT_THAT([&] { registerBmc(BMC_PATH, Purpose(15)); }, badEnum("15"));
    const auto tooShort = testing::ThrowsMessage<std::out_of_range>(
        "basic_string::substr: __pos (which is 38) > this->size() (which is "
        "5)");
    EXPECT_THAT([&] { registerBmc("short"); }, tooShort);
    EXPECT_THAT([&] { modelOf("short"); }, tooShort);
    EXPECT_THAT([] { ValidateQOR::deRegisterSWInv("short"); }, tooShort);
    // The prefix alone is no object path.
    EXPECT_THROW(modelOf(BMC_PATH.substr(0, 38)), SdBusError);
}

TEST_F(Inventory, ModelIsRead)
{
    {
        const Service service(INVENTORY, answer("v", "s", "M1"));
        EXPECT_EQ(modelOf(BMC_PATH), "M1");
        EXPECT_THAT(service.calls,
                    ElementsAre("/xyz/openbmc_project/software/bmc "
                                "org.freedesktop.DBus.Properties Get",
                                "xyz.openbmc_project.Software.Model", "Model"));
    }
    const Service service(INVENTORY, answer("v", "u", 7));
    EXPECT_EQ(modelOf(BMC_PATH), "");
    EXPECT_THAT(log, ElementsAre());
}

TEST_F(Inventory, FailedCallsAreLogged)
{
    EXPECT_EQ(registerBmc(BMC_PATH), 0);
    EXPECT_THAT(log, busFailure(NO_SERVICE));
    EXPECT_EQ(modelOf(BMC_PATH), "");
    EXPECT_THAT(log, busFailure(NO_SERVICE));
    EXPECT_EQ(logged(ValidateQOR::deRegisterSWInv, BMC_PATH), 0);
    EXPECT_THAT(log, busFailure(NO_SERVICE));
    EXPECT_EQ(purposeOf("1"), Purpose::Unknown);
    EXPECT_EQ(log.size(), 3U);
    const Service service(INVENTORY, [](auto*, auto*) { return -EEXIST; });
    EXPECT_EQ(registerBmc(BMC_PATH), 0);
    EXPECT_THAT(log, busFailure("com.example.Refused: errno 17"));
}

} // namespace
} // namespace velmora::test
