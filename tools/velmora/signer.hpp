#pragma once

#include "common/openpgp.hpp"

#include <optional>
#include <string>

/** @file Who signed: for the answer's wording, never for the decision. */

namespace velmora::front
{

/** What the BMC's keyring tells about a descriptor's signature: of several,
 *  the one that is valid or the last. */
std::optional<tools::SignatureInfo> findSigner(const std::string& descriptor,
                                               const std::string& signature);

/** Subject of the first certificate of the payload that the library verified
 *  last, or empty. */
std::string findChainSubject();

} // namespace velmora::front
