#include "platform/linux/code_signature.hpp"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/sha.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "platform/file_io.hpp"
#include "platform/linux/elf_section.hpp"
#include "platform/linux/openssl_objects.hpp"
#include "platform/linux/trust_anchors.hpp"
#include "platform/property_list.hpp"

namespace qm {
namespace {

constexpr std::size_t kReadSize = 256 * 1024;  // bytes
constexpr int kMaximumIntermediates = 8;       // between the leaf and the anchor
constexpr int kMinimumSecurityLevel = 2;       // 112 bits, SSL_CTX_set_security_level(3)
constexpr std::size_t kMaximumSigners = 1;

// The errors of a call stay with the call: a thread's error queue is empty before and after.
struct ErrorQueueScope {
  ErrorQueueScope() { ERR_clear_error(); }
  ~ErrorQueueScope() { ERR_clear_error(); }
  ErrorQueueScope(const ErrorQueueScope&) = delete;
  ErrorQueueScope& operator=(const ErrorQueueScope&) = delete;
};

// Fills the buffer from the position. EIO when the file is shorter.
OSStatus readExactly(int descriptor, void* buffer, std::size_t length, std::uint64_t position) {
  auto* bytes = static_cast<std::uint8_t*>(buffer);
  while (length > 0) {
    const std::int64_t count = readAt(descriptor, bytes, length, static_cast<std::int64_t>(position));
    if (count < 0) return peerErrnoStatus();
    if (count == 0) return kSecErrnoBase + EIO;
    bytes += count;
    position += static_cast<std::uint64_t>(count);
    length -= static_cast<std::size_t>(count);
  }
  return kSecSuccess;
}

// The content as OpenSSL reads it: in one pass, in large pieces, cancellable.
class ContentReader {
 public:
  ContentReader(int descriptor, std::uint64_t length, const std::atomic<bool>& cancelled)
      : descriptor_(descriptor), remaining_(length), cancelled_(cancelled), buffer_(kReadSize) {}

  // Null when there is no memory. Must not outlive the reader.
  openssl::BioPtr makeBio() {
    BIO* bio = BIO_new(method());
    if (bio != nullptr) {
      BIO_set_data(bio, this);
      BIO_set_init(bio, 1);
    }
    return openssl::BioPtr(bio);
  }

  // Why the content could not be read to its end; kSecSuccess otherwise.
  OSStatus failure() const { return failure_; }

 private:
  static const BIO_METHOD* method() {
    static const BIO_METHOD* const method = [] {
      BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "program content");
      BIO_meth_set_read(made, [](BIO* bio, char* target, int length) {
        return static_cast<ContentReader*>(BIO_get_data(bio))->read(target, length);
      });
      BIO_meth_set_ctrl(made, [](BIO* bio, int command, long, void*) -> long {
        if (command == BIO_CTRL_EOF) return static_cast<ContentReader*>(BIO_get_data(bio))->isAtEnd() ? 1 : 0;
        return command == BIO_CTRL_FLUSH ? 1 : 0;
      });
      return made;
    }();
    return method;
  }

  bool isAtEnd() const { return remaining_ == 0 && used_ == filled_; }

  // As many bytes as there are, 0 at the end, -1 on failure.
  int read(char* target, int length) {
    if (length <= 0) return 0;
    if (used_ == filled_ && !fill()) return failure_ == kSecSuccess ? 0 : -1;
    const std::size_t count = std::min(static_cast<std::size_t>(length), filled_ - used_);
    std::memcpy(target, buffer_.data() + used_, count);
    used_ += count;
    return static_cast<int>(count);
  }

  bool fill() {
    used_ = filled_ = 0;
    if (remaining_ == 0 || failure_ != kSecSuccess) return false;
    if (cancelled_.load(std::memory_order_relaxed)) {
      failure_ = kSecErrnoBase + ETIMEDOUT;
      return false;
    }
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(remaining_, buffer_.size()));
    failure_ = readExactly(descriptor_, buffer_.data(), wanted, position_);
    if (failure_ != kSecSuccess) return false;
    filled_ = wanted;
    position_ += wanted;
    remaining_ -= wanted;
    return true;
  }

  int descriptor_;
  std::uint64_t position_ = 0;
  std::uint64_t remaining_;
  const std::atomic<bool>& cancelled_;
  std::vector<char> buffer_;
  std::size_t used_ = 0;
  std::size_t filled_ = 0;
  OSStatus failure_ = kSecSuccess;
};

