// Owners of OpenSSL's objects.
#pragma once

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace qm::openssl {

struct Free {
  void operator()(BIO* object) const { BIO_free_all(object); }
  void operator()(CMS_ContentInfo* object) const { CMS_ContentInfo_free(object); }
  void operator()(EVP_PKEY* object) const { EVP_PKEY_free(object); }
  void operator()(X509* object) const { X509_free(object); }
  void operator()(X509_EXTENSION* object) const { X509_EXTENSION_free(object); }
  void operator()(X509_STORE* object) const { X509_STORE_free(object); }
  void operator()(X509_STORE_CTX* object) const { X509_STORE_CTX_free(object); }
  void operator()(STACK_OF(X509) * object) const { sk_X509_pop_free(object, X509_free); }
};

template <class Object>
using Ptr = std::unique_ptr<Object, Free>;

using BioPtr = Ptr<BIO>;
using CmsPtr = Ptr<CMS_ContentInfo>;
using KeyPtr = Ptr<EVP_PKEY>;
using CertificatePtr = Ptr<X509>;
using CertificateStackPtr = Ptr<STACK_OF(X509)>;
using StorePtr = Ptr<X509_STORE>;
using StoreContextPtr = Ptr<X509_STORE_CTX>;

}  // namespace qm::openssl
