#pragma once

#include <memory>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

// Owners of OpenSSL objects: each frees its object with the matching OpenSSL function.
template <typename T, void (*Free)(T*)>
struct COpenSslFree {
  void operator()(T* p) const { Free(p); }
};
using CBio = std::unique_ptr<BIO, COpenSslFree<BIO, BIO_free_all>>;
using CX509 = std::unique_ptr<X509, COpenSslFree<X509, X509_free>>;
using CKey = std::unique_ptr<EVP_PKEY, COpenSslFree<EVP_PKEY, EVP_PKEY_free>>;
using CPkcs7 = std::unique_ptr<PKCS7, COpenSslFree<PKCS7, PKCS7_free>>;
using CStore = std::unique_ptr<X509_STORE, COpenSslFree<X509_STORE, X509_STORE_free>>;
using CExtension = std::unique_ptr<X509_EXTENSION, COpenSslFree<X509_EXTENSION, X509_EXTENSION_free>>;

inline void FreeCertificates(STACK_OF(X509)* certificates) { sk_X509_pop_free(certificates, X509_free); }
using CCertificates = std::unique_ptr<STACK_OF(X509), COpenSslFree<STACK_OF(X509), FreeCertificates>>;
