#include "quorlin.h"
#include "support.hpp"
#include "velmora.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

namespace velmora::test
{
namespace
{

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

constexpr std::size_t TRAILER = 76800;
constexpr std::size_t CHAIN = 24576;
constexpr const char* ROOT_CA =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
const fs::path RUN_TIME = "/var/run/velmora/Zarnholt";

// ---- metadata ----------------------------------------------------------

class Metadata : public testing::Test
{
  protected:
    int extract(std::string text)
    {
        text.resize(512);
        int status = -1;
        log = logOf([&] { status = ValidateQOR::extract_meta_data(text); });
        EXPECT_EQ(text.size(), 512U);
        block = text;
        return status;
    }

    static std::string field(const std::string& key, const std::string& value)
    {
        return "\"" + key + "\": \"" + value + "\", ";
    }

    static std::string info(const std::string& text)
    {
        return "INFO extract_meta_data: " + text;
    }

    const std::string version = field("ver", "1");
    const std::string algorithm = field("alg", "PS384");
    std::string block;
    Lines log;
};

TEST_F(Metadata, ExampleBlock)
{
    metadata_algo.clear();
    EXPECT_EQ(extract(R"({"ver": "1", "alg": "PS384", "sts": "1700000000"})"),
              0);
    EXPECT_EQ(metadata_algo, "PS384");
    EXPECT_THAT(
        log,
        ElementsAre(info("Total tokens read is 13"), info("Version found..."),
                    info("Algorithm found..."),
                    info("Metadata algorithm is PS384"),
                    info("Timestamp found..."),
                    info("Metadata timestamp is 1700000000"),
                    info("timestamp =1700000000"),
                    "SUCCESS extract_meta_data: Extract metadata successful"));
    EXPECT_EQ(block.substr(0, 6), std::string("{\0ver\0", 6));
}

TEST_F(Metadata, StatusesInTheirOrder)
{
    metadata_algo.clear();
    EXPECT_EQ(extract(""), 9);
    EXPECT_EQ(extract("\"\"\"\""), 9);
    std::string none;
    logOf([&] { EXPECT_EQ(ValidateQOR::extract_meta_data(none), 9); });
    EXPECT_EQ(extract("{}"), 10);
    EXPECT_EQ(extract("\"ver\":\"1\"," + algorithm + field("sts", "1")), 10);
    EXPECT_THAT(log, Contains(info("Version found...")));
    EXPECT_EQ(log.back(), "FAILURE extract_meta_data: Unable to get version "
                          "from metadata");
    metadata_algo.clear();
    EXPECT_EQ(extract(version + field("sts", "1")), 13);
    EXPECT_EQ(extract(version + algorithm + "\"sts\": 17"), 11);
    // The algorithm of an earlier block is kept.
    EXPECT_EQ(extract(version + field("sts", "1")), 0);
    EXPECT_EQ(metadata_algo, "PS384");
}

TEST_F(Metadata, TimestampsKeepTheirLowBits)
{
    const std::string nines(20, '9');
    for (const auto& [text, status, shown] :
         {std::tuple<std::string, int, std::string>{"17xyz", 0, "17"},
          {"xyz", 0, "0"},
          {nines, 0, "-1"},
          {"-" + nines, 12, ""},
          {"4294967296", 0, "0"},
          {"4294967295", 0, "-1"}})
    {
        EXPECT_EQ(extract(version + algorithm + field("sts", text)), status)
            << text;
        if (status == 0)
        {
            EXPECT_THAT(log, Contains(info("timestamp =" + shown)));
        }
        else
        {
            EXPECT_EQ(log.back(), "FAILURE extract_meta_data: strtoll returned "
                                  "error[34]");
        }
    }
}

TEST_F(Metadata, TokensAndKeys)
{
    EXPECT_EQ(extract(version + field("sts", "1") + field("alg", "PS256") +
                      field("alg", "PS512") + "\"alg\" : \"no\""),
              0);
    EXPECT_EQ(metadata_algo, "PS512");
    // The tenth field's value is the 31st token.
    std::string many = "{";
    for (int i = 0; i < 7; ++i)
    {
        many += field("x", "y");
    }
    EXPECT_EQ(extract(many + field("ver", "1")), 10);
    EXPECT_THAT(log, Contains(info("Total tokens read is 30")));
    EXPECT_EQ(extract(std::string(512, '"') + "x"), 9);
    EXPECT_EQ(extract(std::string(512, 'x')), 10);
    EXPECT_EQ(extract(field("ver", "1") + "\"alg\": "), 10 + 1);
}

// ---- payload -----------------------------------------------------------

class Payload : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        writeFile("/tmp/body", "body");
        pack("payload /tmp/body --chain " + (keys() / "chain.pem").string() +
             " --key " + (keys() / "payload-signer.pem").string() +
             " --alg PS384 -o /tmp/payload");
        good = readFile("/tmp/payload");
    }

