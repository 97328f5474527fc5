#include "support.hpp"

#include <endian.h>
#include <sys/stat.h>

#include <ctime>
#include <fstream>

namespace velmora::test
{
namespace
{

constexpr const char* MARKER = "/tmp/ingressRelease";

std::string le(std::uint64_t value, int size)
{
    std::string bytes;
    for (int i = 0; i < size; ++i)
    {
        bytes += static_cast<char>(value >> (8 * i));
    }
    return bytes;
}

/** One record; its data begin right behind the 16 bytes. */
std::string record(unsigned type, unsigned mask, const std::string& data,
                   std::uint32_t headerLength = 16)
{
    return le(0, 4) + le(headerLength, 4) + le(type, 2) + le(mask, 1) +
           le(0, 1) + le(data.size(), 4) + data;
}

std::string manifestOf(const std::string& records, std::uint32_t count,
                       std::uint32_t offset = 16)
{
    return "$KTB" + le(offset, 4) + le(count, 4) + le(16 + records.size(), 4) +
           records;
}

class Manifest : public LoggedTest
{
  protected:
    bool extract(const std::string& content)
    {
        writeFile(scratch / "image-ktb", content);
        std::ifstream file(scratch / "image-ktb", std::ios::binary);
        return logged(ValidateQOR::extractManifest, file, "$KTB", header,
                      manifest);
    }

    manifestHeader header{};
    std::vector<std::uint8_t> manifest;
};

TEST_F(Manifest, FirstOneInTheFileIsCopied)
{
    const std::string one = manifestOf(record(3, 0, "data"), 1);
    EXPECT_TRUE(extract("prefix $KT" + one + manifestOf("", 0) + "tail"));
    EXPECT_EQ(std::string(manifest.begin(), manifest.end()), one);
    EXPECT_EQ(le32toh(header.recordOffset), 16U);
    EXPECT_EQ(le32toh(header.recordCount), 1U);
    EXPECT_EQ(le32toh(header.length), one.size());
    EXPECT_TRUE(extract(manifestOf("", 0)));
    EXPECT_EQ(manifest.size(), 16U);
    EXPECT_THAT(log, ElementsAre());
    // What is found is counted from where the stream stands.
    writeFile(scratch / "image-ktb", "ab" + one);
    std::ifstream file(scratch / "image-ktb", std::ios::binary);
    file.seekg(2);
    EXPECT_FALSE(ValidateQOR::extractManifest(file, "$KTB", header, manifest));
}

TEST_F(Manifest, WhatIsNotWholeIsRefusedAndLeavesTheOutput)
{
    manifest = {1, 2, 3};
    const std::string start = "$KTB" + le(16, 4) + le(1, 4);
    for (const std::string& content :
         {std::string("no magic"), std::string("$KTB"), start + le(15, 3),
          start + le(0, 4) + "xx", start + le(15, 4) + "xx", start + le(17, 4),
          start + le(0xFFFFFF, 4) + std::string(84, 'x')})
    {
        EXPECT_FALSE(extract(content));
        EXPECT_THAT(log, ElementsAre());
        EXPECT_EQ(manifest.size(), 3U);
    }
    std::ifstream directory(scratch.path);
    EXPECT_FALSE(
        ValidateQOR::extractManifest(directory, "$KTB", header, manifest));
}

class Image : public LoggedTest
{
  protected:
    void SetUp() override
    {
        fs::remove(MARKER);
        writeFile(manifest, manifestOf(record(3, 0, "data"), 1));
        writeFile(signature, std::string(511, 's'));
        makeImage(image, "content");
    }

    /** The operation with a service that answers with status and key. */
    int verify(std::uint8_t status = 0)
    {
        const Service service(
            SECURITY,
            [&](sd_bus_message* call, sd_bus_message* reply)
            {
                const void* bytes = nullptr;
                std::size_t size = 0;
                int yes = 0;
                sd_bus_message_read(call, "bu", &yes, &length);
                EXPECT_EQ(yes, 1);
                sd_bus_message_read_array(call, 'y', &bytes, &size);
                sent.assign(static_cast<const char*>(bytes), size);
                return keyAnswer(status, key)(call, reply);
            });
        return verifyWithoutService();
    }

    int verifyWithoutService()
    {
        return logged(ValidateQOR::verifyManifestAndSignature, image,
                      scratch.path);
    }

    static std::string failure(const std::string& text)
    {
        return "FAILURE verifyManifestAndSignature: " + text;
    }

