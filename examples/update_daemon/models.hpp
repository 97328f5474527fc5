#pragma once

#include "files.hpp"
#include "package.hpp"

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <cctype>
#include <cstring>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

/** @file The version that was last accepted of each model: no signature says
 * that a package is newer than what runs. */

namespace update_daemon
{

/** Letters and digits as they are, all else as "_" and two digits: what an
 *  object's path and a file's name may have, and never the same for two. */
inline std::string encoded(std::string_view text)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string result;
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && std::isalnum(byte) != 0)
        {
            result += c;
        }
        else
        {
            result += {'_', DIGITS[byte >> 4], DIGITS[byte & 15]};
        }
    }
    return result;
}

/** What is remembered of a model. */
struct Installed
{
    std::string version; ///< last accepted; empty before the first
    std::string object;  ///< inventory path of what is published of it
    /** Of what was about to be published when a run was killed. */
    std::string next = {};
};

constexpr const char* INVENTORY = "/xyz/openbmc_project/inventory/system/";

class Models
{
  public:
    explicit Models(const fs::path& stateDirectory) :
        directory_(stateDirectory / "models"),
        allowOlder_(stateDirectory / "allow-older")
    {
        if (fs::create_directory(directory_))
        {
            sync(stateDirectory);
        }
    }

    /** @throws std::exception when it cannot be read: then nobody knows what is
     *          older */
    Installed find(const std::string& model) const
    {
        const fs::path path = fileOf(model);
        if (!fs::exists(path))
        {
            return {};
        }
        std::ifstream file(path);
        if (!file)
        {
            failWithErrno(path.string());
        }
        try
        {
            const auto content = nlohmann::json::parse(file);
            Installed installed{content.at("version"), content.at("object"),
                                content.value("next", "")};
            if (!installed.version.empty() &&
                (installed.object.empty() ||
                 installed.object.starts_with(INVENTORY)))
            {
                return installed;
            }
        }
        catch (const std::exception&) // NOLINT(bugprone-empty-catch)
        {
            // What it says is less than what is said below.
        }
        throw std::runtime_error(path.string() +
                                 " is damaged: restore it (without it, any "
                                 "version is taken)");
    }

    void remember(const std::string& model, const Installed& installed) const
    {
        replaceFile(fileOf(model), {{"model", model},
                                    {"version", installed.version},
                                    {"object", installed.object},
                                    {"next", installed.next}});
    }

    /** No signature says that a package is newer than what runs. */
    void expectNotOlder(const std::string& version,
                        const Installed& installed) const
    {
        if (installed.version.empty() ||
            strverscmp(version.c_str(), installed.version.c_str()) >= 0)
        {
            return;
        }
        struct stat status = {};
        if (lstat(allowOlder_.c_str(), &status) != 0 ||
            !S_ISREG(status.st_mode) || status.st_uid != 0)
        {
            throw Refusal("its version " + version + " is older than " +
                          installed.version + ", which was accepted before");
        }
        // One step back: gone before the older version is taken.
        fs::remove(allowOlder_);
        sync(allowOlder_.parent_path());
    }

  private:
    fs::path fileOf(const std::string& model) const
    {
        return directory_ / (encoded(model) + ".json");
    }

    fs::path directory_;
    fs::path allowOlder_;
};

} // namespace update_daemon
