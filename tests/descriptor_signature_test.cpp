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

    /** Makes a signature "first", by a key that the BMC does not know, and
     *  runs a command beside it. */
    void signByStranger(const std::string& command)
    {
        const std::string gpg = "gpg --homedir stranger --batch --yes ";
        ASSERT_EQ(run("cd " + scratch.path.string() +
                      " && mkdir -m 700 stranger && " + gpg +
                      "--passphrase '' --quick-generate-key stranger ed25519"
                      " sign && " +
                      gpg + "--detach-sign -o first package.xml && " + command),
                  0);
    }

    /** The signature is looked at and refused. */
    void expectRefusal(const std::string& status)
    {
        EXPECT_FALSE(valid());
        ASSERT_EQ(log.size(), SIGNATURE_LINES + 1);
        EXPECT_EQ(log[1], "INFO gpgme_strerror(gpgmeSig->status): " + status);
        EXPECT_EQ(log.back(), "FAILURE");
    }

    fs::path descriptor = scratch / "package.xml";
    fs::path signature = scratch / "package.xml.sign";
};

TEST_F(Signature, ValidGivesTwelveLinesAndSuccess)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_TRUE(valid());
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
    unsetenv("LC_ALL");
    std::setlocale(LC_ALL, "C");
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

TEST_F(Signature, OneValidOneIsEnough)
{
    signByStranger("cat package.xml.sign first > second");
    fs::rename(scratch / "second", signature);
    EXPECT_TRUE(valid());
    // Nothing after the first valid one is looked at.
    EXPECT_EQ(log.size(), SIGNATURE_LINES + 1);
    ASSERT_EQ(run("cd " + scratch.path.string() +
                  " && cat package.xml.sign >> first"),
              0);
    fs::rename(scratch / "first", signature);
    EXPECT_TRUE(valid());
    ASSERT_EQ(log.size(), 2 * SIGNATURE_LINES + 1);
    EXPECT_EQ(log[1], "INFO gpgme_strerror(gpgmeSig->status): No public key");
    EXPECT_EQ(log[SIGNATURE_LINES], "INFO signCount: 2");
}

TEST_F(Signature, RefusalsAreLogged)
{
    writeFile(descriptor, readFile(descriptor) + " ");
    expectRefusal("Bad signature");

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
    const std::string home = "gpg --homedir /etc/gpg/secupkey/.gnupg --batch ";
    signByStranger("mv first package.xml.sign && "
                   "gpg --homedir stranger --export | " +
                   home + "--import");
    expectRefusal("Success");
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
    expectRefusal("Signature expired");
}

} // namespace
} // namespace velmora::test
