#include "common/openpgp.hpp"
#include "inspect.hpp"

namespace pack
{
namespace
{

constexpr std::uint64_t LARGEST_SIGNATURE_FILE = 64U << 10U;

/** Whether its first packet is a signature: RFC 4880, 4.2. */
bool isBinarySignature(Bytes file)
{
    const auto first =
        file.empty() ? 0U : std::to_integer<unsigned>(file.front());
    return first == 0xc2 || (first & 0xfcU) == 0x88;
}

} // namespace

Json describeSignatures(Bytes file, Remarks& remarks)
{
    Json signatures = Json::array();
    // Without any key gpg still tells who signed, when and how.
    const tools::TemporaryDirectory noKeys;
    try
    {
        for (const tools::SignatureInfo& info :
             tools::signaturesOf(noKeys.path(), {}, textOf(file)))
        {
            signatures.push_back({{"fingerprint", info.fingerprint},
                                  {"algorithm", info.keyAlgorithm},
                                  {"digestAlgorithm", info.digestAlgorithm},
                                  {"created", info.created},
                                  {"createdDate", dateText(info.created)}});
        }
    }
    catch (const Error& error)
    {
        remarks.emplace_back(error.what());
    }
    return signatures;
}

Json describeSignature(const Source& file, Remarks& remarks)
{
    const Buffer content = file.readAll();
    const Json signatures = isBinarySignature(content)
                                ? describeSignatures(content, remarks)
                                : Json::array();
    if (signatures.empty())
    {
        throw Error(file.name(), "is not a binary OpenPGP signature (gpg "
                                 "--dearmor makes one of an armoured one)");
    }
    return {{"signatures", signatures}};
}

bool isSignature(const Source& file)
{
    if (file.size() > LARGEST_SIGNATURE_FILE)
    {
        return false;
    }
    // An image begins like one, too, at times.
    Remarks ignored;
    const Buffer content = file.readAll();
    return isBinarySignature(content) &&
           !describeSignatures(content, ignored).empty();
}

} // namespace pack