    void SetUp() override
    {
        metadata_algo = "PS384";
        fs::copy_file(keys() / "root-ca.pem", ROOT_CA,
                      fs::copy_options::overwrite_existing);
        for (const char* name : {"certchain", "publickey", "hashfunc"})
        {
            fs::remove_all(RUN_TIME / name);
        }
    }

    static std::size_t slot() { return good.size() - TRAILER; }

    bool valid(const std::string& content)
    {
        writeFile(path, content);
        bool result = true;
        log = logOf(
            [&] { result = ValidateQOR::validateCertChainForPayload(path); });
        return result;
    }

    int verifySlot(const std::string& chain, const std::string& signature)
    {
        int status = -1;
        log = logOf(
            [&]
            {
                status = ValidateQOR::verify_slot_signature(chain, signature,
                                                            path.data());
            });
        return status;
    }

    static std::string goodChain() { return good.substr(slot(), CHAIN); }

    static std::string goodSignature()
    {
        return good.substr(slot() + CHAIN + 512, 512);
    }

    static std::string top(const std::string& text)
    {
        return "FAILURE validateCertChainForPayload: " + text;
    }

    static std::string good;
    Scratch scratch;
    std::string path = scratch / "payload";
    Lines log;
};

std::string Payload::good;

TEST_F(Payload, GoodOneIsAcceptedAndLeavesItsFiles)
{
    EXPECT_TRUE(valid(good));
    const auto line = [](const std::string& level, const std::string& function,
                         const std::string& text)
    { return level + " " + function + ": " + text; };
    const std::string up = "validateCertChainForPayload";
    const std::string slotName = "verify_slot_signature";
    const std::string size = std::to_string(good.size());
    ASSERT_EQ(log.size(), 30U);
    EXPECT_EQ(log[0], line("INFO", up, "Payload length is " + size));
    EXPECT_EQ(
        log[1],
        line("INFO", up, "Certificate Chain offset " + std::to_string(slot())));
    EXPECT_EQ(log[3],
              line("INFO", up,
                   "Signature offset " + std::to_string(slot() + CHAIN + 512)));
    EXPECT_EQ(log[12],
              line("INFO", up, "Certificate chain verfication successful"));
    EXPECT_THAT(
        Lines(log.begin() + 13, log.end()),
        ElementsAre(
            line("INFO", slotName, "Entry"),
            line("INFO", slotName, path + ", fileSize: " + size),
            line("INFO", slotName,
                 "length upto slot1 timestamp[" +
                     std::to_string(good.size() - 51712) + "]"),
            line("INFO", "getX509Cert", "Entry"),
            line("INFO", "getX509Cert", "Cert chain file created successfully"),
            line("SUCCESS", "getX509Cert",
                 "Getting X509 Certificate successful"),
            line("INFO", slotName, "getX509Cert is done"),
            line("INFO", slotName, "X509_get_pubkey is done"),
            line("INFO", slotName, "Creating public key file is done"),
            line("INFO", slotName, "Creating hash function file is done"),
            line("INFO", slotName, "RSA Key length[512]"),
            line("INFO", slotName, "ALGO_384"),
            line("INFO", slotName, "EVP_DigestVerifyUpdate is done"),
            line("INFO", slotName, "EVP_DigestVerifyFinal,RC[1]"),
            line("INFO", "operator()", "Clear ctx before exiting..."),
            line("SUCCESS", slotName,
                 "Image slot signature verification successful"),
            line("SUCCESS", up, "Signature verification successful")));
    EXPECT_FALSE(fs::exists(ROOT_CA));
    EXPECT_EQ(readFile(RUN_TIME / "certchain"), goodChain());
    EXPECT_THAT(readFile(RUN_TIME / "publickey"),
                StartsWith("-----BEGIN PUBLIC KEY-----\n"));
    ValidateQOR::createHashFuncFile();
    EXPECT_EQ(readFile(RUN_TIME / "hashfunc"), "HashType=RSA-SHA256\n");
}

