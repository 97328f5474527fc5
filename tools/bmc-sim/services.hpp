#pragma once

#include <endian.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace bmc_services
{

// The D-Bus errors with which the services refuse.
constexpr auto INVALID_ARGUMENT =
    "xyz.openbmc_project.Common.Error.InvalidArgument";
constexpr auto NOT_ALLOWED = "xyz.openbmc_project.Common.Error.NotAllowed";
constexpr auto RESOURCE_NOT_FOUND =
    "xyz.openbmc_project.Common.Error.ResourceNotFound";
constexpr auto UNAVAILABLE = "xyz.openbmc_project.Common.Error.Unavailable";

/** @return the result of a function of libsystemd or libseccomp
 *  @throws tools::Error when it is negative; it names the step */
int check(int result, const char* step);

// What publish() is given has to be gone before the service is. It throws
// tools::Error when the bus refuses.

/** Tells the system identifier. */
class PlatformService
{
  public:
    static constexpr auto BUS_NAME = "com.vorn.bmc.smad";

    explicit PlatformService(std::uint16_t systemId) :
        systemId_(htole16(systemId))
    {
    }

    void publish(sd_bus* bus);

  private:
    static int getSystemId(sd_bus*, const char*, const char*, const char*,
                           sd_bus_message* reply, void* data,
                           sd_bus_error*) noexcept;

    /** Little-endian, as the bus carries it. */
    std::uint16_t systemId_;
};

/** Verifies firmware manifests, as far as a header shows that it is one,
 *  and knows the public key of the images' signer. */
class SecurityService
{
  public:
    static constexpr auto BUS_NAME = "xyz.openbmc_project.securityservices";

    /** @param key the signer's SubjectPublicKeyInfo in DER, or empty
     *  @throws tools::Error when its length does not fit in 16 bits */
    explicit SecurityService(std::string_view key);

    void publish(sd_bus* bus);

  private:
    static int verifyManifest(sd_bus_message* call, void* data,
                              sd_bus_error* error) noexcept;

    /** As the reply carries it: its length in 16 bits, little-endian, its
     *  bytes. Empty where there is none. */
    std::string packedKey_;
};

/** Keeps the software objects, of which it publishes the model, and knows the
 * purposes of components. */
class InventoryService
{
  public:
    static constexpr auto BUS_NAME =
        "xyz.openbmc_project.Software.Installed.Inventory";

    /** @param purposes D-Bus strings by component identifier */
    explicit InventoryService(std::map<std::string, std::string> purposes) :
        purposes_(std::move(purposes))
    {
    }

    void publish(sd_bus* bus);

  private:
    // For the bus, which gives the service as data: who is at a path, and what
    // the methods do.
    static int findModel(sd_bus*, const char* path, const char*, void* data,
                         void** found, sd_bus_error*) noexcept;
    static int add(sd_bus_message* call, void* data,
                   sd_bus_error* error) noexcept;
    static int remove(sd_bus_message* call, void* data,
                      sd_bus_error* error) noexcept;
    static int getPurpose(sd_bus_message* call, void* data,
                          sd_bus_error* error) noexcept;

    std::map<std::string, std::string> purposes_;
    /** By the path of the object. */
    std::map<std::string, std::string> models_;
};

} // namespace bmc_services
