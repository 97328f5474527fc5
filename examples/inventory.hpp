#pragma once

#include <string>

/** @file The library's inventory, for the units of a daemon that include the
 *  platform's header of xyz.openbmc_project.Software.Version. */

/** @param purpose value of the purpose: this system's go beyond the platform's
 *  @return whether the inventory manager took it */
bool publish(const std::string& inventoryPath, const std::string& model,
             const std::string& version, int purpose);

/** @return what is published, or empty */
std::string modelOf(const std::string& inventoryPath);
