#include "faults.hpp"

#include <dirent.h>
#include <dlfcn.h>
#include <gpgme.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xpath.h>
#include <openssl/bio.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509_vfy.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace
{

std::string chosen;
int countdown = 0;
bool fired = false;
/** Takes the place of the failure. */
std::function<void()> interruption;
/** Faults are for the thread of the test, not for its services. */
thread_local bool watched = false;
velmora::test::Lines* releases = nullptr;

/** Whether the code at @p address is the library's or its chain verifier's.
 *  The standard library reads files and their status for the library, and the
 * parser may be returned to directly, so they count for those calls. */
bool inLibrary(const void* address)
{
    Dl_info info{};
    const auto in = [&info](const char* name)
    { return std::strstr(info.dli_fname, name) != nullptr; };
    return dladdr(address, &info) != 0 &&
           (in("libvelmora.so") || in("libquorlin.so") ||
            ((chosen == "read" || chosen == "stat") && in("libstdc++.so")) ||
            (chosen == "xmlNewInputFromMemory" && in("libxml2.so")));
}

bool failNow(std::string_view function, const void* caller)
{
    if (releases != nullptr && (function == "munmap" || function == "close") &&
        inLibrary(caller))
    {
        releases->emplace_back(function);
    }
    if (countdown == 0 || !watched || chosen != function || !inLibrary(caller))
    {
        return false;
    }
    --countdown;
    if (countdown != 0)
    {
        return false;
    }
    fired = true;
    if (interruption)
    {
        interruption();
        return false;
    }
    return true;
}

std::vector<std::string>& names()
{
    static std::vector<std::string> all;
    return all;
}

int failed(int error)
{
    errno = error;
    return -1;
}

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The symbol is given as text, so that the definition need not repeat what the
// C library's header says of the function.
#define FAULT_AT(result, name, symbol, parameters, arguments, failure)         \
    extern "C" result fault_##name parameters __asm__(symbol);                 \
    extern "C" result fault_##name parameters                                  \
    {                                                                          \
        static auto* real = next<result parameters>(symbol);                   \
        if (failNow(#name, __builtin_return_address(0)))                       \
        {                                                                      \
            return failure;                                                    \
        }                                                                      \
        return real arguments;                                                 \
    }                                                                          \
    namespace                                                                  \
    {                                                                          \
    const bool named_##name = (names().push_back(#name), true);                \
    }

#define FAULT(result, name, parameters, arguments, failure)                    \
    FAULT_AT(result, name, #name, parameters, arguments, failure)

// 32-bit systems have another function where they count time in 64 bits.
#if defined(_TIME_BITS) && _TIME_BITS == 64 && __TIMESIZE == 32
#define FSTAT64 "__fstat64_time64"
#define STAT "__stat64_time64"
#define OTHER_STAT "stat64"
#elif __TIMESIZE == 32
#define FSTAT64 "fstat64"
#define STAT "stat64"
#else
#define FSTAT64 "fstat64"
#define STAT "stat"
#endif

#define RELEASE(result, name, parameters, arguments)                           \
    extern "C" result note_##name parameters __asm__(#name);                   \
    extern "C" result note_##name parameters                                   \
    {                                                                          \
        static auto* real = next<result parameters>(#name);                    \
        if (releases != nullptr && inLibrary(__builtin_return_address(0)))     \
        {                                                                      \
            releases->push_back(#name);                                        \
        }                                                                      \
        return real arguments;                                                 \
    }

#ifdef OTHER_STAT
// The standard library may still count times in 32 bits.
extern "C" int other_stat(const char* path, void* status) __asm__(OTHER_STAT);
extern "C" int other_stat(const char* path, void* status)
{
    static auto* real = next<int(const char*, void*)>(OTHER_STAT);
    return failNow("stat", __builtin_return_address(0)) ? failed(EOVERFLOW)
                                                        : real(path, status);
}
#endif

// clang-format off
FAULT(int, fork, (), (), failed(EAGAIN) - 1)
FAULT(int, waitpid, (int p, int* s, int o), (p, s, o), failed(EINTR))
FAULT(int, unlink, (const char* p), (p), failed(EPERM))
FAULT(int, open64, (const char* p, int f, unsigned m), (p, f, m), failed(EACCES))
FAULT(int, statx, (int d, const char* p, int f, unsigned m, struct statx* s), (d, p, f, m, s), failed(EIO))
FAULT_AT(int, stat, STAT, (const char* p, struct stat* s), (p, s), failed(EOVERFLOW))
FAULT_AT(int, fstat64, FSTAT64, (int d, struct stat* s), (d, s), failed(EIO))
FAULT(void*, mmap64, (void* a, size_t l, int p, int f, int d, std::int64_t o), (a, l, p, f, d, o), (failed(ENOMEM), MAP_FAILED))
FAULT(int, munmap, (void* a, size_t l), (a, l), (real(a, l), failed(EINVAL)))
FAULT(int, close, (int d), (d), (real(d), failed(EIO)))
FAULT(ssize_t, pread64, (int d, void* b, size_t n, std::int64_t o), (d, b, n, o), failed(EIO))
FAULT(ssize_t, read, (int d, void* b, size_t n), (d, b, n), failed(EIO))
FAULT(DIR*, opendir, (const char* p), (p), (failed(EMFILE), nullptr))
FAULT(dirent64*, readdir64, (DIR* d), (d), (failed(EIO), nullptr))
FAULT(FILE*, fopen64, (const char* p, const char* m), (p, m), nullptr)
FAULT(size_t, fwrite, (const void* d, size_t s, size_t n, FILE* f), (d, s, n, f), 0)
FAULT(int, fflush, (FILE* f), (f), failed(ENOSPC))

FAULT(EVP_MD_CTX*, EVP_MD_CTX_new, (), (), nullptr)
FAULT(const EVP_MD*, EVP_sha256, (), (), nullptr)
FAULT(const EVP_MD*, EVP_sha384, (), (), nullptr)
FAULT(const EVP_MD*, EVP_sha512, (), (), nullptr)
FAULT(int, EVP_DigestInit_ex, (EVP_MD_CTX* c, const EVP_MD* m, ENGINE* e), (c, m, e), 0)
FAULT(int, EVP_DigestUpdate, (EVP_MD_CTX* c, const void* d, size_t n), (c, d, n), 0)
FAULT(int, EVP_DigestFinal_ex, (EVP_MD_CTX* c, unsigned char* d, unsigned* n), (c, d, n), 0)
FAULT(int, EVP_DigestVerifyInit, (EVP_MD_CTX* c, EVP_PKEY_CTX** k, const EVP_MD* m, ENGINE* e, EVP_PKEY* p), (c, k, m, e, p), 0)
FAULT(int, EVP_DigestVerifyUpdate, (EVP_MD_CTX* c, const void* d, size_t n), (c, d, n), 0)
FAULT(int, EVP_DigestVerifyFinal, (EVP_MD_CTX* c, const unsigned char* s, size_t n), (c, s, n), -1)
FAULT(int, EVP_PKEY_CTX_set_rsa_padding, (EVP_PKEY_CTX* c, int p), (c, p), 0)
FAULT(int, EVP_PKEY_CTX_set_rsa_pss_saltlen, (EVP_PKEY_CTX* c, int n), (c, n), 0)
FAULT(int, EVP_PKEY_get_size, (const EVP_PKEY* k), (k), 0)
FAULT(EVP_PKEY*, d2i_PUBKEY, (EVP_PKEY** k, const unsigned char** d, long n), (k, d, n), nullptr)
FAULT(ECDSA_SIG*, ECDSA_SIG_new, (), (), nullptr)
FAULT(BIGNUM*, BN_bin2bn, (const unsigned char* d, int n, BIGNUM* b), (d, n, b), nullptr)
FAULT(int, ECDSA_SIG_set0, (ECDSA_SIG* s, BIGNUM* a, BIGNUM* b), (s, a, b), 0)
FAULT(int, i2d_ECDSA_SIG, (const ECDSA_SIG* s, unsigned char** d), (s, d), 0)
FAULT(BIO*, BIO_new, (const BIO_METHOD* m), (m), nullptr)
FAULT(int, BIO_write, (BIO* b, const void* d, int n), (b, d, n), -1)
FAULT(BIO*, BIO_new_fp, (FILE* f, int c), (f, c), nullptr)
FAULT(BIO*, BIO_new_mem_buf, (const void* d, int n), (d, n), nullptr)
FAULT(X509*, PEM_read_bio_X509, (BIO* b, X509** x, pem_password_cb* c, void* u), (b, x, c, u), nullptr)
FAULT(int, PEM_write_bio_PUBKEY, (BIO* b, const EVP_PKEY* k), (b, k), 0)
FAULT(EVP_PKEY*, X509_get_pubkey, (X509* x), (x), nullptr)
FAULT(X509_STORE*, X509_STORE_new, (), (), nullptr)
FAULT(X509_STORE_CTX*, X509_STORE_CTX_new, (), (), nullptr)
FAULT(int, X509_STORE_CTX_init, (X509_STORE_CTX* c, X509_STORE* s, X509* x, STACK_OF(X509)* i), (c, s, x, i), 0)
FAULT(int, X509_STORE_add_cert, (X509_STORE* s, X509* x), (s, x), 0)
FAULT(int, X509_verify_cert, (X509_STORE_CTX* c), (c), -1)

FAULT(gpgme_error_t, gpgme_engine_check_version, (gpgme_protocol_t p), (p), GPG_ERR_INV_ENGINE)
FAULT(gpgme_error_t, gpgme_new, (gpgme_ctx_t* c), (c), GPG_ERR_ENOMEM)
FAULT(gpgme_error_t, gpgme_ctx_set_engine_info, (gpgme_ctx_t c, gpgme_protocol_t p, const char* f, const char* h), (c, p, f, h), GPG_ERR_ENOMEM)
FAULT(gpgme_error_t, gpgme_data_new_from_file, (gpgme_data_t* d, const char* f, int c), (d, f, c), GPG_ERR_EIO)
FAULT(gpgme_error_t, gpgme_op_verify, (gpgme_ctx_t c, gpgme_data_t s, gpgme_data_t t, gpgme_data_t p), (c, s, t, p), GPG_ERR_GENERAL)
FAULT(gpgme_verify_result_t, gpgme_op_verify_result, (gpgme_ctx_t c), (c), static_cast<gpgme_verify_result_t>(velmora::test::insteadOfResult))
FAULT(const char*, gpgme_hash_algo_name, (gpgme_hash_algo_t a), (a), nullptr)
FAULT(const char*, gpgme_pubkey_algo_name, (gpgme_pubkey_algo_t a), (a), nullptr)

FAULT(xmlDocPtr, xmlParseFile, (const char* p), (p), nullptr)
#if LIBXML_VERSION >= 21400
FAULT(xmlParserInput*, xmlNewInputFromMemory, (const char* u, const void* m, size_t n, xmlParserInputFlags g), (u, m, n, g), nullptr)
#else
FAULT(xmlParserInputBufferPtr, xmlParserInputBufferCreateMem, (const char* m, int n, xmlCharEncoding e), (m, n, e), nullptr)
FAULT(xmlParserInputPtr, xmlNewIOInputStream, (xmlParserCtxtPtr c, xmlParserInputBufferPtr b, xmlCharEncoding e), (c, b, e), nullptr)
#endif
FAULT(xmlXPathContextPtr, xmlXPathNewContext, (xmlDocPtr d), (d), nullptr)
FAULT(xmlXPathObjectPtr, xmlXPathEvalExpression, (const xmlChar* e, xmlXPathContextPtr c), (e, c), static_cast<xmlXPathObjectPtr>(velmora::test::insteadOfResult))
FAULT(xmlChar*, xmlNodeGetContent, (const xmlNode* n), (n), nullptr)

FAULT(int, sd_bus_default_system, (sd_bus** b), (b), -ENOMEM)
FAULT(int, sd_bus_message_new_method_call, (sd_bus* b, sd_bus_message** m, const char* s, const char* p, const char* i, const char* n), (b, m, s, p, i, n), -ENOMEM)
FAULT(int, sd_bus_call, (sd_bus* b, sd_bus_message* m, std::uint64_t t, sd_bus_error* e, sd_bus_message** r), (b, m, t, e, r), sd_bus_error_set_errno(e, EIO))
FAULT(int, sd_bus_message_read_basic, (sd_bus_message* m, char t, void* p), (m, t, p), -EBADMSG)
FAULT(int, sd_bus_message_enter_container, (sd_bus_message* m, char t, const char* c), (m, t, c), -EBADMSG)
FAULT(int, sd_bus_message_exit_container, (sd_bus_message* m), (m), -EBUSY)
FAULT(int, sd_bus_message_at_end, (sd_bus_message* m, int c), (m, c), -EBADMSG)
FAULT(int, sd_bus_message_verify_type, (sd_bus_message* m, char t, const char* c), (m, t, c), -EBADMSG)

RELEASE(void, xmlFreeDoc, (xmlDoc* o), (o))
RELEASE(void, xmlXPathFreeContext, (xmlXPathContext* o), (o))
RELEASE(void, xmlXPathFreeObject, (xmlXPathObject* o), (o))
RELEASE(void, gpgme_release, (gpgme_context* o), (o))
RELEASE(void, gpgme_data_release, (gpgme_data* o), (o))
RELEASE(sd_bus*, sd_bus_unref, (sd_bus* o), (o))
RELEASE(sd_bus_message*, sd_bus_message_unref, (sd_bus_message* o), (o))
RELEASE(void, EVP_MD_CTX_free, (EVP_MD_CTX* o), (o))
RELEASE(void, EVP_PKEY_free, (EVP_PKEY* o), (o))
RELEASE(void, X509_free, (X509* o), (o))
RELEASE(void, ECDSA_SIG_free, (ECDSA_SIG* o), (o))
RELEASE(void, xmlCleanupParser, (), ())
// clang-format on

extern "C" int
    note_verify_chain(const char* chain, const char* root, std::size_t length,
                      std::int64_t time) __asm__("verify_chain_OBMC");
extern "C" int note_verify_chain(const char* chain, const char* root,
                                 std::size_t length, std::int64_t time)
{
    static auto* real = next<decltype(note_verify_chain)>("verify_chain_OBMC");
    velmora::test::chainQuestion = {length, time};
    return real(chain, root, length, time);
}

// Memory fails for whatever the library calls, its own code or not.
static void* allocate(std::size_t size)
{
    if (watched && countdown != 0 && chosen == "operator new")
    {
        --countdown;
        if (countdown == 0)
        {
            fired = true;
            return nullptr;
        }
    }
    return std::malloc(size != 0 ? size : 1);
}

void* operator new(std::size_t size)
{
    void* memory = allocate(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new[](std::size_t size) { return operator new(size); }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

// A compiler that saw free() here would take it for the wrong partner of new.
[[gnu::noinline]] static void release(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory) noexcept { release(memory); }

void operator delete(void* memory, std::size_t) noexcept { release(memory); }

void operator delete[](void* memory) noexcept { release(memory); }

void operator delete[](void* memory, std::size_t) noexcept { release(memory); }

namespace velmora::test
{

std::vector<std::string> faultyFunctions()
{
    std::vector<std::string> all = names();
    all.emplace_back("operator new");
    return all;
}

bool withFault(const std::string& function, int nth,
               const std::function<void()>& work,
               const std::function<void()>& before)
{
    interruption = before;
    chosen = function;
    fired = false;
    watched = true;
    countdown = nth;
    try
    {
        work();
    }
    catch (const std::exception&)
    {
        // A documented way to end, where memory is out.
        EXPECT_TRUE(fired);
    }
    countdown = 0;
    watched = false;
    return fired;
}

void* insteadOfResult = nullptr;
ChainQuestion chainQuestion;

Lines releasesOf(const std::function<void()>& work)
{
    Lines noted;
    releases = &noted;
    logOf(work);
    releases = nullptr;
    return noted;
}

} // namespace velmora::test