TEST_F(Payload, ABitAnywhereInTheSignedRangeCounts)
{
    for (const std::size_t at : {std::size_t(0), slot() + CHAIN - 1,
                                 slot() + CHAIN + 511, slot() + CHAIN + 512})
    {
        SetUp();
        std::string spoilt = good;
        spoilt[at] = static_cast<char>(spoilt[at] ^ 1);
        EXPECT_FALSE(valid(spoilt)) << at;
        EXPECT_FALSE(fs::exists(ROOT_CA));
        EXPECT_EQ(log[log.size() - 2], top("Signature verification failed. "
                                           "rc: 13"));
        EXPECT_EQ(log.back(), "FAILURE");
    }
    std::string behind = good;
    behind.back() = 'x';
    SetUp();
    EXPECT_TRUE(valid(behind));
}

TEST_F(Payload, TruncatedOnesAreRefused)
{
    for (const std::size_t size : {std::size_t(0), std::size_t(1), TRAILER})
    {
        EXPECT_FALSE(valid(good.substr(0, size)));
        EXPECT_THAT(log, ElementsAre(top("Payload length is invalid " +
                                         std::to_string(size))));
    }
    for (const std::size_t size :
         {TRAILER + 1, good.size() - 51200, good.size() - 1})
    {
        SetUp();
        EXPECT_FALSE(valid(good.substr(0, size)));
    }
    EXPECT_THAT(logOf(
                    []
                    {
                        EXPECT_FALSE(ValidateQOR::validateCertChainForPayload(
                            "/nonexistent"));
                    }),
                ElementsAre(top("Unable to read the payload")));
    // A directory opens, but has no length or no content.
    logOf(
        []
        {
            EXPECT_FALSE(ValidateQOR::validateCertChainForPayload("/tmp"));
            EXPECT_FALSE(ValidateQOR::validateCertChainForPayload("/etc"));
        });
    SetUp();
    EXPECT_FALSE(valid(good.substr(0, TRAILER)));
    EXPECT_TRUE(fs::exists(ROOT_CA));
}

TEST_F(Payload, TheRootMustBeThere)
{
    const auto refusal = [&]
    {
        EXPECT_FALSE(valid(good));
        EXPECT_EQ(log.back(), "FAILURE");
        EXPECT_EQ(log.size(), 13U);
        EXPECT_FALSE(fs::is_regular_file(ROOT_CA));
    };
    fs::remove(ROOT_CA);
    refusal();
    writeFile(ROOT_CA, "");
    refusal();
    fs::create_directory(ROOT_CA);
    refusal();
    fs::remove(ROOT_CA);
}

