#include "faults.hpp"

#include <gpgme.h>
#include <libxml/xpathInternals.h>
#include <openssl/x509.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <memory>
#include <set>

namespace velmora::test
{
namespace
{

/** An operation on good input, which must then not succeed. */
struct Scenario
{
    const char* name;
    std::function<bool()> accepts;
    /** Functions whose failure is no failure of the operation. */
    std::vector<std::string> harmless;
    /** Whatever then happens, the root CA does not outlive its reading. */
    bool readsRootCa = false;
};

Service::Handler stringAnswer(const char* types)
{
    return [types](sd_bus_message* call, sd_bus_message* reply)
    {
        const bool purpose =
            std::string(sd_bus_message_get_member(call)) == "getVersionPurpose";
        return purpose ? sd_bus_message_append(
                             reply, "s",
                             "xyz.openbmc_project.Software.Version."
                             "VersionPurpose.TPM")
                       : sd_bus_message_append(reply, types, "s", "M1");
    };
}

/** Text of a file that is there and could not be digested. */
const std::string ZEROS(64, '0');

class Faults : public SignedPayload
{
  protected:
    void SetUp() override
    {
        SignedPayload::SetUp();
        writeFile(path, good());
        makePackage(scratch / "package");
        makePackage(scratch / "other");
        writeFile(scratch / "other/package.xml",
                  "<p><Device componentID='1'/></p>");
        run("cd " + (scratch / "package").string() +
            " && zip -qr ../package.zip . && mkdir ../out");
        fs::create_directory(scratch / "manifest");
        pack("manifest -o " + (scratch / "manifest").string());
        makeImage(scratch / "image", "b");
    }

    std::vector<Scenario> scenarios()
    {
        const std::string bmc = "/xyz/openbmc_project/inventory/system/bmc";
        return {
            {"unZip", [this] { return unZip(); }, {"waitpid"}},
            {"validateExtractedQOR",
             [this]
             { return ValidateQOR::validateExtractedQOR(scratch / "package"); },
             {"gpgme_hash_algo_name", "gpgme_pubkey_algo_name", "close"}},
            {"verifyManifestAndSignature",
             [this]
             {
                 return ValidateQOR::verifyManifestAndSignature(
                            scratch / "image", scratch / "manifest") == 0;
             },
             {}},
            {"validateCertChainForPayload",
             [this] { return ValidateQOR::validateCertChainForPayload(path); },
             {"unlink"},
             true},
            {"getImagePurpose",
             [this]
             {
                 return ValidateQOR::getImagePurpose(scratch / "other") ==
                        ValidateQOR::VersionPurpose::TPM;
             },
             // The bus is asked about an empty identifier, too.
             {"read", "xmlParseFile", "xmlParserInputBufferCreateMem",
              "xmlNewIOInputStream", "xmlNewInputFromMemory",
              "xmlXPathNewContext", "xmlXPathEvalExpression",
              "xmlNodeGetContent"}},
            {"getInventoryModel",
             [=] { return ValidateQOR::getInventoryModel(bmc) == "M1"; },
             {}},
            {"registerSWInv",
             [=]
             {
                 return ValidateQOR::registerSWInv(
                            bmc, "a", "b", ValidateQOR::VersionPurpose::BMC,
                            ValidateQOR::ReleaseType::Other) == 1;
             },
             {}},
        };
    }

    bool unZip() const
    {
        return ValidateQOR::unZip(scratch / "package.zip", scratch / "out");
    }

    /** What an operation gives with the nth call of a function failing, or
     *  with @p meanwhile in front of that call; its lines are in the log. */
    template <typename Operation, typename... Arguments>
    auto faulted(const std::string& function, int nth, Operation operation,
                 const Arguments&... arguments)
    {
        std::invoke_result_t<Operation, Arguments...> result{};
        log = logOf(
            [&]
            {
                EXPECT_TRUE(withFault(
                    function, nth, [&] { result = operation(arguments...); },
                    meanwhile))
                    << function;
            });
        meanwhile = nullptr;
        return result;
    }