    /** The operation refuses with one line. */
    void expectRefusal(const std::string& text, std::uint8_t status = 0)
    {
        EXPECT_EQ(verify(status), -1) << text;
        EXPECT_THAT(log, ElementsAre(failure(text)));
    }

    const fs::path image = scratch / "image";
    const fs::path manifest = scratch / "image-ktb";
    const fs::path signature = scratch / "image-ktb.sig";
    std::string key = busKey();
    std::string sent;
    std::uint32_t length = 0;
};

TEST_F(Image, VerifiesAtEverySize)
{
    constexpr std::size_t CHUNK = 4'194'304;
    for (const std::size_t size : {std::size_t(0), std::size_t(1), CHUNK - 1,
                                   CHUNK, CHUNK + 1, 2 * CHUNK})
    {
        if (size > 0)
        {
            makeImage(image, std::string(size, 'z'));
        }
        else
        {
            // velmora-pack makes no empty image.
            run("openssl dgst -sha512 -sign " +
                (keys() / "image-signer.pem").string() +
                " /dev/null | openssl asn1parse -inform DER |"
                " awk -F: '/INTEGER/ { printf \"%96s\", $4 }' | tr ' ' 0 |"
                " basenc --base16 -d >" +
                image.string());
        }
        EXPECT_EQ(verify(), 0) << size;
        EXPECT_THAT(log, ElementsAre("SUCCESS verifyManifestAndSignature: "
                                     "Signature verification is successful"));
    }
    EXPECT_EQ(sent, readFile(manifest));
    EXPECT_EQ(length, sent.size());
    EXPECT_FALSE(fs::exists(MARKER));
}

TEST_F(Image, SpoiltOnesAreRefused)
{
    const std::string good = readFile(image);
    const auto bad = ElementsAre(failure("EVP_DigestVerifyFinal()"),
                                 failure("Signature verification failed"));
    for (const std::size_t at :
         {std::size_t(0), good.size() - 96, good.size() - 48, good.size() - 1})
    {
        std::string spoilt = good;
        spoilt[at] = static_cast<char>(spoilt[at] ^ 1);
        writeFile(image, spoilt);
        EXPECT_EQ(verify(), -1);
        EXPECT_THAT(log, bad);
    }
    writeFile(image, "content" + std::string(96, '\0'));
    EXPECT_EQ(verify(), -1);
    EXPECT_THAT(log, bad);
    writeFile(image, std::string(95, 'x'));
    expectRefusal("Failed in reading ZRN image data");
    // 200 bytes more than 32 bits can count: the first 200 would be verified.
    fs::resize_file(image, (std::uint64_t(1) << 32) + 200);
    expectRefusal("Payload size error");
}

TEST_F(Image, AnOlderSignatureFileSkipsEverything)
{
    writeFile(signature, std::string(512, 's'));
    fs::remove(image);
    fs::remove(manifest);
    EXPECT_EQ(verifyWithoutService(), 0);
    EXPECT_THAT(log,
                ElementsAre("SUCCESS verifyManifestAndSignature: Older version "
                            "of KTB signature file is found",
                            "SUCCESS verifyManifestAndSignature: Skipping "
                            "signature verification for backward "
                            "compatibility"));
}

TEST_F(Image, FilesThatCannotBeReadAreNamed)
{
    EXPECT_EQ(logged(ValidateQOR::verifyManifestAndSignature, "x", ""), -1);
    EXPECT_THAT(log, ElementsAre(failure("Invalid path for image-ktb")));
    writeFile(manifest, "$KT");
    // The largest image.
    fs::resize_file(image, 0xffffffff);
    expectRefusal("Error in reading manifest information from the payload");
    for (const auto& [name, message] :
         {std::pair{"image-ktb", "Error opening KTB file"},
          {"image", "Error opening ZRN tar file"},
          {"image-ktb.sig", "Error opening KTB signature file"}})
    {
        fs::remove(scratch / name);
        expectRefusal(message);
    }
    // What is no regular file is not read and not waited for.
    for (const auto& [path, message] :
         {std::pair{signature, "Error opening KTB signature file"},
          {image, "Payload size error"},
          {manifest, "Error opening KTB file"}})
    {
        for (const std::function<void()>& make :
             {std::function<void()>([&] { fs::create_directory(path); }),
              {[&] { mkfifo(path.c_str(), 0600); }},
              {[&] { fs::create_symlink("/dev/zero", path); }}})
        {
            make();
            expectRefusal(message);
            fs::remove(path);
        }
        writeFile(path, "there");
    }
}

TEST_F(Image, TheServiceDecides)
{
    expectRefusal("vornFwManifestVerification() method returned an error", 1);
    const std::string good = key;
    key = le(257, 2) + good.substr(2) + std::string(257, ' ');
    EXPECT_EQ(verify(), 0);
    for (const std::string& reply :
         {std::string("x"), le(1, 2), le(good.size() - 1, 2) + good.substr(2),
          le(0, 2) + good.substr(2), le(20, 2) + good.substr(2)})
    {
        key = reply;
        expectRefusal("Error in converting the public key received from TXQ "
                      "to EVP PKEY");
    }
    key.clear();
    expectRefusal("Failed in verifying manifest");
    const std::string other = scratch / "other";
    ASSERT_EQ(run("openssl genpkey -algorithm ed25519 -out " + other), 0);
    key = busKey("-pubout -in " + other);
    expectRefusal("Failed in EVP_DigestVerifyInit()");

    // An empty answer cannot be read.
    const Service silent(SECURITY, [](auto*, auto*) { return 0; });
    EXPECT_EQ(verifyWithoutService(), -1);
    EXPECT_THAT(log,
                ElementsAre("INFO msg: N9sdbusplus9exception10SdBusErrorE",
                            failure("vornFwManifestVerification() invoke")));
}

TEST_F(Image, ReleaseMarkerIsWrittenForOneAndTwo)
{
    const std::string other = record(3, 0, "xyz");
    const std::string marked = record(10, 0x30, "ab2");
    std::string crossing = manifestOf(marked, 1);
    crossing[16 + 12] = 4;
    std::string endless = manifestOf(std::string(16, 0), 0xFFFFFFFF);
    std::string wrapping = manifestOf(
        le(0, 4) + le(0xFFFFFFF0, 4) + le(3, 4) + le(0x10, 4) + marked, 5);
    for (const auto& [content, marker] :
         std::initializer_list<std::pair<std::string, std::string>>{
             {manifestOf(other + marked, 2), "2\n"},
             {manifestOf(record(10, 0x31, "ab0"), 1), "1\n"},
             // The count leaves out the first record.
             {manifestOf(other + marked, 1), "2\n"},
             {manifestOf("pad" + marked, 1, 19), "2\n"},
             {manifestOf(record(10, 0, "abc"), 1), "old"},
             {manifestOf(record(10, 0x30, "ab0"), 1), "old"},
             {manifestOf(other + marked, 0), "old"},
             {manifestOf(marked, 1, 0xFFFFFFFF), "old"},
             {manifestOf(marked, 1, 20), "old"},
             {manifestOf(record(10, 0x30, "ab2", 0xFFFFFFF0), 1), "old"},
             {manifestOf(record(10, 0x30, "ab"), 1), "old"},
             {manifestOf(record(10, 0x30, "") + "ab2", 1), "old"},
             {crossing, "old"},
             {endless, "old"},
             {wrapping, "old"}})
    {
        writeFile(MARKER, "old");
        writeFile(manifest, content);
        const std::clock_t start = std::clock();
        EXPECT_EQ(verify(), 0);
        EXPECT_LT(std::clock() - start, 3 * CLOCKS_PER_SEC);
        EXPECT_EQ(readFile(MARKER), marker);
    }
    // The marker is written even when the image is bad.
    const std::string good = readFile(image);
    writeFile(image, good + "x");
    writeFile(manifest, manifestOf(marked, 1));
    EXPECT_EQ(verify(), -1);
    EXPECT_EQ(readFile(MARKER), "2\n");
    writeFile(image, good);
    fs::remove(MARKER);
    EXPECT_EQ(verify(), 0);
    EXPECT_NE(fs::status(MARKER).permissions() & fs::perms::others_read,
              fs::perms::none);
    // What stands in the marker's place is neither followed nor waited for.
    const fs::path precious = scratch / "precious";
    writeFile(precious, "precious");
    for (const std::function<void()>& make :
         {std::function<void()>([&] { fs::create_symlink(precious, MARKER); }),
          {[&] { fs::create_hard_link(precious, MARKER); }},
          {[] { mkfifo(MARKER, 0600); }}})
    {
        fs::remove(MARKER);
        make();
        EXPECT_EQ(verify(), 0);
        EXPECT_EQ(readFile(precious), "precious");
    }
    fs::remove(MARKER);
}

} // namespace
} // namespace velmora::test
