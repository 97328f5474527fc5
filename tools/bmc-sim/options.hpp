#pragma once

#include "inputs.hpp"

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

// Names of the services, as --without and --serve take them.
constexpr auto PLATFORM = "platform";
constexpr auto SECURITY = "security";
constexpr auto INVENTORY = "inventory";

/** A directory of bmc-sim's own within the sandbox. */
constexpr auto SANDBOX_DIRECTORY = "/run/bmc-sim";

struct Options
{
    /** Little-endian, as the bus carries it. */
    std::array<std::uint8_t, 2> systemId{};
    std::vector<InputFile> keyrings;
    std::optional<InputFile> rootCa;
    std::optional<InputFile> signerKey;
    /** D-Bus string of the purpose, by component identifier. */
    std::map<std::string, std::string> purposes;
    /** Names of those that are to run. */
    std::set<std::string> services;
    std::vector<std::filesystem::path> writableDirectories;
    bool verbose = false;
    bool inPlace = false;
    /** Whether the services run on the system bus that is there. */
    bool serves = false;

    /** Given by bmc-sim to itself alone, when it starts itself within the
     *  sandbox: the standard error stream to go on with, and supervise()'s
     *  lifeline to the bmc-sim outside. */
    std::vector<int> insideFiles;

    std::vector<std::string> command;
};

/** All files that are handed in, always in the same order. */
std::vector<InputFile*> inputFiles(Options& options);

/** Where the sandbox has a copy of one of them. */
inline std::string sandboxCopy(std::size_t number)
{
    return SANDBOX_DIRECTORY + ("/input-" + std::to_string(number));
}

/** Reads the command line. Where that asks for help, or is wrong, it says so
 *  and ends the program. */
Options parseOptions(const std::vector<std::string>& arguments);

} // namespace bmc_sim