    std::function<void()> meanwhile;
    std::string descriptor = scratch / "package/package.xml";
    Service platform{PLATFORM, systemIdBytes({0x1B, 0x0A})};
    Service security{SECURITY, keyAnswer(0, busKey())};
    Service inventory{INVENTORY, stringAnswer("v")};
};

TEST_F(Faults, EveryFailedCallEndsInARefusal)
{
    std::map<std::string, int> met;
    std::set<std::string> lines;
    for (const Scenario& scenario : scenarios())
    {
        bool accepted = false;
        const auto work = [&] { accepted = scenario.accepts(); };
        logOf(work);
        ASSERT_TRUE(accepted) << scenario.name;
        const std::size_t before = openFileDescriptors();
        for (const std::string& function : faultyFunctions())
        {
            // Only the children open files here: their calls are not counted.
            if (scenario.name == std::string("unZip") && function == "open64")
            {
                continue;
            }
            // A file whose type cannot be known is opened.
            const bool harmless =
                function == "stat" ||
                testing::Value(scenario.harmless, Contains(function));
            bool fired = true;
            for (int nth = 1; fired; ++nth)
            {
                SCOPED_TRACE(scenario.name + (": " + function) + " " +
                             std::to_string(nth));
                useRootCa();
                accepted = false;
                log = logOf([&] { fired = withFault(function, nth, work); });
                lines.insert(log.begin(), log.end());
                EXPECT_EQ(accepted, !fired || harmless);
                EXPECT_EQ(openFileDescriptors(), before);
                if (function == "operator new" && scenario.readsRootCa)
                {
                    // The last line before the root CA is read.
                    EXPECT_NE(fs::exists(ROOT_CA),
                              testing::Value(
                                  log, Contains(HasSubstr("Extract metadata "
                                                          "successful"))));
                }
                met[function] += fired;
                ASSERT_LT(nth, 1000);
                // What an unwaited extractor leaves.
                while (waitpid(-1, nullptr, 0) > 0)
                {
                }
            }
        }
    }
    for (const std::string& function : faultyFunctions())
    {
        EXPECT_GT(met[function], 0) << function << " is never called";
    }
    const std::string image = "FAILURE verifyManifestAndSignature: ";
    EXPECT_THAT(lines, testing::IsSupersetOf(
                           {image + "Failed to create signature verifying "
                                    "context",
                            image + "Failed to allocate buffer for signature "
                                    "verification",
                            std::string("FAILURE extractManifest: Failed to "
                                        "allocate memory for maifest")}));
    faulted("EVP_DigestVerifyUpdate", 1,
            ValidateQOR::verifyManifestAndSignature, scratch / "image",
            scratch / "manifest");
    EXPECT_EQ(log.back(), image + "Failed in EVP_DigestVerifyUpdate()");
}

TEST_F(Faults, SlotStatusesOfSystemCalls)
{
    const auto statusWith =
        [&](const std::string& function, int nth, const std::string& chain)
    {
        return faulted(function, nth, ValidateQOR::verify_slot_signature, chain,
                       goodSignature(), path.data());
    };
    const std::string slot = "verify_slot_signature: ";
    const std::string file = "File[" + path + "]";
    struct Row
    {
        const char* function;
        int status;
        std::string text;
        int nth = 1;
    };
    // clang-format off
    const std::initializer_list<Row> rows{
        {"open64", 2, file + "could not be opened,strerr[Permission denied]"},
        {"fstat64", 3, file + "could not be stat'ed,strerr[Input/output error]"},
        {"mmap64", 5, file + "mmap failed,strerr[Cannot allocate memory]"},
        {"BIO_new", 7, "Create a memory BIO failed"},
        {"BIO_write", 7, "Writing from buffer to BIO failed"},
        {"PEM_read_bio_X509", 7, "Read the PEM formatted certificate from memory into an X509 is failed"},
        {"fopen64", 7, "Error creating certchain file"},
        {"fwrite", 7, "Error writing certchain to file"},
        {"fflush", 7, "Error writing certchain to file"},
        {"X509_get_pubkey", 8, "Error retrieving Cert public key"},
        {"EVP_PKEY_get_size", 10, "RSA Key length[0]is not match with SLOT_SIGNATURE_SIZE"},
        {"EVP_DigestVerifyInit", 11, "EVP_DigestVerifyInit failed,err[0]errmsg[]"},
        {"EVP_PKEY_CTX_set_rsa_padding", 11, "Setting RSA padding mode failed"},
        {"EVP_PKEY_CTX_set_rsa_pss_saltlen", 11, "Setting RSA PSS salt length failed"},
        {"EVP_DigestVerifyUpdate", 13, "EVP_DigestVerifyUpdate failed,err[0]errmsg[]"},
        {"EVP_DigestVerifyFinal", 13, "EVP_DigestVerifyFinal failed,err[0]errmsg[]"},
        {"EVP_MD_CTX_new", 16, "EVP_MD_CTX_create is failed"},
        {"fopen64", 17, "Error opening publickey file", 2},
        {"BIO_new_fp", 17, "Error creating a filestream for public key"},
        {"PEM_write_bio_PUBKEY", 17, "Error writing publickey file in PEM format"},
        {"munmap", 14, "munmap failed,strerr[Invalid argument]"},
        {"close", 15, "File " + path + " close error,strerr[Input/output error]"}};
    // clang-format on
    for (const auto& [function, status, text, nth] : rows)
    {
        EXPECT_EQ(statusWith(function, nth, goodChain()), status) << function;
        const std::string logger = status == 17  ? "createPublicKeyFile: "
                                   : status == 7 ? "getX509Cert: "
                                                 : slot;
        // After it come what passes it on, the clean-up and the final result.
        const auto line =
            std::find(log.begin(), log.end(), "FAILURE " + logger + text);
        EXPECT_NE(line, log.end()) << text;
        EXPECT_LE(log.end() - line, 3) << text;
        EXPECT_EQ(log.back().starts_with("SUCCESS "),
                  status == 14 || status == 15);
    }
    // A chain without a certificate: closed first, unmapped second.
    EXPECT_EQ(statusWith("munmap", 1, std::string(CHAIN, '\0')), 7);
    EXPECT_EQ(log.back(), "FAILURE " + slot + "Line[#]munmap failed");
}

TEST_F(Faults, DigestFailuresAreLoggedAndGiveZeros)
{
    writeFile(scratch / "f", std::string(10'485'761, 'x'));
    fs::create_directory(scratch / "d");
    writeFile(scratch / "d/f", "x");
    // Of the one byte behind the full piece.
    EXPECT_EQ(faulted("pread64", 2, calculateFileSHA, scratch / "f"), ZEROS);
    EXPECT_THAT(log, ElementsAre("FAILURE", HasSubstr("Hash for file ")));
    EXPECT_EQ(faulted("statx", 1, calculateFileSHA, scratch / "d/f"), ZEROS);
    // A file that cannot be opened is left out.
    EXPECT_EQ(
        faulted("open64", 1, ValidateQOR::getSHAStrFromImage, scratch / "d"),
        "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_THAT(log, ElementsAre("FAILURE", HasSubstr("final sha: ")));
    for (const char* function : {"EVP_MD_CTX_new", "EVP_DigestInit_ex",
                                 "EVP_DigestUpdate", "EVP_DigestFinal_ex"})
    {
        EXPECT_EQ(faulted(function, 1, calculateFileSHA, scratch / "f"), ZEROS);
        EXPECT_THAT(log, ElementsAre("FAILURE", HasSubstr("Hash for file ")));
        // The second context is that of the composite.
        EXPECT_EQ(faulted(function, 2, ValidateQOR::getSHAStrFromImage,
                          scratch / "d"),
                  "");
        EXPECT_EQ(log.size(), 2U) << function;
        EXPECT_EQ(log.back(), "FAILURE");
    }
}

TEST_F(Faults, ChildrenThatDoNotExtract)
{
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const auto extract = [this, before]
    {
        const bool done = unZip();
        setrlimit(RLIMIT_NOFILE, &before);
        return done;
    };
    for (const int nth : {1, 2})
    {
        EXPECT_FALSE(faulted("fork", nth, extract));
        EXPECT_THAT(log, ElementsAre("INFO pidUnzip: -2", "FAILURE"));
        // A child that may open no file. What this process has buffered must
        // not come out of it.
        meanwhile = [before]
        {
            const rlimit none{0, before.rlim_max};
            setrlimit(RLIMIT_NOFILE, &none);
        };
        std::fflush(stdout);
        const auto unstarted = [&]
        {
            std::fputs("buffered", stdout);
            EXPECT_FALSE(faulted("fork", nth, extract));
            std::fflush(stdout);
        };
        EXPECT_THAT(logOf(unstarted, STDOUT_FILENO), ElementsAre("buffered"));
        EXPECT_THAT(log,
                    ElementsAre("FAILURE", "INFO pidStatus: 32512", "FAILURE"));
    }
}

TEST_F(Faults, ResultsWithoutContentAreRefused)
{
    const auto valid = [this]
    {
        return faulted("gpgme_op_verify_result", 1,
                       ValidateQOR::validatePkgXMLSignature, descriptor,
                       descriptor + ".sign");
    };
    EXPECT_FALSE(valid());
    EXPECT_THAT(
        log, ElementsAre("INFO err: gpgme_op_verify_result failed", "FAILURE"));
    EXPECT_FALSE(
        faulted("read", 1, ValidateQOR::validateSytemIdFromPkgXML, descriptor));
    EXPECT_THAT(log, testing::Not(Contains(HasSubstr(": limit : "))));
    _gpgme_op_verify_result noSignature{};
    insteadOfResult = &noSignature;
    EXPECT_FALSE(valid());
    EXPECT_THAT(log, ElementsAre("FAILURE"));
    // A node, and no table of nodes. The library frees it.
    const auto nodesWithoutTable = []
    {
        xmlXPathObject* nodes = xmlXPathNewNodeSet(nullptr);
        nodes->nodesetval->nodeNr = 1;
        return nodes;
    };
    for (const char* function :
         {"xmlXPathNewContext", "xmlXPathEvalExpression", "xmlNodeGetContent"})
    {
        insteadOfResult = std::string_view(function) == "xmlXPathEvalExpression"
                              ? nodesWithoutTable()
                              : nullptr;
        EXPECT_EQ(faulted(function, 1, ValidateQOR::getStrFromPkgXML,
                          descriptor, "//Device", "componentID"),
                  "");
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    insteadOfResult = nodesWithoutTable();
    EXPECT_FALSE(faulted("xmlXPathEvalExpression", 1,
                         ValidateQOR::validateSytemIdFromPkgXML, descriptor));
    EXPECT_THAT(log, ElementsAre("INFO hexSystemIDStr: 0A1B",
                                 HasSubstr("validation will continue."),
                                 "INFO xmlXPathNodeNr: 1", "FAILURE"));
    insteadOfResult = nullptr;
}

TEST_F(Faults, FilesThatShrinkMeanwhileAreRefused)
{
    const std::string info = "INFO validateCertChainForPayload: ";
    const auto offset = [](std::size_t field)
    { return std::to_string(slot() + field); };
    Lines lines{info + "Payload length is " + offset(TRAILER),
                info + "Certificate Chain offset " + offset(0),
                info + "Metadata offset " + offset(CHAIN),
                info + "Signature offset " + offset(CHAIN + METADATA),
                "FAILURE"};
    for (const auto& [nthRead, size] :
         {std::pair{2, CHAIN + METADATA + SIGNATURE - 1},
          {2, CHAIN + METADATA - 1},
          {1, std::size_t(1000)}})
    {
        writeFile(path, good());
        meanwhile = [=, this] { fs::resize_file(path, slot() + size); };
        EXPECT_FALSE(faulted("read", nthRead,
                             ValidateQOR::validateCertChainForPayload, path));
        EXPECT_EQ(log, lines);
        lines.erase(lines.end() - 2);
        if (lines.size() == 3)
        {
            lines[2] = "FAILURE validateCertChainForPayload: Only 1000 bytes "
                       "read";
            lines.emplace_back("FAILURE");
        }
    }

    const std::string image = scratch / "image";
    meanwhile = [&] { fs::resize_file(image, fs::file_size(image) - 1); };
    EXPECT_EQ(faulted("sd_bus_call", 1, ValidateQOR::verifyManifestAndSignature,
                      image, scratch / "manifest"),
              -1);
    EXPECT_THAT(log,
                ElementsAre("FAILURE verifyManifestAndSignature: Failed to "
                            "read ZRN image signature"));
    meanwhile = [&] { fs::resize_file(image, 3); };
    EXPECT_EQ(faulted("pread64", 1, calculateFileSHA, image), ZEROS);
    EXPECT_EQ(log.front(), "FAILURE");
}

TEST_F(Faults, ADirectoryOfUnknownTypeIsNoSignatureFile)
{
    const std::string file = scratch / "manifest/image-ktb.sig";
    fs::remove(file);
    fs::create_directory(file);
    EXPECT_EQ(faulted("stat", 1, ValidateQOR::verifyManifestAndSignature,
                      scratch / "image", scratch / "manifest"),
              -1);
    EXPECT_THAT(log, ElementsAre(HasSubstr("Error opening KTB signature")));
}

/** Lets the parser's nth request for memory fail, from now on. */
void failParserMemory(int nth)
{
    static int left;
    left = nth;
    static const auto failed = [] { return --left == 0; };
    xmlMemSetup(
        std::free,
        [](std::size_t size) { return failed() ? nullptr : std::malloc(size); },
        [](void* memory, std::size_t size)
        { return failed() ? nullptr : std::realloc(memory, size); },
        [](const char* text) { return failed() ? nullptr : strdup(text); });
}

TEST_F(Faults, MemoryThatTheParserLacksIsNoAnswer)
{
    writeFile(descriptor, "<p><Model systemID='0B1C'/><Component hash='1'/>"
                          "<Component hash='2'/></p>");
    const auto accepts = [this](int nth)
    {
        failParserMemory(nth);
        if (ValidateQOR::validateSytemIdFromPkgXML(descriptor))
        {
            return true;
        }
        failParserMemory(nth);
        return ValidateQOR::getStrFromPkgXML(descriptor, "//Component",
                                             "hash") == "2";
    };
    // No status of a sanitizer's.
    constexpr int ACCEPTED = 42;
    for (int nth = 1; nth < 200; ++nth)
    {
        // The parser itself may crash then, and take a process with it. That
        // is nothing for a sanitizer to report.
        const pid_t child = fork();
        if (child == 0)
        {
            std::signal(SIGSEGV, SIG_DFL);
            // An exception ends it too.
            logOf([&]() noexcept { _exit(accepts(nth) ? ACCEPTED : 0); });
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == ACCEPTED)
            << nth;
    }
}

TEST_F(Faults, AnExceptionReleasesInTheSameOrder)
{
    const std::string chain = goodChain();
    const std::string signature = goodSignature();
    const Lines released = releasesOf(
        [&]
        {
            // The first allocation inside: the stream of the hashfunc file.
            withFault("operator new", 1, ValidateQOR::createHashFuncFile);
            faulted("operator new", 1, ValidateQOR::verify_slot_signature,
                    chain, signature, path.data());
        });
    EXPECT_EQ(log.back(), "INFO operator(): Clear ctx before exiting...");
    EXPECT_THAT(released,
                ElementsAre("munmap", "close", "X509_free", "EVP_PKEY_free"));
}

TEST_F(Faults, TheRootCaGoesBeforeTheRefusalIsLogged)
{
    writeFile(path, "x" + good());
    for (const char* rootCa : {"image-signer.pem", "root-ca.pem", "none"})
    {
        fs::remove(ROOT_CA);
        run("cp " + (keys() / rootCa).string() + " " + ROOT_CA);
        meanwhile = [] { std::cerr << "goes" << std::endl; };
        faulted("unlink", 1, ValidateQOR::validateCertChainForPayload, path);
        EXPECT_THAT(Lines(log.end() - 2, log.end()),
                    ElementsAre("goes", "FAILURE"));
    }
}

TEST_F(Faults, ReleasesComeInOrder)
{
    const auto value = [&](const char* expression)
    {
        return releasesOf(ValidateQOR::getStrFromPkgXML, descriptor, expression,
                          "componentID");
    };
    const auto resultFirst =
        ElementsAre("xmlXPathFreeContext", "xmlXPathFreeObject", "xmlFreeDoc",
                    "xmlCleanupParser");
    const auto documentFirst =
        ElementsAre("xmlXPathFreeContext", "xmlFreeDoc", "xmlCleanupParser",
                    "xmlXPathFreeObject");
    EXPECT_THAT(value("//Device"), resultFirst);
    EXPECT_THAT(value("//Model"), resultFirst);
    EXPECT_THAT(value("//None"), documentFirst);
    EXPECT_THAT(value("1"), documentFirst);
    EXPECT_THAT(value("["), ElementsAre("xmlXPathFreeContext", "xmlFreeDoc",
                                        "xmlCleanupParser"));

    const auto identity = [&]
    {
        Lines released =
            releasesOf(ValidateQOR::validateSytemIdFromPkgXML, descriptor);
        const auto bus = released.begin() + 3;
        EXPECT_THAT(Lines(released.begin(), bus),
                    ElementsAre("sd_bus_message_unref", "sd_bus_message_unref",
                                "sd_bus_unref"));
        released.erase(released.begin(), bus);
        return released;
    };
    EXPECT_THAT(identity(), resultFirst);
    EXPECT_THAT(releasesOf(ValidateQOR::validatePkgXMLSignature, descriptor,
                           descriptor + ".sign"),
                ElementsAre("gpgme_release", "gpgme_data_release",
                            "gpgme_data_release"));
    writeFile(descriptor, "<p/>");
    EXPECT_THAT(identity(), documentFirst);
    writeFile(descriptor, "<p>");
    EXPECT_THAT(identity(), ElementsAre());

    EXPECT_THAT(releasesOf(ValidateQOR::verifyManifestAndSignature,
                           scratch / "image", scratch / "manifest"),
                ElementsAre("sd_bus_message_unref", "sd_bus_message_unref",
                            "sd_bus_unref", "ECDSA_SIG_free", "EVP_MD_CTX_free",
                            "EVP_PKEY_free"));
    EXPECT_THAT(releasesOf(ValidateQOR::verify_slot_signature, goodChain(),
                           goodSignature(), path.data()),
                ElementsAre("munmap", "close", "EVP_MD_CTX_free", "X509_free",
                            "EVP_PKEY_free"));
    EXPECT_THAT(releasesOf(ValidateQOR::verify_slot_signature,
                           std::string(CHAIN, '\0'), "s", path.data()),
                ElementsAre("close", "munmap"));
}

} // namespace
} // namespace velmora::test
