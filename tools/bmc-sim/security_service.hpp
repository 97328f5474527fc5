#pragma once

#include "service.hpp"

#include <cstdint>
#include <vector>

namespace bmc_sim
{

/** Verifies firmware manifests, as far as a header shows that it is one,
 *  and knows the public key of the images' signer. */
class SecurityService
{
  public:
    static constexpr auto BUS_NAME = "xyz.openbmc_project.securityservices";

    /** @param key the signer's SubjectPublicKeyInfo in DER, or empty */
    explicit SecurityService(std::vector<std::uint8_t> key) :
        signerKey_(std::move(key))
    {
    }

    void publish(sd_bus* bus);

  private:
    static int verifyManifest(sd_bus_message* call, void* data,
                              sd_bus_error* error);

    std::vector<std::uint8_t> signerKey_;
};

} // namespace bmc_sim
