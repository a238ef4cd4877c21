// Certificates of every good and bad kind, and signatures made with them, for the tests of verification.
#pragma once

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "platform/linux/openssl_objects.hpp"
#include "support/testing.hpp"

namespace qm::test {

struct Identity {
  openssl::KeyPtr key;
  openssl::CertificatePtr certificate;
};

struct CertificateKind {
  std::string name;
  std::string team = "TEAM";
  bool isAuthority = false;
  long firstDay = -1;  // of the validity, from today
  long lastDay = 30;
  unsigned rsaBits = 0;  // 0: EC P-256
  const EVP_MD* digest = EVP_sha256();
};

inline void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const openssl::Ptr<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  X509_add_ext(certificate, extension.get(), -1);
}

// Signed by the issuer, by itself for a null one.
inline Identity issue(const CertificateKind& kind, const Identity* issuer) {
  static long serial = 0;
  Identity made;
  made.key.reset(kind.rsaBits == 0 ? EVP_EC_gen("P-256") : EVP_RSA_gen(kind.rsaBits));
  made.certificate.reset(X509_new());
  X509* certificate = made.certificate.get();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
  X509_set_pubkey(certificate, made.key.get());
  X509_time_adj_ex(X509_getm_notBefore(certificate), static_cast<int>(kind.firstDay), 0, nullptr);
  X509_time_adj_ex(X509_getm_notAfter(certificate), static_cast<int>(kind.lastDay), 0, nullptr);
  X509_NAME* subject = X509_get_subject_name(certificate);
  for (const auto& [part, value] : {std::pair<const char*, std::string>{"CN", kind.name}, {"OU", kind.team}})
    X509_NAME_add_entry_by_txt(subject, part, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(value.data()),
                               static_cast<int>(value.size()), -1, 0);
  X509* above = issuer == nullptr ? certificate : issuer->certificate.get();
  X509_set_issuer_name(certificate, X509_get_subject_name(above));
  addExtension(certificate, above, NID_basic_constraints,
               kind.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExtension(certificate, above, NID_subject_key_identifier, "hash");
  addExtension(certificate, above, NID_authority_key_identifier, "keyid:always");
  X509_sign(certificate, issuer == nullptr ? made.key.get() : issuer->key.get(), kind.digest);
  return made;
}

inline std::string pem(const Identity& identity) {
  const openssl::BioPtr target(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(target.get(), identity.certificate.get());
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(target.get(), &bytes);
  return {bytes, static_cast<std::size_t>(length)};
}

struct SignatureKind {
  unsigned flags = CMS_BINARY | CMS_DETACHED;
  const EVP_MD* digest = EVP_sha256();
  std::vector<const Identity*> intermediates = {};
  const Identity* secondSigner = nullptr;
};

// A CMS in DER over the content.
inline std::vector<std::uint8_t> sign(std::string_view content, const Identity& signer,
                                      const SignatureKind& kind = {}) {
  const openssl::BioPtr source(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  const openssl::CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, kind.flags | CMS_PARTIAL));
  for (const Identity* intermediate : kind.intermediates)
    CMS_add1_cert(cms.get(), intermediate->certificate.get());
  for (const Identity* each : {&signer, kind.secondSigner})
    if (each != nullptr)
      CMS_add1_signer(cms.get(), each->certificate.get(), each->key.get(), kind.digest, kind.flags);
  CMS_final(cms.get(), source.get(), nullptr, kind.flags);
  unsigned char* bytes = nullptr;
  const int length = i2d_CMS_ContentInfo(cms.get(), &bytes);
  std::vector<std::uint8_t> der(bytes, bytes + length);
  OPENSSL_free(bytes);
  return der;
}

}  // namespace qm::test
