#include "bus.hpp"
#include "target.hpp"
#include "velmora.hpp"

#include <algorithm>
#include <fstream>
#include <vector>

/** The input: the key array of the security service's reply and the image, a
 *  part each, then the manifest file. */
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::Scratch scratch;
    static const fuzz::InputFile newFormat(scratch, "image-ktb.sig");
    static fuzz::InputFile manifestFile(scratch, "image-ktb");
    static fuzz::InputFile imageFile(scratch, "image");

    fuzz::Bytes input(data, size);
    const fuzz::Bytes key = fuzz::takePart(input);
    imageFile.set(fuzz::takePart(input));
    manifestFile.set(input);
    fuzz::answerCalls(
        [key](sd_bus_message* reply)
        {
            sd_bus_message_append(reply, "yu", 0, 0);
            sd_bus_message_append_array(reply, 'y', key.data(), key.size());
        });

    std::ifstream file(manifestFile.path(), std::ios::binary);
    manifestHeader header{};
    std::vector<std::uint8_t> manifest;
    if (ValidateQOR::extractManifest(file, "$KTB", header, manifest))
    {
        const std::string content = fuzz::textOf(input);
        fuzz::expect(manifest.size() == header.length &&
                     content.compare(content.find("$KTB"), manifest.size(),
                                     fuzz::textOf(manifest)) == 0);
    }
    else
    {
        fuzz::expect(manifest.empty());
    }
    const int result = ValidateQOR::verifyManifestAndSignature(imageFile.path(),
                                                               scratch.path());
    fuzz::expect(result == -1 || (result == 0 && !manifest.empty()));
    return 0;
}
