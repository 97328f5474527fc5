#pragma once

#include "service.hpp"

#include <vector>

namespace bmc_sim
{

/** Verifies firmware manifests, as far as a header shows that it is one,
 *  and knows the public key of the images' signer. */
class SecurityService
{
  public:
    static constexpr auto busName = "xyz.openbmc_project.securityservices";

    /** `der` is the signer's SubjectPublicKeyInfo, or empty. */
    explicit SecurityService(std::vector<std::uint8_t> der) :
        signerKey(std::move(der))
    {
    }

    void publish(sd_bus* bus);

    /** The method vornFwManifestVerification. */
    void verifyManifest(sd_bus_message* call);

  private:
    std::vector<std::uint8_t> signerKey;
};

} // namespace bmc_sim
