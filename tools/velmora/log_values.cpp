#include "log_values.hpp"

#include <gpgme.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <system_error>
#include <utility>

namespace velmora::front
{

namespace
{

/** A longer value is cut; in bytes. */
constexpr std::size_t MAX_VALUE = 512;

using Meaning = std::pair<int, const char*>;

constexpr std::array EXTRACTOR_CODES{
    Meaning{1, "a member was skipped or is damaged: a password, an unknown "
               "compression, or data that is not what was packed"},
    Meaning{2, "a damaged archive: cut short, changed on its way, or with "
               "something in front"},
    Meaning{3, "a badly damaged archive"},
    Meaning{5, "an encrypted member, or out of memory"},
    Meaning{9, "not a ZIP file, or not there"},
    Meaning{11, "no member matched"},
    Meaning{50, "the disk is full, or a file cannot be made"},
    Meaning{51, "the archive ends early"},
    Meaning{81, "unknown compression, or an encrypted member"},
    Meaning{82, "encrypted member"},
    Meaning{127, "the extractor cannot be started"},
};

using Type = std::pair<std::string_view, const char*>;

/** Exceptions that the library can log. */
constexpr std::array TYPES{
    Type{"N9sdbusplus9exception10SdBusErrorE",
         "sdbusplus::exception::SdBusError"},
    Type{"N9sdbusplus9exception17InvalidEnumStringE",
         "sdbusplus::exception::InvalidEnumString"},
    Type{"St9bad_alloc", "std::bad_alloc"},
    Type{"St12length_error", "std::length_error"},
    Type{"St18bad_variant_access", "std::bad_variant_access"},
};

constexpr std::array VALIDITIES{"unknown",  "undefined", "never",
                                "marginal", "full",      "ultimate"};

long long toNumber(std::string_view text)
{
    long long number = -1;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::string asItIs(std::string_view text) { return std::string(text); }

std::string extractorStatus(std::string_view text)
{
    const int code = WEXITSTATUS(static_cast<int>(toNumber(text)));
    const auto known =
        std::ranges::find(EXTRACTOR_CODES, code, &Meaning::first);
    return "exit code " + std::to_string(code) +
           (known != EXTRACTOR_CODES.end() ? std::string(", ") + known->second
                                           : "");
}

std::string validity(std::string_view text)
{
    const bool isKnown = text.size() == 1 && text[0] >= '0' && text[0] <= '5';
    return "the key's validity is " +
           (isKnown ? VALIDITIES.at(static_cast<std::size_t>(text[0] - '0'))
                    : std::string(text));
}

std::string systemErrorText(std::string_view text)
{
    return std::generic_category().message(static_cast<int>(toNumber(text)));
}

/** A type's name as a program writes it. Only what the library can log: text
 *  from a log is handed to no demangler. */
std::string typeName(std::string_view text)
{
    const auto* known = std::ranges::find(TYPES, text, &Type::first);
    return known != TYPES.end() ? known->second : std::string(text);
}

std::string gpgmeError(std::string_view text)
{
    return text == "No data" ? "package.xml.sign holds no OpenPGP signature"
                             : std::string(text);
}

/** A value in a line: what stands in front of it, and what it means. */
struct Value
{
    std::string_view label;
    const char* name;
    /** Gives the empty text for what is not worth showing. */
    std::string (*decode)(std::string_view);
    bool isTelling = false;
};

constexpr std::array VALUES{
    Value{"pidUnzip: ", "forkResult", asItIs},
    Value{"pidStatus: ", "extractor", extractorStatus, true},
    Value{"gpgmeStrErr: ", "gpgmeError", gpgmeError, true},
    Value{"err: ", "gpgmeError", asItIs, true},
    Value{"signCount: ", "signature", asItIs},
    Value{"gpgme_strerror(gpgmeSig->status): ", "signatureStatus", asItIs,
          true},
    Value{"gpgmeSig->timestamp: ", "signatureMade", date},
    Value{"gpgmeSig->exp_timestamp: ", "signatureExpires", date},
    Value{"gpgmeSig->validity: ", "keyValidity", validity, true},
    Value{"gpgme_hash_algo_name(gpgmeSig->hash_algo): ", "hashAlgorithm",
          asItIs},
    Value{"gpgme_pubkey_algo_name (gpgmeSig->pubkey_algo): ", "keyAlgorithm",
          asItIs},
    Value{"e.what(): ", "exception", asItIs, true},
    Value{"msg: ", "exceptionType", typeName, true},
    Value{"hexSystemIDStr: ", "thisSystem", asItIs},
    Value{"xmlXPathNodeNr: ", "systemsListed", asItIs},
    Value{"searchFound: ", "systemFound", asItIs},
    Value{"compID: ", "component", asItIs},
    Value{"sha256FromPkgXML: ", "expectedDigest", asItIs},
    Value{"sha256FromImage: ", "payloadDigest", asItIs},
    Value{"errstr[", "error", asItIs, true},
    Value{"errmsg[", "error", asItIs, true},
    Value{"strerr[", "error", asItIs, true},
    Value{"strtoll returned error[", "error", systemErrorText, true},
    Value{"timestamp =", "signingTime", date},
    Value{"Metadata algorithm is ", "algorithm", asItIs},
    Value{"Key length[", "keyBytes", asItIs},
};

} // namespace

std::string date(std::string_view seconds)
{
    const auto time = static_cast<std::time_t>(toNumber(seconds));
    std::tm parts{};
    if (time <= 0 || gmtime_r(&time, &parts) == nullptr)
    {
        return {};
    }
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(),
                                       "%Y-%m-%d %H:%M:%S UTC", &parts)};
}

std::vector<Detail> valuesIn(std::string_view text, bool hasMessage)
{
    std::vector<Detail> details;
    for (const Value& value : VALUES)
    {
        const std::size_t start = hasMessage ? text.find(value.label)
                                  : text.starts_with(value.label)
                                      ? 0
                                      : std::string_view::npos;
        if (start == std::string_view::npos)
        {
            continue;
        }
        auto found = text.substr(start + value.label.size());
        found = hasMessage ? found.substr(0, found.find(']')) : found;
        std::string meaning = value.decode(found.substr(0, MAX_VALUE));
        if (!meaning.empty())
        {
            details.push_back(
                {value.name, std::move(meaning), value.isTelling});
        }
    }
    return details;
}

} // namespace velmora::front