// Null unless the bytes are one detached SignedData over plain data and nothing behind it.
openssl::CmsPtr parseSignature(const std::vector<std::uint8_t>& bytes) {
  const unsigned char* position = bytes.data();
  openssl::CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(bytes.size())));
  if (cms == nullptr || position != bytes.data() + bytes.size()) return nullptr;
  if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) return nullptr;
  const ASN1_OBJECT* contentType = CMS_get0_eContentType(cms.get());
  if (contentType == nullptr || OBJ_obj2nid(contentType) != NID_pkcs7_data) return nullptr;
  return CMS_is_detached(cms.get()) == 1 ? std::move(cms) : nullptr;
}

// The certificate of the one signer; null when it is not inside or the signature is of another kind. It
// belongs to the signature.
X509* signerCertificate(CMS_ContentInfo* cms, OSStatus& status) {
  status = kSecCSSignatureUnsupported;
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) != static_cast<int>(kMaximumSigners))
    return nullptr;
  CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
  X509_ALGOR* digest = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
  // Without signed attributes the content itself would be under the signature, and could pass for such
  // attributes.
  if (digest == nullptr || OBJ_obj2nid(digest->algorithm) != NID_sha256 ||
      CMS_signed_get_attr_count(signer) <= 0)
    return nullptr;
  status = kSecCSSignatureInvalid;
  if (CMS_set1_signers_certs(cms, nullptr, 0) != 1) return nullptr;
  X509* certificate = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
  if (certificate != nullptr) status = kSecSuccess;
  return certificate;
}

const char* subjectPartName(int nid) {
  switch (nid) {
    case NID_commonName:
      return "CN";
    case NID_countryName:
      return "C";
    case NID_description:
      return "D";
    case NID_localityName:
      return "L";
    case NID_organizationName:
      return "O";
    case NID_organizationalUnitName:
      return "OU";
    case NID_stateOrProvinceName:
      return "ST";
    case NID_streetAddress:
      return "STREET";
    case NID_userId:
      return "UID";
    default:
      return nullptr;
  }
}

std::optional<std::string> utf8(const ASN1_STRING* string) {
  unsigned char* bytes = nullptr;
  const int length = ASN1_STRING_to_UTF8(&bytes, string);
  if (length < 0) return std::nullopt;
  const auto* text = reinterpret_cast<const char*>(bytes);
  std::string result(text, static_cast<std::size_t>(length));
  OPENSSL_free(bytes);
  return result;
}

CertificateFacts factsOf(const X509* certificate) {
  CertificateFacts facts;
  const X509_NAME* subject = X509_get_subject_name(certificate);
  for (int i = 0; i < X509_NAME_entry_count(subject); ++i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(subject, i);
    const char* part = subjectPartName(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)));
    if (part == nullptr) continue;
    if (std::optional<std::string> text = utf8(X509_NAME_ENTRY_get_data(entry)))
      facts.subject[part].push_back(std::move(*text));
  }
  static_assert(SHA_DIGEST_LENGTH == std::tuple_size_v<CertificateHash>);
  X509_digest(certificate, EVP_sha1(), facts.hash.data(), nullptr);
  return facts;
}

// The chain from the leaf to an anchor.
OSStatus buildChain(X509* leaf, STACK_OF(X509) * others, const std::string& anchorsFolder, CodeFacts& code) {
  const openssl::StorePtr store(X509_STORE_new());
  const openssl::StoreContextPtr context(X509_STORE_CTX_new());
  if (store == nullptr || context == nullptr) return kSecErrnoBase + ENOMEM;
  if (const OSStatus failure = loadAnchors(anchorsFolder, store.get()); failure != kSecSuccess)
    return failure;
  if (X509_STORE_CTX_init(context.get(), store.get(), leaf, others) != 1) return kSecCSInternalError;
  X509_VERIFY_PARAM* rules = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_NO_CHECK_TIME);
  X509_VERIFY_PARAM_set_purpose(rules, X509_PURPOSE_ANY);
  X509_VERIFY_PARAM_set_depth(rules, kMaximumIntermediates);
  X509_VERIFY_PARAM_set_auth_level(rules, kMinimumSecurityLevel);
  if (X509_verify_cert(context.get()) != 1) return kSecCSSignatureUntrusted;
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
  for (int i = 0; i < sk_X509_num(chain); ++i) code.chain.push_back(factsOf(sk_X509_value(chain, i)));
  code.anchored = true;
  return kSecSuccess;
}

