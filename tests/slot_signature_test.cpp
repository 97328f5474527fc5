#include "support.hpp"

namespace velmora::test
{
namespace
{

class Slot : public SignedPayload
{
  protected:
    int verifySlot(const std::string& chain, const std::string& signature)
    {
        return logged(ValidateQOR::verify_slot_signature, chain, signature,
                      path.data());
    }
};

TEST_F(Slot, Statuses)
{
    writeFile(path, good());
    EXPECT_EQ(verifySlot(goodChain(), goodSignature()), 0);
    EXPECT_EQ(verifySlot("", goodSignature()), 1);
    EXPECT_EQ(verifySlot(goodChain(), ""), 1);
    EXPECT_EQ(verifySlot(goodChain(), "short"), 13);
    EXPECT_EQ(logged(ValidateQOR::verify_slot_signature, goodChain(),
                     goodSignature(), nullptr),
              1);
    // Nobody is asked for the passphrase of an encrypted block.
    std::string encrypted = "-----BEGIN CERTIFICATE-----\n"
                            "Proc-Type: 4,ENCRYPTED\n"
                            "DEK-Info: AES-256-CBC,"
                            "00112233445566778899AABBCCDDEEFF\n\n"
                            "AAAA\n-----END CERTIFICATE-----\n";
    encrypted.resize(CHAIN);
    for (const std::string& chain :
         {std::string("short"), encrypted, std::string(CHAIN, '\0'),
          goodChain() + "x"})
    {
        EXPECT_EQ(verifySlot(chain, goodSignature()), 7);
        EXPECT_EQ(log.back(), "FAILURE verify_slot_signature: convert char "
                              "buffer to X509 cert format failed");
    }
    EXPECT_FALSE(fs::exists(RUN_TIME / "certchain"));
    // A chain without its padding is padded.
    EXPECT_EQ(verifySlot(goodChain().c_str(), goodSignature()), 0);
    EXPECT_EQ(readFile(RUN_TIME / "certchain"), goodChain());
    EXPECT_EQ(logged(ValidateQOR::getX509Cert, ""), nullptr);
    EXPECT_THAT(log,
                ElementsAre("INFO getX509Cert: Entry",
                            "FAILURE getX509Cert: Invalid input argument"));

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
}

TEST_F(Slot, KeysOfAnotherKindAreRefused)
{
    writeFile(path, good());
    for (const std::string algorithm : {"rsa:2048", "rsa:4104", "ed25519",
                                        "ec -pkeyopt ec_paramgen_curve:P-384"})
    {
        ASSERT_EQ(run("openssl req -x509 -nodes -subj /CN=x -newkey " +
                      algorithm + " -keyout /dev/null -out " +
                      (scratch / "cert").string()),
                  0);
        std::string chain = readFile(scratch / "cert");
        chain.resize(CHAIN);
        EXPECT_EQ(verifySlot(chain, goodSignature()), 10) << algorithm;
        EXPECT_TRUE(fs::exists(RUN_TIME / "hashfunc"));
    }
}

TEST_F(Slot, OtherPaddingsAreRefused)
{
    writeFile(path, good());
    writeFile(scratch / "range", good().substr(0, slot() + CHAIN + METADATA));
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

} // namespace
} // namespace velmora::test
