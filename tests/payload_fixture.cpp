#include "payload_fixture.hpp"

#include "velmora.hpp"

namespace velmora::test
{

void SignedPayload::SetUp()
{
    metadata_algo = "PS384";
    std::filesystem::copy_file(
        keys() / "root-ca.pem", ROOT_CA,
        std::filesystem::copy_options::overwrite_existing);
    for (const char* name : {"certchain", "publickey", "hashfunc"})
    {
        std::filesystem::remove_all(RUN_TIME / name);
    }
}

const std::string& SignedPayload::good()
{
    static const std::string content = []
    {
        const Scratch made;
        writeFile(made / "body", "body");
        pack("payload " + (made / "body").string() + " --chain " +
             (keys() / "chain.pem").string() + " --key " +
             (keys() / "payload-signer.pem").string() + " --alg PS384 -o " +
             (made / "payload").string());
        return readFile(made / "payload");
    }();
    return content;
}

} // namespace velmora::test
