#include "velmora.hpp"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

/** Each operation beside the least that its work costs: the digest over the
 *  same bytes in memory, or the bare calls. The input is made by
 *  benchmarks/side_by_side.py, which also runs the stock tools. */

namespace
{

namespace fs = std::filesystem;

const fs::path INPUT = std::getenv("VELMORA_BENCH_INPUT");
constexpr const char* ROOT_CA =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
constexpr const char* MODEL_PATH = "/xyz/openbmc_project/inventory/system/m";

void require(bool result)
{
    if (!result)
    {
        throw std::runtime_error("the library refused the input");
    }
}

const std::string& content(const std::string& name)
{
    static std::string loaded;
    static std::string bytes;
    if (loaded != name)
    {
        std::ifstream file(INPUT / name, std::ios::binary);
        bytes.resize(fs::file_size(INPUT / name));
        file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        loaded = name;
    }
    return bytes;
}

void digest(const EVP_MD* algorithm, const char* data, std::size_t size)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> result{};
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, algorithm, nullptr);
    EVP_DigestUpdate(context, data, size);
    EVP_DigestFinal_ex(context, result.data(), nullptr);
    EVP_MD_CTX_free(context);
    benchmark::DoNotOptimize(result);
}

void rawDigest(benchmark::State& state, const EVP_MD* algorithm,
               const std::string& name)
{
    const std::string& bytes = content(name);
    for (auto _ : state)
    {
        digest(algorithm, bytes.data(), bytes.size());
    }
}

void fileDigest(benchmark::State& state)
{
    for (auto _ : state)
    {
        require(!calculateFileSHA(INPUT / "big").empty());
    }
}

void image(benchmark::State& state)
{
    for (auto _ : state)
    {
        require(ValidateQOR::verifyManifestAndSignature(
                    INPUT / "image", INPUT / "manifest") == 0);
    }
}

void slot(benchmark::State& state)
{
    const std::string path = INPUT / "payload";
    std::ifstream file(path, std::ios::binary);
    std::string chain(24576, '\0');
    std::string signature(512, '\0');
    file.seekg(-76800, std::ios::end);
    file.read(chain.data(), 24576);
    file.seekg(512, std::ios::cur);
    file.read(signature.data(), 512);
    metadata_algo = "PS384";
    for (auto _ : state)
    {
        require(ValidateQOR::verify_slot_signature(
                    chain, signature, const_cast<char*>(path.c_str())) == 0);
    }
}

void metadata(benchmark::State& state)
{
    const std::string text =
        R"({"ver": "1", "alg": "PS384", "sts": "1700000000"})";
    for (auto _ : state)
    {
        std::string block = text;
        block.resize(512);
        require(ValidateQOR::extract_meta_data(block) == 0);
    }
}

void bareComposite(benchmark::State& state)
{
    std::vector<std::string> paths;
    for (const auto& entry : fs::directory_iterator(INPUT / "many"))
    {
        paths.push_back(entry.path().string());
    }
    for (auto _ : state)
    {
        std::array<char, 4096> buffer;
        for (const std::string& path : paths)
        {
            const int file = open(path.c_str(), O_RDONLY);
            const ssize_t size = read(file, buffer.data(), buffer.size());
            close(file);
            digest(EVP_sha256(), buffer.data(),
                   static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        }
    }
}

void composite(benchmark::State& state)
{
    for (auto _ : state)
    {
        require(!ValidateQOR::getSHAStrFromImage(INPUT / "many").empty());
    }
}

void validate(benchmark::State& state)
{
    for (auto _ : state)
    {
        require(ValidateQOR::validateExtractedQOR(INPUT / "package"));
    }
}

void bareModel(benchmark::State& state)
{
    for (auto _ : state)
    {
        sd_bus* bus = nullptr;
        sd_bus_message* call = nullptr;
        sd_bus_message* reply = nullptr;
        sd_bus_default_system(&bus);
        sd_bus_message_new_method_call(
            bus, &call, "xyz.openbmc_project.Software.Installed.Inventory",
            "/xyz/openbmc_project/software/m",
            "org.freedesktop.DBus.Properties", "Get");
        sd_bus_message_append(call, "ss", "xyz.openbmc_project.Software.Model",
                              "Model");
        require(sd_bus_call(bus, call, 0, nullptr, &reply) >= 0);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
        sd_bus_unref(bus);
    }
}

void model(benchmark::State& state)
{
    for (auto _ : state)
    {
        require(!ValidateQOR::getInventoryModel(MODEL_PATH).empty());
    }
}

void add(const char* name, void (*function)(benchmark::State&))
{
    benchmark::RegisterBenchmark(name, function)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    add("file digest/raw",
        [](benchmark::State& s) { rawDigest(s, EVP_sha256(), "big"); });
    add("file digest/library", fileDigest);
    add("image/raw",
        [](benchmark::State& s) { rawDigest(s, EVP_sha512(), "image"); });
    add("image/library", image);
    add("slot/raw",
        [](benchmark::State& s) { rawDigest(s, EVP_sha384(), "payload"); });
    add("slot/library", slot);
    add("composite/raw", bareComposite);
    add("composite/library", composite);
    add("validation/library", validate);
    add("metadata/library", metadata);
    ValidateQOR::registerSWInv(MODEL_PATH, "M", "1",
                               ValidateQOR::VersionPurpose::BMC,
                               ValidateQOR::ReleaseType::Other);
    add("model/raw", bareModel);
    add("model/library", model);
    // What the library logs is measured too, but not shown.
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
