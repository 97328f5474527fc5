#include "quorlin.h"
#include "target.hpp"
#include "velmora.hpp"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstring>

namespace
{

constexpr std::size_t CHAIN_SIZE = 24576;

} // namespace

/** The input: the time in eight bytes and the root CA, a part each, then the
 *  text of the chain area. */
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::forbidPrompts();
    fuzz::Bytes input(data, size);
    std::uint64_t time = 0;
    for (const std::uint8_t byte : fuzz::takePart(input))
    {
        time = time >> 8 | std::uint64_t{byte} << 56;
    }
    const std::string root = fuzz::textOf(fuzz::takePart(input));
    std::string area = fuzz::textOf(input);
    area.resize(CHAIN_SIZE);

    const int result =
        verify_chain_OBMC(area.c_str(), root.c_str(), std::strlen(area.c_str()),
                          static_cast<std::int64_t>(time));
    fuzz::expect(result >= -1);
    fuzz::expect(ERR_peek_error() == 0);

    X509* const certificate = ValidateQOR::getX509Cert(area);
    // What leads to the root CA begins with a certificate.
    fuzz::expect(result != 0 || certificate != nullptr);
    X509_free(certificate);
    ERR_clear_error();
    return 0;
}
