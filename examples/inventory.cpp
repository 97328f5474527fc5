#include "inventory.hpp"

// This unit uses the library's enumerations and does not include the platform's
// header of that interface, which may lack some of their entries. No type of
// that interface stands in inventory.hpp: it would be another one there. With
// link-time optimisation, compile this unit with -fno-lto: the compiler would
// complain that the two differ.
#define VELMORA_OWN_VERSION
#include <velmora.hpp>

bool publish(const std::string& inventoryPath, const std::string& model,
             const std::string& version, int purpose)
{
    return ValidateQOR::registerSWInv(
               inventoryPath, model, version,
               static_cast<ValidateQOR::VersionPurpose>(purpose),
               ValidateQOR::ReleaseType::Other) == 1;
}

std::string modelOf(const std::string& inventoryPath)
{
    return ValidateQOR::getInventoryModel(inventoryPath);
}
