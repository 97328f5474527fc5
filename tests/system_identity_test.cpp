#include "support.hpp"

#include <stdexcept>

namespace velmora::test
{
namespace
{

class Identity : public LoggedTest
{
  protected:
    bool valid(const std::string& models)
    {
        const fs::path path = scratch / "package.xml";
        writeFile(path, "<p>" + models + "</p>");
        return logged(ValidateQOR::validateSytemIdFromPkgXML, path);
    }

    static std::string model(const std::string& id)
    {
        return "<Model systemID='" + id + "'/>";
    }

    const std::string listed =
        "INFO validateSytemIdFromPkgXML: System IDs listed in the package "
        "XML, hence system ID validation will continue.";
};

TEST_F(Identity, IdentifiersAreComparedAsNumbers)
{
    const Service service(PLATFORM, systemIdBytes({0x1B, 0x0A}));
    for (const std::string id : {"0A1B", "a1b", "0x0A1B", " 0A1B", "0A1B,0A1C",
                                 "+a1B", "00000000A1b zz"})
    {
        EXPECT_TRUE(valid(model("7") + "<Model/><Model id='9'/>" + model(id) +
                          model("XYZ")))
            << id;
        EXPECT_THAT(log, ElementsAre("INFO hexSystemIDStr: 0A1B", listed,
                                     "INFO xmlXPathNodeNr: 5",
                                     "INFO searchFound: " + id, "SUCCESS"));
    }
    for (const std::string id : {"1B0A", "A1", "-a1b", "10A1B"})
    {
        EXPECT_FALSE(valid(model(id))) << id;
        EXPECT_THAT(log, ElementsAre("INFO hexSystemIDStr: 0A1B", listed,
                                     "INFO xmlXPathNodeNr: 1", "FAILURE",
                                     "FAILURE"));
    }
    // What is logged is short.
    EXPECT_TRUE(valid(model("A1B" + std::string(1021, ' '))));
    EXPECT_FALSE(valid(model("A1B" + std::string(1022, ' '))));
    EXPECT_THAT(log,
                ElementsAre("INFO hexSystemIDStr: 0A1B", listed,
                            "INFO xmlXPathNodeNr: 1", "FAILURE", "FAILURE"));
    ASSERT_GE(service.calls.size(), 3U);
    EXPECT_EQ(service.calls[0], "/xyz/openbmc_project/smad/oem "
                                "org.freedesktop.DBus.Properties Get");
    EXPECT_EQ(service.calls[1], "xyz.openbmc_project.Inventory.Item.Oem");
    EXPECT_EQ(service.calls[2], "BaseSystemId");
}

TEST_F(Identity, NoModelElementsPass)
{
    const Service service(PLATFORM, systemIdBytes({0x1B, 0x0A}));
    EXPECT_FALSE(valid("<Model/><Model id='0A1B'/>"));
    EXPECT_TRUE(valid("<model systemID='1'/>"));
    EXPECT_THAT(
        log,
        ElementsAre("INFO hexSystemIDStr: 0A1B", "INFO xmlXPathNodeNr: 0",
                    "INFO validateSytemIdFromPkgXML: No system IDs listed in "
                    "the package XML, hence system ID validation bypassed"));
    for (const std::string& path :
         {(scratch / "none").string(), std::string(), scratch.path.string()})
    {
        EXPECT_FALSE(logged(ValidateQOR::validateSytemIdFromPkgXML, path));
        EXPECT_THAT(log, ElementsAre("INFO hexSystemIDStr: 0A1B", "FAILURE"));
    }
}

TEST_F(Identity, ConversionExceptionsLeaveWithEverythingFreed)
{
    const Service service(PLATFORM, systemIdBytes({0x1B, 0x0A}));
    EXPECT_THROW(valid(model("XYZ") + model("0A1B")), std::invalid_argument);
    EXPECT_THROW(valid(model("80000000")), std::out_of_range);
}

TEST_F(Identity, BusFailuresComeBeforeTheDescriptor)
{
    EXPECT_FALSE(valid(""));
    EXPECT_THAT(log, busFailure(NO_SERVICE));
    for (const Service::Handler& handler :
         {systemIdBytes({}), systemIdBytes({1}), systemIdBytes({1, 2, 3}),
          answer("v", "s", "0A1B"), answer("")})
    {
        const Service service(PLATFORM, handler);
        EXPECT_FALSE(valid(""));
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    const Service service(PLATFORM, [](auto*, auto*) { return -EACCES; });
    EXPECT_FALSE(valid(""));
    EXPECT_THAT(log, busFailure("com.example.Refused: errno 13"));
}

} // namespace
} // namespace velmora::test
