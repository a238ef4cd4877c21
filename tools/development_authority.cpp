#include "tools/development_authority.hpp"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/file_descriptor.hpp"
#include "platform/linux/openssl_objects.hpp"
#include "tools/program_signer.hpp"

namespace qm::tools {
namespace {

constexpr const char* kOrganization = "Quillmarsh development";
constexpr int kSerialBits = 127;           // positive in 16 bytes
constexpr long kClockTolerance = 60 * 60;  // seconds the validity begins in the past

struct FreeNumber {
  void operator()(BIGNUM* number) const { BN_free(number); }
};

bool setSerial(X509* certificate) {
  const std::unique_ptr<BIGNUM, FreeNumber> number(BN_new());
  return number != nullptr && BN_rand(number.get(), kSerialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
         BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr;
}

bool addName(X509* certificate, const char* part, const std::string& value) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
  return X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), part, MBSTRING_UTF8, bytes,
                                    static_cast<int>(value.size()), -1, 0) == 1;
}

bool addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const openssl::Ptr<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  return extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1;
}

// Everything but names, extensions and signature.
openssl::CertificatePtr beginCertificate(EVP_PKEY* key, int days) {
  openssl::CertificatePtr certificate(X509_new());
  constexpr long kVersion3 = 2;
  const bool isMade = certificate != nullptr && X509_set_version(certificate.get(), kVersion3) == 1 &&
                      setSerial(certificate.get()) && X509_set_pubkey(certificate.get(), key) == 1 &&
                      X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kClockTolerance) != nullptr &&
                      X509_time_adj_ex(X509_getm_notAfter(certificate.get()), days, 0, nullptr) != nullptr;
  return isMade ? std::move(certificate) : nullptr;
}

openssl::CertificatePtr makeRoot(EVP_PKEY* key, const AuthorityOptions& options) {
  openssl::CertificatePtr root = beginCertificate(key, options.days);
  if (root == nullptr) return nullptr;
  X509* certificate = root.get();
  const bool isMade = addName(certificate, "O", kOrganization) &&
                      addName(certificate, "CN", "Quillmarsh development root") &&
                      X509_set_issuer_name(certificate, X509_get_subject_name(certificate)) == 1 &&
                      addExtension(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE") &&
                      addExtension(certificate, certificate, NID_key_usage, "critical,keyCertSign") &&
                      addExtension(certificate, certificate, NID_subject_key_identifier, "hash") &&
                      X509_sign(certificate, key, EVP_sha256()) != 0;
  return isMade ? std::move(root) : nullptr;
}

openssl::CertificatePtr makeLeaf(EVP_PKEY* key, X509* root, EVP_PKEY* rootKey,
                                 const AuthorityOptions& options) {
  openssl::CertificatePtr leaf = beginCertificate(key, options.days);
  if (leaf == nullptr) return nullptr;
  X509* certificate = leaf.get();
  const bool isMade = addName(certificate, "O", kOrganization) && addName(certificate, "OU", options.team) &&
                      addName(certificate, "CN", "Quillmarsh development signing (" + options.team + ")") &&
                      X509_set_issuer_name(certificate, X509_get_subject_name(root)) == 1 &&
                      addExtension(certificate, root, NID_basic_constraints, "critical,CA:FALSE") &&
                      addExtension(certificate, root, NID_key_usage, "critical,digitalSignature") &&
                      addExtension(certificate, root, NID_ext_key_usage, "codeSigning") &&
                      addExtension(certificate, root, NID_subject_key_identifier, "hash") &&
                      addExtension(certificate, root, NID_authority_key_identifier, "keyid:always") &&
                      X509_sign(certificate, rootKey, EVP_sha256()) != 0;
  return isMade ? std::move(leaf) : nullptr;
}

// The PEM text that `write` produces.
template <class Write>
std::string pem(const Write& write) {
  const openssl::BioPtr target(BIO_new(BIO_s_mem()));
  if (target == nullptr || write(target.get()) != 1) return {};
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(target.get(), &bytes);
  return length <= 0 ? std::string() : std::string(bytes, static_cast<std::size_t>(length));
}

struct NewFile {
  std::string path;
  mode_t mode;
  std::string content;
};

Failure writeNewFile(const NewFile& file) {
  const FileDescriptor target(::open(file.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, file.mode));
  if (!target) return file.path + ": " + std::strerror(errno);
  const bool isWritten = ::fchmod(target.get(), file.mode) == 0 &&
                         ::write(target.get(), file.content.data(), file.content.size()) ==
                             static_cast<ssize_t>(file.content.size());
  if (isWritten) return std::nullopt;
  const std::string reason = std::strerror(errno);
  ::unlink(file.path.c_str());
  return file.path + ": " + reason;
}

// All files or none.
template <std::size_t Count>
Failure writeNewFiles(const std::array<NewFile, Count>& files) {
  for (std::size_t i = 0; i < Count; ++i) {
    const Failure failure = writeNewFile(files[i]);
    if (!failure) continue;
    for (std::size_t written = 0; written < i; ++written) ::unlink(files[written].path.c_str());
    return failure;
  }
  return std::nullopt;
}

Failure checkOptions(const AuthorityOptions& options) {
  constexpr std::size_t kLongestTeam = 46;  // what the common name's 64 characters leave
  constexpr int kMostDays = 3650;
  if (options.team.empty() || options.team.size() > kLongestTeam) return "the team has 1 to 46 characters";
  if (options.days < 1 || options.days > kMostDays) return "the authority is valid for 1 to 3650 days";
  return std::nullopt;
}

}  // namespace

Failure makeDevelopmentAuthority(const std::string& folder, const AuthorityOptions& options) {
  if (const Failure failure = checkOptions(options)) return failure;
  const openssl::KeyPtr rootKey(EVP_EC_gen("P-256"));
  const openssl::KeyPtr leafKey(EVP_EC_gen("P-256"));
  if (rootKey == nullptr || leafKey == nullptr) return "no key can be made: " + openSSLReason();
  const openssl::CertificatePtr root = makeRoot(rootKey.get(), options);
  const openssl::CertificatePtr leaf =
      root == nullptr ? nullptr : makeLeaf(leafKey.get(), root.get(), rootKey.get(), options);
  if (leaf == nullptr) return "no certificate can be made: " + openSSLReason();
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return folder + ": " + std::strerror(errno);
  const std::array files{NewFile{folder + "/" + kDevelopmentKey, 0600, pem([&](BIO* target) {
                                   return PEM_write_bio_PrivateKey(target, leafKey.get(), nullptr, nullptr, 0,
                                                                   nullptr, nullptr);
                                 })},
                         NewFile{folder + "/" + kDevelopmentCertificate, 0644,
                                 pem([&](BIO* target) { return PEM_write_bio_X509(target, leaf.get()); })},
                         NewFile{folder + "/" + kDevelopmentRoot, 0644,
                                 pem([&](BIO* target) { return PEM_write_bio_X509(target, root.get()); })}};
  for (const NewFile& file : files)
    if (file.content.empty()) return file.path + ": " + openSSLReason();
  return writeNewFiles(files);
}

}  // namespace qm::tools
