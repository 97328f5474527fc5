#include "quorlin.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>

namespace
{

template <auto Release>
struct Releaser
{
    template <typename T>
    void operator()(T* object) const
    {
        Release(object);
    }
};

void freeStack(STACK_OF(X509) * certificates)
{
    sk_X509_pop_free(certificates, X509_free);
}

using Bio = std::unique_ptr<BIO, Releaser<BIO_free>>;
using Certificate = std::unique_ptr<X509, Releaser<X509_free>>;
using Certificates = std::unique_ptr<STACK_OF(X509), Releaser<freeStack>>;
using Store = std::unique_ptr<X509_STORE, Releaser<X509_STORE_free>>;
using StoreContext =
    std::unique_ptr<X509_STORE_CTX, Releaser<X509_STORE_CTX_free>>;

constexpr int INTERNAL_ERROR = -1;
/** OpenSSL's level for 112 bits: no MD5 or SHA-1, no RSA below 2048 bits. */
constexpr int SECURITY_LEVEL = 2;

/** The caller's error queue keeps what it had, and nothing more. */
class ErrorMark
{
  public:
    ErrorMark() { ERR_set_mark(); }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;
    ~ErrorMark() { ERR_pop_to_mark(); }
};

/** An encrypted block must not make a daemon ask for a passphrase. */
int noPassphrase(char* /*buffer*/, int /*size*/, int /*forWriting*/,
                 void* /*data*/)
{
    return -1;
}

Bio readOnly(const char* data, size_t size)
{
    // A negative length would make OpenSSL look for the end itself.
    return Bio(size <= INT_MAX ? BIO_new_mem_buf(data, static_cast<int>(size))
                               : nullptr);
}

Certificate readCertificate(BIO* bio)
{
    return Certificate(PEM_read_bio_X509(bio, nullptr, noPassphrase, nullptr));
}

/** Whether reading stopped because there are no more blocks, not because of an
 *  error. */
bool atEnd()
{
    const unsigned long error = ERR_peek_last_error();
    return ERR_GET_LIB(error) == ERR_LIB_PEM &&
           ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
}

/** Every certificate that follows, or null when one cannot be read. */
Certificates readIntermediates(BIO* bio)
{
    Certificates certificates(sk_X509_new_null());
    if (certificates == nullptr)
    {
        return nullptr;
    }
    while (Certificate certificate = readCertificate(bio))
    {
        if (sk_X509_push(certificates.get(), certificate.get()) <= 0)
        {
            return nullptr;
        }
        static_cast<void>(certificate.release());
    }
    return atEnd() ? std::move(certificates) : nullptr;
}

int verify(X509_STORE_CTX* context)
{
    const int result = X509_verify_cert(context);
    if (result == 1)
    {
        return 0;
    }
    const int error = X509_STORE_CTX_get_error(context);
    if (result < 0)
    {
        return INTERNAL_ERROR;
    }
    return error > 0 ? error : X509_V_ERR_UNSPECIFIED;
}

} // namespace

int verify_chain_OBMC(const char* chain, const char* rootCa, size_t chainLength,
                      int64_t time)
{
    const ErrorMark mark;
    if (chain == nullptr || rootCa == nullptr ||
        time > std::numeric_limits<std::time_t>::max() ||
        time < std::numeric_limits<std::time_t>::min())
    {
        return INTERNAL_ERROR;
    }
    const Bio chainBio = readOnly(chain, chainLength);
    const Bio rootBio = readOnly(rootCa, std::strlen(rootCa));
    if (chainBio == nullptr || rootBio == nullptr)
    {
        return INTERNAL_ERROR;
    }
    const Certificate leaf = readCertificate(chainBio.get());
    const Certificate root = readCertificate(rootBio.get());
    if (leaf == nullptr || root == nullptr)
    {
        return INTERNAL_ERROR;
    }
    const Certificates intermediates = readIntermediates(chainBio.get());
    const Store store(X509_STORE_new());
    const StoreContext context(X509_STORE_CTX_new());
    if (intermediates == nullptr || store == nullptr || context == nullptr ||
        X509_STORE_add_cert(store.get(), root.get()) != 1 ||
        X509_STORE_CTX_init(context.get(), store.get(), leaf.get(),
                            intermediates.get()) != 1)
    {
        return INTERNAL_ERROR;
    }
    X509_STORE_CTX_set_time(context.get(), 0, static_cast<std::time_t>(time));
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(context.get()),
                                     SECURITY_LEVEL);
    return verify(context.get());
}

/** A build that finds an installed stand-in must not take it for a platform's
 *  library: it looks for this name. */
extern "C" [[gnu::visibility("default")]] int quorlin_is_stand_in()
{
    return 1;
}
