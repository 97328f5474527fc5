#pragma once

#include "support.hpp"

#include <gtest/gtest.h>

#include <string>

namespace velmora::test
{

constexpr std::size_t TRAILER = 76800;
constexpr std::size_t CHAIN = 24576;
constexpr std::size_t METADATA = 512;
constexpr std::size_t SIGNATURE = 512;
constexpr const char* ROOT_CA =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
inline const std::filesystem::path RUN_TIME = "/var/run/velmora/Zarnholt";

/** A payload that is signed with PS384, and a machine that accepts it. */
class SignedPayload : public LoggedTest
{
  protected:
    void SetUp() override;

    static const std::string& good();

    /** Offset of slot 1. */
    static std::size_t slot() { return good().size() - TRAILER; }

    static std::string goodChain() { return good().substr(slot(), CHAIN); }

    static std::string goodSignature()
    {
        return good().substr(slot() + CHAIN + METADATA, SIGNATURE);
    }

    std::string path = scratch / "payload";
};

} // namespace velmora::test