// Signature and content belong together. The certificates were looked at before.
OSStatus verifyContent(CMS_ContentInfo* cms, int descriptor, std::uint64_t length,
                       const std::atomic<bool>& cancelled) {
  ContentReader reader(descriptor, length, cancelled);
  const openssl::BioPtr content = reader.makeBio();
  if (content == nullptr) return kSecErrnoBase + ENOMEM;
  const int verified = CMS_verify(cms, nullptr, nullptr, content.get(), nullptr,
                                  CMS_BINARY | CMS_DETACHED | CMS_NO_SIGNER_CERT_VERIFY);
  if (reader.failure() != kSecSuccess) return reader.failure();
  return verified == 1 ? kSecSuccess : kSecCSSignatureFailed;
}

OSStatus readInfo(int descriptor, Dictionary& info) {
  const std::optional<Data> section = readElfSection(descriptor, kInfoPlistSection, kMaximumInfoPlistSize);
  if (!section) return kSecSuccess;
  std::optional<Value> list = parsePropertyList(section->bytes(), section->length());
  Dictionary* dictionary = list ? list->as<Dictionary>() : nullptr;
  if (dictionary == nullptr) return kSecCSInfoPlistFailed;
  info = std::move(*dictionary);
  return kSecSuccess;
}

}  // namespace

OSStatus peerErrnoStatus() {
  return kSecErrnoBase + (errno == EMFILE ? EIO : errno);
}

OSStatus readAppendedSignature(int descriptor, AppendedSignature& signature) {
  FileStatus status;
  if (!statDescriptor(descriptor, status)) return peerErrnoStatus();
  const std::uint64_t size = status.size < 0 ? 0 : static_cast<std::uint64_t>(status.size);
  if (!status.isRegularFile || size < kSignatureTrailerSize) return kSecCSUnsigned;
  std::array<std::uint8_t, kSignatureTrailerSize> trailer{};
  const std::uint64_t trailerStart = size - kSignatureTrailerSize;
  if (const OSStatus failure = readExactly(descriptor, trailer.data(), trailer.size(), trailerStart);
      failure != kSecSuccess)
    return failure;
  if (std::memcmp(trailer.data() + 8, kSignatureMagic.data(), kSignatureMagic.size()) != 0)
    return kSecCSUnsigned;
  std::uint64_t length = 0;
  for (std::size_t i = 0; i < 8; ++i) length = length << 8 | trailer[i];
  if (length == 0 || length > kMaximumSignatureSize || length > trailerStart) return kSecCSSignatureInvalid;
  signature.contentLength = trailerStart - length;
  signature.cms.resize(static_cast<std::size_t>(length));
  return readExactly(descriptor, signature.cms.data(), signature.cms.size(), signature.contentLength);
}

std::vector<std::uint8_t> appendedBytes(const std::vector<std::uint8_t>& cms) {
  std::vector<std::uint8_t> bytes = cms;
  const auto length = static_cast<std::uint64_t>(cms.size());
  for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(length >> shift));
  bytes.insert(bytes.end(), kSignatureMagic.begin(), kSignatureMagic.end());
  return bytes;
}

OSStatus verifyAppendedSignature(int descriptor, const std::string& anchorsFolder,
                                 const std::atomic<bool>& cancelled, CodeFacts& code) {
  const ErrorQueueScope errors;
  AppendedSignature signature;
  if (const OSStatus failure = readAppendedSignature(descriptor, signature); failure != kSecSuccess)
    return failure;
  if (signature.contentLength > kMaximumProgramSize) return kSecErrnoBase + EFBIG;
  const openssl::CmsPtr cms = parseSignature(signature.cms);
  if (cms == nullptr) return kSecCSSignatureInvalid;
  OSStatus status = kSecSuccess;
  X509* leaf = signerCertificate(cms.get(), status);
  if (leaf == nullptr) return status;
  // The chain first: a stranger's program is not worth hashing.
  const openssl::CertificateStackPtr others(CMS_get1_certs(cms.get()));
  if (status = buildChain(leaf, others.get(), anchorsFolder, code); status != kSecSuccess) return status;
  if (status = verifyContent(cms.get(), descriptor, signature.contentLength, cancelled);
      status != kSecSuccess)
    return status;
  return readInfo(descriptor, code.info);
}

}  // namespace qm
