#include "support.hpp"

#include <clocale>

namespace velmora::test
{
namespace
{

class Signature : public LoggedTest
{
  protected:
    void SetUp() override { makePackage(scratch.path); }

    bool valid()
    {
        return logged(ValidateQOR::validatePkgXMLSignature, descriptor,
                      signature);
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

    fs::path descriptor = scratch / "package.xml";
    fs::path signature = scratch / "package.xml.sign";
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
    EXPECT_EQ(log.size(), SIGNATURE_LINES + 1);
}

TEST_F(Signature, AnUnknownKeyInFrontIsPassedOver)
{
    signByStranger("cat " + signature.string() + " >> " +
                   (scratch / "first").string() + " && mv " +
                   (scratch / "first").string() + " " + signature.string());
    EXPECT_TRUE(valid());
    ASSERT_EQ(log.size(), 2 * SIGNATURE_LINES + 1);
    EXPECT_EQ(log[1], "INFO gpgme_strerror(gpgmeSig->status): No public key");
    EXPECT_EQ(log[SIGNATURE_LINES], "INFO signCount: 2");
}

TEST_F(Signature, RefusalsAreLogged)
{
    writeFile(descriptor, readFile(descriptor) + " ");
    EXPECT_FALSE(valid());
    ASSERT_EQ(log.size(), SIGNATURE_LINES + 1);
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

} // namespace
} // namespace velmora::test