TEST_F(Payload, ChainsThatDoNotHold)
{
    fs::copy_file(keys() / "foreign-root.pem", ROOT_CA,
                  fs::copy_options::overwrite_existing);
    EXPECT_FALSE(valid(good));
    EXPECT_THAT(log, Contains("INFO validateCertChainForPayload: Cert Chain "
                              "validation check failed."));
    EXPECT_THAT(log[log.size() - 2],
                StartsWith(top("Certificate chain verification failed: "
                               "error[20] errstr[unable to get local issuer")));
    EXPECT_FALSE(fs::exists(ROOT_CA));

    const auto withChain = [&](const std::string& chain)
    {
        SetUp();
        std::string payload = good;
        payload.replace(slot(), CHAIN,
                        chain + std::string(CHAIN - chain.size(), '\0'));
        return valid(payload);
    };
    EXPECT_FALSE(withChain(readFile(keys() / "expired-chain.pem")));
    EXPECT_THAT(log, Contains(StartsWith(top("Certificate chain verification "
                                             "failed: error[10] "))));
    const std::string chainText = readFile(keys() / "chain.pem");
    for (const std::string& chain :
         {std::string(), std::string(CHAIN, 'x'), std::string("-----BEGIN "),
          std::string("-----BEGIN CERTIFICATE-----\nAAAA\n"
                      "-----END CERTIFICATE-----\n"),
          chainText.substr(0, chainText.size() - 40)})
    {
        EXPECT_FALSE(withChain(chain));
        EXPECT_EQ(log[log.size() - 2],
                  top("Chain verification internal error[-1]"));
    }
    // It must hold at the time of signing.
    SetUp();
    std::string early = good;
    early.replace(early.find("\"sts\"", slot()) + 8, 10, "1000000000");
    EXPECT_FALSE(valid(early));
    EXPECT_THAT(log, Contains(StartsWith(top("Certificate chain verification "
                                             "failed: error[9] "))));
    // Without a timestamp the chain is checked at the epoch.
    SetUp();
    std::string untimed = good;
    untimed.replace(slot() + CHAIN, 512, std::string(512, '\0'));
    EXPECT_FALSE(valid(untimed));
    EXPECT_THAT(log, Contains(top("extract_meta_data failed. Continuing.")));
    EXPECT_THAT(log, Contains(StartsWith(top("Certificate chain verification "
                                             "failed: error[9] "))));
}

TEST_F(Payload, SlotStatuses)
{
    writeFile(path, good);
    EXPECT_EQ(verifySlot(goodChain(), goodSignature()), 0);
    EXPECT_EQ(verifySlot("", goodSignature()), 1);
    EXPECT_EQ(verifySlot(goodChain(), ""), 1);
    EXPECT_EQ(verifySlot(goodChain(), "short"), 13);
    logOf(
        [&]
        {
            EXPECT_EQ(ValidateQOR::verify_slot_signature(
                          goodChain(), goodSignature(), nullptr),
                      1);
        });
    EXPECT_EQ(verifySlot("short", goodSignature()), 7);
    // Nobody is asked for the passphrase of an encrypted block.
    std::string encrypted = "-----BEGIN CERTIFICATE-----\n"
                            "Proc-Type: 4,ENCRYPTED\n"
                            "DEK-Info: AES-256-CBC,"
                            "00112233445566778899AABBCCDDEEFF\n\n"
                            "AAAA\n-----END CERTIFICATE-----\n";
    encrypted.resize(CHAIN);
    EXPECT_EQ(verifySlot(encrypted, goodSignature()), 7);
    EXPECT_THAT(logOf([] { EXPECT_EQ(ValidateQOR::getX509Cert(""), nullptr); }),
                ElementsAre("INFO getX509Cert: Entry",
                            "FAILURE getX509Cert: Invalid input argument"));
    EXPECT_EQ(verifySlot(std::string(CHAIN, '\0'), goodSignature()), 7);
    EXPECT_EQ(log.back(), "FAILURE verify_slot_signature: convert char buffer "
                          "to X509 cert format failed");
    EXPECT_EQ(verifySlot(goodChain() + "x", goodSignature()), 7);
    EXPECT_EQ(verifySlot(goodChain().substr(0, CHAIN - 1), goodSignature()), 7);
    EXPECT_FALSE(fs::exists(RUN_TIME / "certchain"));

    fs::remove(RUN_TIME / "publickey");
    fs::create_directory(RUN_TIME / "publickey");
    EXPECT_EQ(verifySlot(goodChain(), goodSignature()), 17);
    fs::remove(RUN_TIME / "publickey");
    fs::remove(RUN_TIME / "certchain");
    fs::create_directory(RUN_TIME / "certchain");
    EXPECT_EQ(verifySlot(goodChain(), goodSignature()), 7);
    fs::remove(RUN_TIME / "certchain");

    for (const auto& [name, text] : {std::pair{"PS256", "ALGO_256"},
                                     {"PS512", "ALGO_512"},
                                     {"ps384", "Default-ALGO_256"},
                                     {"PS384 ", "Default-ALGO_256"},
                                     {"", "Default-ALGO_256"}})
    {
        metadata_algo = name;
        EXPECT_EQ(verifySlot(goodChain(), goodSignature()), 13);
        EXPECT_THAT(
            log, Contains("INFO verify_slot_signature: " + std::string(text)));
    }
    writeFile(path, std::string(TRAILER, 'x'));
    EXPECT_EQ(verifySlot(goodChain(), goodSignature()), 4);
    fs::remove(path);
    EXPECT_EQ(verifySlot(goodChain(), goodSignature()), 2);
    EXPECT_THAT(log.back(), StartsWith("FAILURE verify_slot_signature: File[" +
                                       path + "]could not be opened,strerr["));
}

