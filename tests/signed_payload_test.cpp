#include "faults.hpp"
#include "support.hpp"

#include <sys/stat.h>

namespace velmora::test
{
namespace
{

/** Lines of the log up to the chain's verification. */
constexpr std::size_t CHAIN_LINES = 13;

class Payload : public SignedPayload
{
  protected:
    /** Whether it is accepted by a machine on which nothing ran before. */
    bool validAnew(const std::string& content)
    {
        SetUp();
        return valid(content);
    }

    bool valid(const std::string& content)
    {
        writeFile(path, content);
        return logged(ValidateQOR::validateCertChainForPayload, path);
    }

    static std::string top(const std::string& text)
    {
        return "FAILURE validateCertChainForPayload: " + text;
    }

    static testing::Matcher<Lines> chainError(const std::string& error)
    {
        return Contains(StartsWith(
            top("Certificate chain verification failed: error[" + error)));
    }
};

TEST_F(Payload, GoodOneIsAcceptedAndLeavesItsFiles)
{
    writeFile(RUN_TIME / "certchain", "old");
    writeFile(RUN_TIME / "publickey", "old");
    EXPECT_TRUE(valid(good()));
    const std::string up = "INFO validateCertChainForPayload: ";
    const std::string slotInfo = "INFO verify_slot_signature: ";
    const auto offset = [](std::size_t field)
    { return std::to_string(slot() + field); };
    const std::string size = std::to_string(good().size());
    ASSERT_GT(log.size(), CHAIN_LINES);
    log.erase(log.begin() + 4, log.begin() + CHAIN_LINES - 1);
    EXPECT_THAT(
        log,
        ElementsAre(
            up + "Payload length is " + size,
            up + "Certificate Chain offset " + offset(0),
            up + "Metadata offset " + offset(CHAIN),
            up + "Signature offset " + offset(CHAIN + METADATA),
            up + "Certificate chain verfication successful", slotInfo + "Entry",
            slotInfo + path + ", fileSize: " + size,
            slotInfo + "length upto slot1 timestamp[" +
                offset(CHAIN + METADATA) + "]",
            "INFO getX509Cert: Entry",
            "INFO getX509Cert: Cert chain file created successfully",
            "SUCCESS getX509Cert: Getting X509 Certificate successful",
            slotInfo + "getX509Cert is done",
            slotInfo + "X509_get_pubkey is done",
            slotInfo + "Creating public key file is done",
            slotInfo + "Creating hash function file is done",
            slotInfo + "RSA Key length[512]", slotInfo + "ALGO_384",
            slotInfo + "EVP_DigestVerifyUpdate is done",
            slotInfo + "EVP_DigestVerifyFinal,RC[1]",
            "INFO operator(): Clear ctx before exiting...",
            "SUCCESS verify_slot_signature: Image slot signature verification "
            "successful",
            "SUCCESS validateCertChainForPayload: Signature verification "
            "successful"));
    EXPECT_FALSE(fs::exists(ROOT_CA));
    EXPECT_EQ(readFile(RUN_TIME / "certchain"), goodChain());
    EXPECT_THAT(readFile(RUN_TIME / "publickey"),
                StartsWith("-----BEGIN PUBLIC KEY-----\n"));
    EXPECT_EQ(readFile(RUN_TIME / "hashfunc"), "HashType=RSA-SHA256\n");
}

TEST_F(Payload, ABitAnywhereInTheSignedRangeCounts)
{
    for (const std::size_t at :
         {std::size_t(0), slot() + CHAIN - 1, slot() + CHAIN + METADATA - 1,
          slot() + CHAIN + METADATA})
    {
        std::string spoilt = good();
        spoilt[at] = static_cast<char>(spoilt[at] ^ 1);
        EXPECT_FALSE(validAnew(spoilt)) << at;
        EXPECT_FALSE(fs::exists(ROOT_CA));
        EXPECT_EQ(log[log.size() - 2],
                  top("Signature verification failed. rc: 13"));
        EXPECT_EQ(log.back(), "FAILURE");
    }
    EXPECT_TRUE(validAnew(patched(TRAILER - 1, "x")));
}

TEST_F(Payload, TruncatedOnesAreRefused)
{
    for (const std::size_t size :
         {TRAILER + 1, good().size() - 51200, good().size() - 1})
    {
        EXPECT_FALSE(validAnew(good().substr(0, size)));
    }
    useRootCa();
    for (const std::size_t size : {std::size_t(0), std::size_t(1), TRAILER})
    {
        EXPECT_FALSE(valid(good().substr(0, size)));
        EXPECT_THAT(log, ElementsAre(top("Payload length is invalid " +
                                         std::to_string(size))));
    }
    // A directory opens, but has no length or no content.
    for (const char* other : {"/tmp", "/etc", "/nonexistent"})
    {
        EXPECT_FALSE(logged(ValidateQOR::validateCertChainForPayload, other));
    }
    EXPECT_THAT(log, ElementsAre(top("Unable to read the payload")));
    EXPECT_TRUE(fs::exists(ROOT_CA));
}

TEST_F(Payload, TheRootMustBeThere)
{
    for (const std::function<void()>& make :
         {std::function<void()>([] {}),
          {[] { writeFile(ROOT_CA, ""); }},
          {[] { mkfifo(ROOT_CA, 0600); }},
          {[] { fs::create_directory(ROOT_CA); }}})
    {
        fs::remove(ROOT_CA);
        make();
        EXPECT_FALSE(valid(good()));
        EXPECT_EQ(log.back(), "FAILURE");
        EXPECT_EQ(log.size(), CHAIN_LINES);
        EXPECT_TRUE(!fs::exists(ROOT_CA) || fs::is_directory(ROOT_CA));
    }
    fs::remove(ROOT_CA);
}

TEST_F(Payload, ChainsThatDoNotHold)
{
    useRootCa("foreign-root.pem");
    EXPECT_FALSE(valid(good()));
    EXPECT_THAT(log, Contains("INFO validateCertChainForPayload: Cert Chain "
                              "validation check failed."));
    EXPECT_THAT(log, chainError("20] errstr[unable to get local issuer"));
    EXPECT_FALSE(fs::exists(ROOT_CA));
    EXPECT_FALSE(validAnew(withChain(readFile(keys() / "expired-chain.pem"))));
    EXPECT_THAT(log, chainError("10] "));
    const std::string chainText = readFile(keys() / "chain.pem");
    for (const std::string& chain :
         {std::string(), std::string(CHAIN, 'x'), std::string("-----BEGIN "),
          chainText.substr(0, chainText.size() - 40)})
    {
        EXPECT_FALSE(validAnew(withChain(chain)));
        EXPECT_EQ(log[log.size() - 2],
                  top("Chain verification internal error[-1]"));
    }
}

TEST_F(Payload, TheChainMustHoldAtTheTimeOfSigning)
{
    const std::string block = R"({"ver": "1", "alg": "PS384")";
    EXPECT_FALSE(validAnew(withMetadata(block + R"(, "sts": "1000000000"})")));
    EXPECT_THAT(log, chainError("9] "));
    // Without a timestamp the chain is checked at the epoch, whatever the
    // block before said.
    for (const std::string& untimed : {std::string(), block + "}"})
    {
        EXPECT_TRUE(validAnew(good()));
        EXPECT_FALSE(validAnew(withMetadata(untimed)));
        EXPECT_THAT(log,
                    Contains(top("extract_meta_data failed. Continuing.")));
        EXPECT_THAT(log, chainError("9] "));
        EXPECT_EQ(chainQuestion.time, 0);
    }
    // The area is longer than the text in it, and a time may be before 1970.
    EXPECT_FALSE(validAnew(withMetadata(block + R"(, "sts": "-5"})")));
    EXPECT_EQ(chainQuestion.time, -5);
    EXPECT_EQ(chainQuestion.length, fs::file_size(keys() / "chain.pem"));
}

} // namespace
} // namespace velmora::test
