#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

    /** Verifies a certificate chain up to a root CA.
     *
     *  @param chain PEM certificates, the leaf first
     *  @param rootCa PEM root CA, NUL-terminated; the only one trusted
     *  @param chainLength bytes of @p chain
     *  @param time seconds since the epoch at which the chain must be valid
     *  @return 0 verified; positive: an X509_V_ERR code of OpenSSL's
     *          x509_vfy.h; negative: internal error */
    int verify_chain_OBMC(const char* chain, const char* rootCa,
                          size_t chainLength, int64_t time);

#ifdef __cplusplus
}
#endif
