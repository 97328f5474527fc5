#pragma once

#include <dirent.h>
#include <gpgme.h>
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <type_traits>
#include <utility>

/** @file Owners of C objects. Stateless deleters keep a handle as small as
 *  the pointer it owns. */

namespace velmora
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

template <typename T, auto Release>
using Handle = std::unique_ptr<T, Releaser<Release>>;

/** Freeing a document also cleans up the parser. */
inline void freeDocument(xmlDoc* document)
{
    xmlFreeDoc(document);
#if LIBXML_VERSION < 21400
    xmlCleanupParser();
#else
    // It forgets the error functions of the process.
    const xmlStructuredErrorFunc structured = xmlStructuredError;
    void* const structuredContext = xmlStructuredErrorContext;
    const xmlGenericErrorFunc generic = xmlGenericError;
    void* const genericContext = xmlGenericErrorContext;
    xmlCleanupParser();
    xmlSetStructuredErrorFunc(structuredContext, structured);
    xmlSetGenericErrorFunc(genericContext, generic);
#endif
}

inline void freeXmlText(xmlChar* text) { xmlFree(text); }

inline void freeOpensslBytes(unsigned char* bytes) { OPENSSL_free(bytes); }

inline void closeStream(std::FILE* stream) { std::fclose(stream); }

/** One file descriptor, or none. */
class FileDescriptor
{
  public:
    /** @param number taken over; negative for none */
    explicit FileDescriptor(int number) : number_(number) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    ~FileDescriptor() { close(); }

    explicit operator bool() const { return number_ >= 0; }

    int get() const { return number_; }

    /** @return false when the system refuses; it is closed in either case */
    bool close()
    {
        const int number = std::exchange(number_, -1);
        return number < 0 || ::close(number) == 0;
    }

  private:
    int number_;
};

using XmlDocument = Handle<xmlDoc, freeDocument>;
using XmlText = Handle<xmlChar, freeXmlText>;
using XPathContext = Handle<xmlXPathContext, xmlXPathFreeContext>;
using XPathResult = Handle<xmlXPathObject, xmlXPathFreeObject>;

using OpenPgpContext =
    Handle<std::remove_pointer_t<gpgme_ctx_t>, gpgme_release>;
using OpenPgpData =
    Handle<std::remove_pointer_t<gpgme_data_t>, gpgme_data_release>;

using DigestContext = Handle<EVP_MD_CTX, EVP_MD_CTX_free>;
using PublicKey = Handle<EVP_PKEY, EVP_PKEY_free>;
using Certificate = Handle<X509, X509_free>;
using Bio = Handle<BIO, BIO_free>;
using BigNumber = Handle<BIGNUM, BN_free>;
using OpensslBytes = Handle<unsigned char, freeOpensslBytes>;
using DirectoryStream = Handle<DIR, closedir>;
using FileStream = Handle<std::FILE, closeStream>;
using EcdsaSignature = Handle<ECDSA_SIG, ECDSA_SIG_free>;

} // namespace velmora
