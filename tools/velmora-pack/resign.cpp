#include "common/archive.hpp"
#include "descriptor.hpp"
#include "inspect.hpp"
#include "making.hpp"
#include "openpgp.hpp"

#include <map>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

/** What a package holds beside its signature. */
std::map<std::string, std::string> digestsOf(const Json& package)
{
    std::map<std::string, std::string> digests;
    for (const Json& member : package["members"])
    {
        const std::string name = member["name"];
        if (name != DESCRIPTOR_SIGNATURE_NAME)
        {
            digests[name] = member["sha256"];
        }
    }
    // An extractor makes the payload's directory by itself.
    digests.erase("payload/");
    return digests;
}

/** The fields of a package with which nothing is wrong. */
Json fieldsOf(const Source& file)
{
    Json fields = inspect(file, "package");
    for (const std::string remark : fields["remarks"])
    {
        throw Error(file.name(), "is not signed again: " + remark);
    }
    return fields;
}

Buffer contentOf(const tools::Archive& archive, std::string_view name)
{
    Buffer content;
    for (std::size_t i = 0; i < archive.members().size(); ++i)
    {
        if (archive.members()[i].name == name)
        {
            archive.read(i, [&](Bytes piece) { append(content, piece); });
        }
    }
    return content;
}

/** Says who signed before.
 *
 *  @throws Error when a key that is at hand says that it did not */
void reportSigners(const PackageOptions& options, const std::string& name,
                   Bytes descriptor, Bytes signatures)
{
    for (const tools::SignatureInfo& info : tools::signaturesOf(
             options.gpgHome, textOf(descriptor), textOf(signatures)))
    {
        if (info.status == GPG_ERR_BAD_SIGNATURE)
        {
            throw Error(name, "is not signed again: " + info.problem +
                                  ", key " + info.name());
        }
        const bool isGood = info.status == GPG_ERR_NO_ERROR;
        report(options.signing.made(),
               "the package was signed before by " + info.name() + " on " +
                   tools::dayText(info.created) +
                   (isGood ? "" : ", not checked: " + info.problem));
    }
}

} // namespace

void resignPackage(const PackageOptions& options, bool isAdded)
{
    const Source file(options.payload);
    const Signing& signing = options.signing;
    signing.expectNewOutput({options.payload, options.trust.anchor});
    const Json before = fieldsOf(file);
    const tools::Archive archive(options.payload);
    const Buffer descriptor = contentOf(archive, DESCRIPTOR_NAME);
    Buffer old = contentOf(archive, DESCRIPTOR_SIGNATURE_NAME);
    reportSigners(options, file.name(), descriptor, old);
    if (!signing.toBeSigned.empty())
    {
        writeFile(signing.toBeSigned, signing.force, Source(descriptor));
        report(signing.toBeSigned, "descriptor to be signed");
        return;
    }
    const Buffer added = signatureFor(options, descriptor);
    Buffer signatures = isAdded ? std::move(old) : Buffer();
    append(signatures, added);
    std::vector<tools::NewMember> members{
        {std::string(DESCRIPTOR_NAME), textOf(descriptor)},
        {std::string(DESCRIPTOR_SIGNATURE_NAME), textOf(signatures)}};
    for (std::size_t i = 0; i < archive.members().size(); ++i)
    {
        const std::string& name = archive.members()[i].name;
        if (name != DESCRIPTOR_NAME && name != DESCRIPTOR_SIGNATURE_NAME &&
            !name.ends_with('/'))
        {
            members.push_back({name, {}, {}, &archive, i});
        }
    }
    const Output output(signing.output, signing.force);
    tools::writeArchive(output.path(), signing.output,
                        sourceDateEpoch().value_or(0), members);
    if (digestsOf(fieldsOf(output.readBack())) != digestsOf(before))
    {
        throw Error(signing.output.string(),
                    "does not hold what the package held; did it change "
                    "meanwhile?");
    }
    if (isAdded)
    {
        // The signatures that are there must not vouch for it.
        checkSignatures(options.gpgHome, {.anchor = {}, .days = 0},
                        signing.keys, descriptor, added);
    }
    checkSignatures(options.gpgHome, options.trust, signing.keys, descriptor,
                    signatures);
    output.commit();
    report(signing.output,
           std::string("package, ") +
               (isAdded ? "with a further signature" : "signed again") +
               " and checked");
}

} // namespace pack
