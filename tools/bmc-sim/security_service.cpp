#include "security_service.hpp"

#include <endian.h>

#include <cstring>
#include <string_view>

namespace bmc_sim
{
namespace
{

constexpr std::string_view MANIFEST_MAGIC = "$KTB";
constexpr std::size_t MANIFEST_HEADER_SIZE = 16;
constexpr std::size_t MANIFEST_LENGTH_OFFSET = 12;

constexpr std::uint8_t VERIFIED = 0;
constexpr std::uint8_t REFUSED = 1;

bool isManifest(std::string_view manifest, std::uint32_t length)
{
    if (manifest.size() < MANIFEST_HEADER_SIZE || manifest.size() != length ||
        !manifest.starts_with(MANIFEST_MAGIC))
    {
        return false;
    }
    std::uint32_t stated = 0;
    std::memcpy(&stated, manifest.data() + MANIFEST_LENGTH_OFFSET,
                sizeof(stated));
    return le32toh(stated) == length;
}

} // namespace

void SecurityService::publish(sd_bus* bus)
{
    static const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES(
            "vornFwManifestVerification", "buay",
            SD_BUS_PARAM(enable) SD_BUS_PARAM(length) SD_BUS_PARAM(manifest),
            "yuay", SD_BUS_PARAM(status) SD_BUS_PARAM(detail) SD_BUS_PARAM(key),
            verifyManifest, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    addInterface(bus, "/xyz/openbmc_project/securityservices",
                 "xyz.openbmc_project.securityservices.firmwareManifest",
                 VTABLE, this);
}

int SecurityService::verifyManifest(sd_bus_message* call, void* data,
                                    sd_bus_error* error)
{
    const auto& key = static_cast<SecurityService*>(data)->signerKey_;
    int enable = 0;
    std::uint32_t length = 0;
    const void* bytes = nullptr;
    std::size_t size = 0;
    if (sd_bus_message_read(call, "bu", &enable, &length) < 0 ||
        sd_bus_message_read_array(call, SD_BUS_TYPE_BYTE, &bytes, &size) < 0)
    {
        return sd_bus_error_set(error, INVALID_ARGUMENT, "Not a request");
    }
    if (key.empty())
    {
        return sd_bus_error_set(error, UNAVAILABLE,
                                "No signer key is configured");
    }
    std::vector<std::uint8_t> packed;
    const bool isGood =
        enable != 0 &&
        isManifest({static_cast<const char*>(bytes), size}, length);
    if (isGood)
    {
        // Its length in 16 bits, its bytes.
        packed = {static_cast<std::uint8_t>(key.size() & 0xff),
                  static_cast<std::uint8_t>(key.size() >> 8)};
        packed.insert(packed.end(), key.begin(), key.end());
    }
    sd_bus_message* created = nullptr;
    int result = sd_bus_message_new_method_return(call, &created);
    const Message reply(created);
    if (result >= 0)
    {
        result = sd_bus_message_append(reply.get(), "yu",
                                       isGood ? VERIFIED : REFUSED, 0U);
    }
    if (result >= 0)
    {
        result = sd_bus_message_append_array(reply.get(), SD_BUS_TYPE_BYTE,
                                             packed.data(), packed.size());
    }
    return result < 0 ? result : sd_bus_send(nullptr, reply.get(), nullptr);
}

} // namespace bmc_sim
