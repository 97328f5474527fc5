#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace bmc_sim
{

struct ServiceSettings
{
    std::array<std::uint8_t, 2> systemId;
    std::vector<std::uint8_t> signerKey;
    std::map<std::string, std::string> purposes;
    std::set<std::string> absent;
    bool verbose;
};

/** Runs the services in this process, on the system bus of the environment;
 *  tells systemd when they own their names. */
void runServices(const ServiceSettings& settings);

/** Starts the services in a process of their own, on the system bus of the
 *  environment, and waits until they own their names. */
void startServices(const ServiceSettings& settings);

} // namespace bmc_sim
