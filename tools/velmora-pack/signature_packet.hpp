#pragma once

#include "bytes.hpp"

#include <nlohmann/json.hpp>

namespace pack
{

/** The fields of the OpenPGP signatures in a detached, binary signature. */
nlohmann::ordered_json describeSignatures(Bytes file);

} // namespace pack
