#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace bmc_sim
{

// Names of the services, as --without takes them.
constexpr auto platformService = "platform";
constexpr auto securityService = "security";
constexpr auto inventoryService = "inventory";

struct Options
{
    /** Little-endian, as the bus carries it. */
    std::array<std::uint8_t, 2> systemId{};
    std::vector<std::filesystem::path> keyrings;
    std::optional<std::filesystem::path> rootCa;
    std::optional<std::filesystem::path> signerKey;
    /** D-Bus string of the purpose, by component identifier. */
    std::map<std::string, std::string> purposes;
    std::set<std::string> absentServices;
    std::vector<std::filesystem::path> writableDirectories;
    bool verbose = false;
    /** Whether the services run on the system bus that is there. */
    bool serves = false;
    bool inPlace = false;

    /** Given by bmc-sim to itself alone, when it starts itself within the
     *  sandbox: the standard error stream to go on with, and a pipe that the
     *  bmc-sim outside holds open as long as it lives. */
    std::vector<int> insideDescriptors;

    std::vector<std::string> command;
};

/** Reads the command line. Prints the help and ends the program when that
 *  is asked for; throws Failure when the usage is wrong. */
Options parseOptions(const std::vector<std::string>& arguments);

} // namespace bmc_sim
