#pragma once

#include <string>

/** @file Who signed: for the answer's wording, never for the decision. */

namespace velmora::front
{

/** What the BMC's keyring tells about a descriptor's signature. */
struct Signer
{
    /** Of the key, or the key's identifier where the key is not there. */
    std::string fingerprint;
    std::string userId;
    /** What speaks against a signature that is not valid. */
    std::string problem;
};

/** Of several signatures, the one that is valid or the last. */
Signer findSigner(const std::string& descriptor, const std::string& signature);

/** Subject of the first certificate of the payload that the library verified
 *  last, or empty. */
std::string findChainSubject();

} // namespace velmora::front