TEST_F(Payload, KeysOfAnotherKindAreRefused)
{
    writeFile(path, good);
    for (const auto& [algorithm, status] :
         {std::pair{"rsa:2048", 10},
          {"ed25519", 10},
          {"ec -pkeyopt ec_paramgen_curve:P-384", 10}})
    {
        ASSERT_EQ(run("openssl req -x509 -nodes -subj /CN=x -newkey " +
                      std::string(algorithm) + " -keyout /dev/null -out " +
                      (scratch / "cert").string()),
                  0);
        std::string chain = readFile(scratch / "cert");
        chain.resize(CHAIN);
        EXPECT_EQ(verifySlot(chain, goodSignature()), status) << algorithm;
        EXPECT_TRUE(fs::exists(RUN_TIME / "hashfunc"));
    }
}

TEST_F(Payload, OtherPaddingsAreRefused)
{
    const std::string range = good.substr(0, slot() + CHAIN + 512);
    writeFile(path, good);
    writeFile(scratch / "range", range);
    for (const std::string options :
         {"-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:-1", "",
          "-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32"})
    {
        ASSERT_EQ(run("openssl dgst -sha384 " + options + " -sign " +
                      (keys() / "payload-signer.pem").string() + " -out " +
                      (scratch / "sig").string() + " " +
                      (scratch / "range").string()),
                  0);
        EXPECT_EQ(verifySlot(goodChain(), readFile(scratch / "sig")),
                  options.ends_with("-1") ? 0 : 13);
    }
}

TEST(ChainVerifier, ReadsNoMoreThanTheLength)
{
    const std::string chain = readFile(keys() / "chain.pem");
    const std::string root = readFile(keys() / "root-ca.pem");
    const auto now = std::time(nullptr);
    const auto verify = [&](const std::string& text, std::int64_t time)
    {
        const std::vector<char> exact(text.begin(), text.end());
        return verify_chain_OBMC(exact.data(), root.c_str(), exact.size(),
                                 time);
    };
    EXPECT_EQ(verify(chain, now), 0);
    EXPECT_LT(verify("", now), 0);
    EXPECT_EQ(verify(chain, 0), 9);
    // Without its intermediate the leaf leads nowhere.
    const std::string leaf = chain.substr(0, chain.find("-----END") + 26);
    EXPECT_EQ(verify(leaf, now), 20);
    EXPECT_LT(verify(chain.substr(0, chain.size() - 40), now), 0);
    EXPECT_LT(verify_chain_OBMC(chain.c_str(), "", chain.size(), now), 0);
}

} // namespace
} // namespace velmora::test
