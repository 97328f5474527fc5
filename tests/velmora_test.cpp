#include "support.hpp"
#include "velmora.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace velmora::test
{
namespace
{

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// ---- log ---------------------------------------------------------------

TEST(Log, StreamStateOfTheProcessDoesNotMatter)
{
    const auto flags = std::cerr.flags();
    std::cerr << std::hex << std::showbase << std::showpos;
    std::cerr.width(30);
    std::cerr.fill('*');
    const auto hostile = std::cerr.flags();
    EXPECT_THAT(
        logOf([] { ValidateQOR::unZip("/nonexistent", "/tmp"); }),
        ElementsAre(StartsWith("unzip:"), "INFO pidStatus: 2304", "FAILURE"));
    EXPECT_EQ(std::cerr.flags(), hostile);
    EXPECT_EQ(std::cerr.width(), 30);
    std::cerr.flags(flags);
    std::cerr.width(0);
    std::cerr.fill(' ');
}

TEST(Log, AStreamThatThrowsDoesNotEndTheProcess)
{
    struct : std::streambuf
    {
    } takesNothing;
    auto* const buffer = std::cerr.rdbuf(&takesNothing);
    std::cerr.exceptions(std::ios::badbit);
    EXPECT_THROW(ValidateQOR::getStrFromPkgXML("", nullptr, ""),
                 std::ios::failure);
    std::cerr.exceptions(std::ios::goodbit);
    std::cerr.rdbuf(buffer);
}

// ---- unpacking ---------------------------------------------------------

TEST(Unzip, StopsAtTheFirstFailedExtraction)
{
    const Scratch scratch;
    ASSERT_EQ(run("cd " + scratch.path.string() +
                  " && echo x > package.xml && mkdir out out2"
                  " && zip -q no-payload.zip package.xml"
                  " && mkdir payload && echo y > payload/a"
                  " && zip -qr good.zip package.xml payload"),
              0);
    bool done = false;
    EXPECT_THAT(logOf(
                    [&]
                    {
                        done = ValidateQOR::unZip(scratch / "good.zip",
                                                  scratch / "out");
                    }),
                ElementsAre("SUCCESS"));
    EXPECT_TRUE(done);
    EXPECT_EQ(readFile(scratch / "out/payload/a"), "y\n");

    EXPECT_THAT(
        logOf(
            [&]
            {
                done = ValidateQOR::unZip(scratch / "no-payload.zip",
                                          scratch / "out2");
            }),
        ElementsAre(HasSubstr("payload*"), "INFO pidStatus: 2816", "FAILURE"));
    EXPECT_FALSE(done);
    EXPECT_TRUE(fs::exists(scratch / "out2/package.xml"));
}

TEST(Unzip, AnIgnoredChildCountsAsExtracted)
{
    // The wait fails and leaves the status as it was.
    auto* const before = std::signal(SIGCHLD, SIG_IGN);
    bool done = false;
    logOf([&] { done = ValidateQOR::unZip("/nonexistent", "/tmp"); });
    std::signal(SIGCHLD, before);
    EXPECT_TRUE(done);
}

// ---- descriptor --------------------------------------------------------

class Descriptor : public testing::Test
{
  protected:
    /** Value of one attribute in a descriptor with the given content. */
    std::string query(const std::string& xml, const char* expression,
                      const std::string& attribute)
    {
        const fs::path path = scratch / "package.xml";
        writeFile(path, xml);
        std::string value;
        log = logOf(
            [&]
            {
                value =
                    ValidateQOR::getStrFromPkgXML(path, expression, attribute);
            });
        return value;
    }

    Scratch scratch;
    Lines log;
};

TEST_F(Descriptor, FirstNodeWithTheAttributeWins)
{
    const std::string xml = "<p><q/><q b=''/><q a=' x &amp; y '/><q a='z'/>"
                            "<Q a='upper'/></p>";
    EXPECT_EQ(query(xml, "//q", "a"), " x & y ");
    EXPECT_THAT(log, ElementsAre("SUCCESS"));
    EXPECT_EQ(query(xml, "//Q", "a"), "upper");
    // An empty value has a child node, which is empty.
    EXPECT_EQ(query("<p><q a=''/><q a='1'/></p>", "//q", "a"), "");
    EXPECT_THAT(log, ElementsAre("SUCCESS"));
}

TEST_F(Descriptor, EveryFailureIsOneLine)
{
    const std::string xml = "<p a='1'><q b='2'>text</q></p>";
    for (const auto& [expression, attribute] :
         {std::pair{static_cast<const char*>(nullptr), "a"},
          {"//none", "a"},
          {"//q", "a"},
          {"//q/@b", "b"},
          {"//q/text()", "b"},
          {"count(//q)", "b"},
          {"//q/namespace::*", "b"}})
    {
        EXPECT_EQ(query(xml, expression, attribute), "");
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    EXPECT_EQ(query(xml, "//q[", "b"), "");
    EXPECT_EQ(log.back(), "FAILURE");
    EXPECT_EQ(query("<p><q></p>", "//q", "b"), "");
    EXPECT_EQ(log.back(), "FAILURE");

    fs::create_symlink("loop", scratch / "loop");
    for (const std::string& path :
         {scratch.path.string(), std::string(), (scratch / "loop").string(),
          std::string(5000, 'x')})
    {
        EXPECT_THAT(logOf(
                        [&]
                        {
                            EXPECT_EQ(
                                ValidateQOR::getStrFromPkgXML(path, "//q", "b"),
                                "");
                        }),
                    ElementsAre("FAILURE"));
    }
}

TEST_F(Descriptor, HostileDocumentsEnd)
{
    // Each entity doubles the one before; the parser's own check misses some
    // of the ways to use them.
    const auto doubling = [](const std::string& mark)
    {
        std::string text = "<!DOCTYPE p [<!ENTITY " + mark + "e0 'ha'>";
        const std::string reference = mark.empty() ? "&e" : "&#37;e";
        for (int i = 1; i < 39; ++i)
        {
            const std::string below = reference + std::to_string(i - 1) + ";";
            text += "<!ENTITY " + mark + "e" + std::to_string(i) + " '" +
                    below + below + "'>";
        }
        return text;
    };
    const std::string entities = doubling("");
    for (const std::string& document :
         {entities + "]><p><q a='&e38;'/></p>",
          entities + "]><p><q b='&e10;'/><q a='&e38;'/></p>",
          entities + "<!ATTLIST q b CDATA '&e10;' a CDATA '&e38;'>]><q/>",
          doubling("% ") + "%e38;]><p><q a='1'/></p>",
          std::string(1'000'000, '<')})
    {
        EXPECT_EQ(query(document, "//q", "a"), "");
        EXPECT_EQ(log.back(), "FAILURE");
    }
    EXPECT_EQ(query("<!DOCTYPE p [<!ENTITY v '1.0'>]><p><q a='&v;'/></p>",
                    "//q", "a"),
              "1.0");
    // A default is no attribute of the element.
    EXPECT_EQ(query("<!DOCTYPE p [<!ATTLIST q a CDATA 'd' b CDATA #FIXED ''>]>"
                    "<p><q/><q a='1'/></p>",
                    "//q", "a"),
              "1");
    writeFile(scratch / "plain", "<p><q a='1'/></p>");
    ASSERT_EQ(run("gzip -c " + (scratch / "plain").string() + " > " +
                  (scratch / "plain.gz").string()),
              0);
    EXPECT_EQ(query(readFile(scratch / "plain.gz"), "//q", "a"), "");
    std::string nested;
    for (int i = 0; i < 300'000; ++i)
    {
        nested += "<q>";
    }
    EXPECT_EQ(query(nested, "//q", "a"), "");

    writeFile(scratch / "secret", "secret");
    // What the process has set is back behind each query.
    const auto loader = xmlGetExternalEntityLoader();
    xmlSetExternalEntityLoader(xmlNoNetExternalEntityLoader);
    xmlSubstituteEntitiesDefault(1);
    EXPECT_EQ(query("<!DOCTYPE p [<!ENTITY s SYSTEM '" +
                        (scratch / "secret").string() +
                        "'>]><p><q a='x'>&s;</q></p>",
                    "//q[contains(., 'secret')]", "a"),
              "");
    xmlSubstituteEntitiesDefault(0);
    EXPECT_EQ(xmlGetExternalEntityLoader(), &xmlNoNetExternalEntityLoader);
    xmlSetExternalEntityLoader(loader);
    std::string many = "<p>";
    for (int i = 0; i < 10'000; ++i)
    {
        many += "<Model systemID='1'/>";
    }
    EXPECT_EQ(query(many + "<Model systemID='0'/></p>",
                    "//Model[@systemID='0']", "systemID"),
              "0");
}

TEST_F(Descriptor, ModelAndVersion)
{
    writeFile(scratch / "package.xml",
              "<p><Device componentID='113440'/><Device componentID='2'/>"
              "<SoftwareComponent/><SoftwareComponent vendorVersion='7.1'/>"
              "</p>");
    logOf(
        [&]
        {
            EXPECT_EQ(ValidateQOR::getImageModel(scratch.path), "113440");
            EXPECT_EQ(ValidateQOR::getImageVersion(scratch.path.string() + "/"),
                      "7.1");
            const fs::path here = fs::current_path();
            fs::current_path(scratch.path);
            EXPECT_EQ(ValidateQOR::getImageModel(""), "113440");
            fs::current_path(here);
        });
}

// ---- signature ---------------------------------------------------------

class Signature : public testing::Test
{
  protected:
    void SetUp() override { makePackage(scratch.path); }

    bool valid()
    {
        bool result = false;
        log = logOf(
            [&]
            {
                result =
                    ValidateQOR::validatePkgXMLSignature(descriptor, signature);
            });
        return result;
    }

    /** Puts a signature by a key that the BMC does not know in front. */
    void signByStranger(const std::string& options)
    {
        const std::string home = (scratch / "stranger").string();
        fs::create_directory(home);
        fs::permissions(home, fs::perms::owner_all);
        const std::string gpg = "gpg --homedir " + home + " --batch --yes ";
        ASSERT_EQ(run(gpg +
                      "--passphrase '' --quick-generate-key stranger ed25519"
                      " sign && " +
                      gpg + "--detach-sign -o " + (scratch / "first").string() +
                      " " + descriptor.string() + " && " + options),
                  0);
    }

    Scratch scratch;
    fs::path descriptor = scratch / "package.xml";
    fs::path signature = scratch / "package.xml.sign";
    Lines log;
};

TEST_F(Signature, ValidGivesTwelveLinesAndSuccess)
{
    EXPECT_TRUE(valid());
    EXPECT_THAT(
        log,
        ElementsAre(
            "INFO signCount: 1",
            "INFO gpgme_strerror(gpgmeSig->status): Success",
            "INFO gpgmeSig->summary: 3",
            StartsWith("INFO gpgmeSig->timestamp: "),
            "INFO gpgmeSig->exp_timestamp: 0",
            "INFO gpgmeSig->wrong_key_usage: 0", "INFO gpgmeSig->pka_trust: 0",
            "INFO gpgmeSig->chain_model: 0",
            StartsWith("INFO gpgmeSig->validity: "),
            "INFO gpgmeSig->validity_reason: 0",
            StartsWith("INFO gpgme_hash_algo_name(gpgmeSig->hash_algo): SHA"),
            StartsWith("INFO gpgme_pubkey_algo_name (gpgmeSig->pubkey_algo): "),
            "SUCCESS"));
}

TEST_F(Signature, NothingAfterTheFirstValidOneIsLookedAt)
{
    signByStranger("cat " + (scratch / "first").string() + " >> " +
                   signature.string());
    EXPECT_TRUE(valid());
    EXPECT_EQ(log.size(), 13U);
}

TEST_F(Signature, AnUnknownKeyInFrontIsPassedOver)
{
    signByStranger("cat " + signature.string() + " >> " +
                   (scratch / "first").string() + " && mv " +
                   (scratch / "first").string() + " " + signature.string());
    EXPECT_TRUE(valid());
    ASSERT_EQ(log.size(), 25U);
    EXPECT_EQ(log[1], "INFO gpgme_strerror(gpgmeSig->status): No public key");
    EXPECT_EQ(log[12], "INFO signCount: 2");
}

TEST_F(Signature, RefusalsAreLogged)
{
    writeFile(descriptor, readFile(descriptor) + " ");
    EXPECT_FALSE(valid());
    ASSERT_EQ(log.size(), 13U);
    EXPECT_EQ(log[1], "INFO gpgme_strerror(gpgmeSig->status): Bad signature");
    EXPECT_EQ(log.back(), "FAILURE");

    writeFile(signature, "");
    EXPECT_FALSE(valid());
    EXPECT_THAT(log, ElementsAre("INFO gpgmeStrErr: No data", "FAILURE"));

    for (const fs::path& gone : {signature, descriptor})
    {
        fs::remove(gone);
        EXPECT_FALSE(valid());
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
}

TEST_F(Signature, AGoodSignatureByAKeyWithoutTrustIsRefused)
{
    signByStranger("mv " + (scratch / "first").string() + " " +
                   signature.string());
    const std::string stranger = (scratch / "stranger").string();
    const std::string home = "gpg --homedir /etc/gpg/secupkey/.gnupg --batch ";
    ASSERT_EQ(
        run("gpg --homedir " + stranger + " --export | " + home + "--import"),
        0);
    EXPECT_FALSE(valid());
    EXPECT_THAT(log,
                Contains("INFO gpgme_strerror(gpgmeSig->status): Success"));
    EXPECT_EQ(log.back(), "FAILURE");
    ASSERT_EQ(run(home + "--yes --delete-keys stranger"), 0);
}

TEST_F(Signature, AnExpiredOneIsRefused)
{
    // Good, by a trusted key, and so "green", but no longer valid.
    ASSERT_EQ(run("gpg --homedir " + (keys() / "gnupg").string() +
                  " --batch --yes --default-sig-expire seconds=1"
                  " --detach-sign -o " +
                  signature.string() + " " + descriptor.string() +
                  " && sleep 2"),
              0);
    EXPECT_FALSE(valid());
    EXPECT_THAT(log, Contains("INFO gpgme_strerror(gpgmeSig->status): "
                              "Signature expired"));
    EXPECT_EQ(log.back(), "FAILURE");
}

TEST_F(Signature, TheLocaleIsTheEnvironments)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_TRUE(valid());
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
    unsetenv("LC_ALL");
    std::setlocale(LC_ALL, "C");
}

// ---- system identity ---------------------------------------------------

class Identity : public testing::Test
{
  protected:
    bool valid(const std::string& models)
    {
        const fs::path path = scratch / "package.xml";
        writeFile(path, "<p>" + models + "</p>");
        bool result = false;
        log = logOf([&]
                    { result = ValidateQOR::validateSytemIdFromPkgXML(path); });
        return result;
    }

    static std::string model(const std::string& id)
    {
        return "<Model systemID='" + id + "'/>";
    }

    const std::string listed =
        "INFO validateSytemIdFromPkgXML: System IDs listed in the package "
        "XML, hence system ID validation will continue.";
    Scratch scratch;
    Lines log;
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
    ASSERT_GE(service.calls.size(), 3U);
    EXPECT_EQ(service.calls[0], "/xyz/openbmc_project/smad/oem "
                                "org.freedesktop.DBus.Properties Get");
    EXPECT_EQ(service.calls[1], "xyz.openbmc_project.Inventory.Item.Oem");
    EXPECT_EQ(service.calls[2], "BaseSystemId");
}

TEST_F(Identity, NoModelElementsPass)
{
    const Service service(PLATFORM, systemIdBytes({0x1B, 0x0A}));
    EXPECT_TRUE(valid("<model systemID='1'/>"));
    for (const std::string& path :
         {(scratch / "none").string(), std::string(), scratch.path.string()})
    {
        EXPECT_THAT(logOf(
                        [&]
                        {
                            EXPECT_FALSE(
                                ValidateQOR::validateSytemIdFromPkgXML(path));
                        }),
                    ElementsAre("INFO hexSystemIDStr: 0A1B", "FAILURE"));
    }
    EXPECT_THAT(
        log,
        ElementsAre("INFO hexSystemIDStr: 0A1B", "INFO xmlXPathNodeNr: 0",
                    "INFO validateSytemIdFromPkgXML: No system IDs listed in "
                    "the package XML, hence system ID validation bypassed"));
}

TEST_F(Identity, ConversionExceptionsLeaveWithEverythingFreed)
{
    const Service service(PLATFORM, systemIdBytes({0x1B, 0x0A}));
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_THROW(valid(model("XYZ") + model("0A1B")),
                     std::invalid_argument);
        EXPECT_THROW(valid(model("80000000")), std::out_of_range);
    }
}

TEST_F(Identity, BusFailuresComeBeforeTheDescriptor)
{
    EXPECT_FALSE(valid(""));
    EXPECT_THAT(log, ElementsAre(StartsWith("INFO e.what(): sd_bus_call: "
                                            "org.freedesktop.DBus.Error."
                                            "ServiceUnknown: "),
                                 "FAILURE"));
    for (const std::vector<std::uint8_t>& bytes :
         {std::vector<std::uint8_t>{}, {1}, {1, 2, 3}})
    {
        const Service service(PLATFORM, systemIdBytes(bytes));
        EXPECT_FALSE(valid(""));
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    {
        const Service service(
            PLATFORM, [](auto*, sd_bus_message* reply)
            { return sd_bus_message_append(reply, "v", "s", "0A1B"); });
        EXPECT_FALSE(valid(""));
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    {
        const Service service(PLATFORM, [](auto*, auto*) { return 0; });
        EXPECT_FALSE(valid(""));
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    {
        const Service service(PLATFORM, [](auto*, auto*) { return -EACCES; });
        EXPECT_FALSE(valid(""));
        EXPECT_THAT(log, ElementsAre("INFO e.what(): sd_bus_call: "
                                     "com.example.Refused: errno 13",
                                     "FAILURE"));
    }
}

// ---- the whole ---------------------------------------------------------

class Package : public testing::Test
{
  protected:
    bool valid()
    {
        bool result = false;
        log = logOf(
            [&] { result = ValidateQOR::validateExtractedQOR(scratch.path); });
        return result;
    }

    Scratch scratch;
    Service service{PLATFORM, systemIdBytes({0x1B, 0x0A})};
    Lines log;
};

TEST_F(Package, ValidPassesInOrder)
{
    makePackage(scratch.path);
    EXPECT_TRUE(valid());
    ASSERT_EQ(log.size(), 24U);
    EXPECT_EQ(log[4], "SUCCESS");
    EXPECT_EQ(log[17], "SUCCESS");
    EXPECT_EQ(log[18], "SUCCESS");
    EXPECT_THAT(log[20], HasSubstr("final sha: "));
    EXPECT_EQ(log[21], "INFO sha256FromPkgXML: " + PackageText().hash);
    EXPECT_EQ(log[22], "INFO sha256FromImage: " + PackageText().hash);
    EXPECT_EQ(log[23], "SUCCESS");
}

TEST_F(Package, EachFailedStepEndsIt)
{
    makePackage(scratch.path, {.model = "<Model systemID=\"1\"/>"});
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 6U);

    makePackage(scratch.path);
    writeFile(scratch / "package.xml", readFile(scratch / "package.xml") + " ");
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 5U + 13U + 1U);

    makePackage(scratch.path, {.hash = ""});
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 5U + 13U + 2U);

    makePackage(scratch.path, {.payload = "abd"});
    EXPECT_FALSE(valid());
    ASSERT_EQ(log.size(), 5U + 13U + 1U + 2U + 3U);
    EXPECT_EQ(log.back(), "FAILURE");

    std::string upper = PackageText().hash;
    upper[0] = 'D';
    makePackage(scratch.path, {.hash = upper});
    EXPECT_FALSE(valid());

    makePackage(scratch.path);
    fs::remove_all(scratch / "payload");
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 5U + 13U + 1U + 2U);

    EXPECT_THAT(logOf(
                    [&]
                    {
                        EXPECT_FALSE(ValidateQOR::validateExtractedQOR(
                            scratch / "package.xml"));
                    }),
                ElementsAre("FAILURE"));
    makePackage(scratch.path, {.model = "<Model systemID=\"XYZ\"/>"});
    EXPECT_THROW(valid(), std::invalid_argument);
}

TEST_F(Package, ManyValidationsLeaveNothingOpen)
{
    makePackage(scratch.path);
    ASSERT_TRUE(valid());
    const std::size_t before = descriptors();
    for (int i = 0; i < 25; ++i)
    {
        ASSERT_TRUE(valid());
    }
    EXPECT_EQ(descriptors(), before);
}

} // namespace
} // namespace velmora::test
