#include "common/error.hpp"
#include "common/handles.hpp"
#include "services.hpp"

#include <endian.h>

#include <cstring>
#include <limits>

namespace bmc_services
{
namespace
{

using Message = tools::Handle<sd_bus_message, sd_bus_message_unref>;

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

SecurityService::SecurityService(std::string_view key)
{
    if (key.size() > std::numeric_limits<std::uint16_t>::max())
    {
        throw tools::Error("the signer's key", "larger than 64 KiB");
    }
    if (!key.empty())
    {
        packedKey_ = {static_cast<char>(key.size() & 0xff),
                      static_cast<char>(key.size() >> 8)};
        packedKey_ += key;
    }
}

void SecurityService::publish(sd_bus* bus)
{
    static const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("vornFwManifestVerification", "buay", "yuay",
                      verifyManifest, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    check(sd_bus_add_object_vtable(
              bus, nullptr, "/xyz/openbmc_project/securityservices",
              "xyz.openbmc_project.securityservices.firmwareManifest", VTABLE,
              this),
          BUS_NAME);
}

int SecurityService::verifyManifest(sd_bus_message* call, void* data,
                                    sd_bus_error* error) noexcept
{
    const std::string& key = static_cast<SecurityService*>(data)->packedKey_;
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
    const bool isGood =
        enable != 0 &&
        isManifest({static_cast<const char*>(bytes), size}, length);
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
        result = sd_bus_message_append_array(
            reply.get(), SD_BUS_TYPE_BYTE, key.data(), isGood ? key.size() : 0);
    }
    return result < 0 ? result : sd_bus_send(nullptr, reply.get(), nullptr);
}

} // namespace bmc_services
