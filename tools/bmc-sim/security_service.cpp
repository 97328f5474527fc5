#include "security_service.hpp"

#include <algorithm>
#include <string_view>

namespace bmc_sim
{
namespace
{

constexpr auto objectPath = "/xyz/openbmc_project/securityservices";
constexpr auto interfaceName =
    "xyz.openbmc_project.securityservices.firmwareManifest";

constexpr std::string_view manifestMagic = "$KTB";
constexpr std::size_t manifestHeaderSize = 16;
constexpr std::size_t manifestLengthOffset = 12;

constexpr std::uint8_t statusVerified = 0;
constexpr std::uint8_t statusRefused = 1;

const sd_bus_vtable vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "vornFwManifestVerification", "buay",
        SD_BUS_PARAM(enable) SD_BUS_PARAM(length) SD_BUS_PARAM(manifest),
        "yuay", SD_BUS_PARAM(status) SD_BUS_PARAM(detail) SD_BUS_PARAM(key),
        (handle<SecurityService, &SecurityService::verifyManifest>),
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

std::uint32_t readU32(std::span<const std::uint8_t> bytes, std::size_t offset)
{
    std::uint32_t value = 0;
    for (std::size_t index = 4; index-- > 0;)
    {
        value = value << 8 | bytes[offset + index];
    }
    return value;
}

bool isManifest(std::span<const std::uint8_t> manifest, std::uint32_t length)
{
    return manifest.size() >= manifestHeaderSize && manifest.size() == length &&
           std::ranges::equal(manifest.first(manifestMagic.size()),
                              manifestMagic) &&
           readU32(manifest, manifestLengthOffset) == length;
}

/** The key in the form of the reply: its length in 16 bits, its bytes. */
std::vector<std::uint8_t> packKey(const std::vector<std::uint8_t>& der)
{
    std::vector<std::uint8_t> packed{
        static_cast<std::uint8_t>(der.size() & 0xff),
        static_cast<std::uint8_t>(der.size() >> 8)};
    packed.insert(packed.end(), der.begin(), der.end());
    return packed;
}

} // namespace

void SecurityService::publish(sd_bus* bus)
{
    addInterface(bus, objectPath, interfaceName, vtable, this);
}

void SecurityService::verifyManifest(sd_bus_message* call)
{
    int enable = 0;
    std::uint32_t length = 0;
    check(sd_bus_message_read(call, "bu", &enable, &length), "read");
    const auto manifest = readBytes(call);
    if (signerKey.empty())
    {
        throw Refusal(unavailable, "No signer key is configured");
    }
    const bool good = enable != 0 && isManifest(manifest, length);
    const auto key = good ? packKey(signerKey) : std::vector<std::uint8_t>();

    sd_bus_message* created = nullptr;
    check(sd_bus_message_new_method_return(call, &created), "reply");
    const Message reply(created);
    check(sd_bus_message_append(reply.get(), "yu",
                                good ? statusVerified : statusRefused, 0U),
          "append");
    check(sd_bus_message_append_array(reply.get(), SD_BUS_TYPE_BYTE, key.data(),
                                      key.size()),
          "append");
    check(sd_bus_send(nullptr, reply.get(), nullptr), "send");
}

} // namespace bmc_sim
