#include "tools/program_signer.hpp"

#include <elf.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/file_io.hpp"
#include "platform/linux/code_signature.hpp"

namespace qm::tools {
namespace {

std::string systemReason() {
  return std::strerror(errno);
}

openssl::BioPtr openPEM(const std::string& path) {
  return openssl::BioPtr(BIO_new_file(path.c_str(), "r"));
}

// Every certificate of the file is added to the stack. False when there is none.
bool readCertificates(BIO* source, STACK_OF(X509) * certificates) {
  bool any = false;
  while (X509* certificate = PEM_read_bio_X509(source, nullptr, nullptr, nullptr)) {
    sk_X509_push(certificates, certificate);
    any = true;
  }
  ERR_clear_error();  // "no start line" is how a PEM file ends
  return any;
}

// A file that is removed unless it was put in its place.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& besides) : path_(besides + ".signing-XXXXXX") {
    file_.reset(::mkostemp(path_.data(), O_CLOEXEC));
  }
  ~TemporaryFile() {
    if (file_ && !isMoved_) ::unlink(path_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  explicit operator bool() const { return static_cast<bool>(file_); }
  int get() const { return file_.get(); }
  bool moveTo(const std::string& path) {
    isMoved_ = ::fsync(file_.get()) == 0 && ::rename(path_.c_str(), path.c_str()) == 0;
    return isMoved_;
  }

 private:
  std::string path_;
  FileDescriptor file_;
  bool isMoved_ = false;
};

bool writeAll(int descriptor, const void* bytes, std::size_t length) {
  const auto* position = static_cast<const std::uint8_t*>(bytes);
  while (length > 0) {
    const ssize_t count = ::write(descriptor, position, length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    position += count;
    length -= static_cast<std::size_t>(count);
  }
  return true;
}

bool copyContent(int source, int target, std::uint64_t length) {
  std::vector<char> buffer(256 * 1024);
  for (std::uint64_t position = 0; position < length;) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), length - position));
    const std::int64_t count = readAt(source, buffer.data(), wanted, static_cast<std::int64_t>(position));
    if (count == 0) errno = EIO;
    if (count <= 0 || !writeAll(target, buffer.data(), static_cast<std::size_t>(count))) return false;
    position += static_cast<std::uint64_t>(count);
  }
  return true;
}

// How much of the program is to be signed: all of it, or all in front of its signature.
Failure readContentLength(int program, std::uint64_t& length) {
  FileStatus status;
  if (!statDescriptor(program, status)) return systemReason();
  if (!status.isRegularFile) return "is no regular file";
  char magic[SELFMAG] = {};
  if (readAt(program, magic, sizeof magic, 0) != SELFMAG || std::memcmp(magic, ELFMAG, SELFMAG) != 0)
    return "is no ELF program";
  AppendedSignature signature;
  const OSStatus read = readAppendedSignature(program, signature);
  if (read == kSecCSSignatureInvalid) return "ends in a damaged signature";
  if (read != kSecSuccess && read != kSecCSUnsigned) return "cannot be read";
  length = read == kSecSuccess ? signature.contentLength : static_cast<std::uint64_t>(status.size);
  if (length > kMaximumProgramSize) return "is too large to be verified later";
  return std::nullopt;
}

// The signature over everything in the file.
Failure makeSignature(int content, const SigningIdentity& identity, std::vector<std::uint8_t>& signature) {
  constexpr unsigned kFlags = CMS_BINARY | CMS_DETACHED | CMS_NOSMIMECAP;
  if (::lseek(content, 0, SEEK_SET) != 0) return systemReason();
  const openssl::BioPtr source(BIO_new_fd(content, BIO_NOCLOSE));
  const openssl::CmsPtr cms(
      CMS_sign(nullptr, nullptr, identity.chain.get(), nullptr, kFlags | CMS_PARTIAL | CMS_STREAM));
  if (source == nullptr || cms == nullptr ||
      CMS_add1_signer(cms.get(), identity.certificate.get(), identity.key.get(), EVP_sha256(), kFlags) ==
          nullptr ||
      CMS_final(cms.get(), source.get(), nullptr, kFlags) != 1)
    return "cannot be signed: " + openSSLReason();
  unsigned char* bytes = nullptr;
  const int length = i2d_CMS_ContentInfo(cms.get(), &bytes);
  if (length <= 0) return "cannot be signed: " + openSSLReason();
  signature.assign(bytes, bytes + length);
  OPENSSL_free(bytes);
  if (signature.size() > kMaximumSignatureSize)
    return "gets too large a signature: fewer certificates are needed";
  return std::nullopt;
}

Failure keepAttributes(int program, int replacement) {
  struct stat status {};
  if (::fstat(program, &status) != 0) return systemReason();
  // Only the superuser may give files away; somebody else's signed program is then the signer's.
  const bool isOwnerKept = ::fchown(replacement, status.st_uid, status.st_gid) == 0;
  const mode_t mode = status.st_mode & (isOwnerKept ? 07777U : 0777U);
  if (::fchmod(replacement, mode) != 0) return systemReason();
  return std::nullopt;
}

Failure replaceSigned(const std::string& path, const SigningIdentity& identity) {
  const FileDescriptor program = openForReading(path.c_str());
  if (!program) return "cannot be opened: " + systemReason();
  std::uint64_t length = 0;
  if (const Failure failure = readContentLength(program.get(), length)) return failure;
  TemporaryFile replacement(path);
  if (!replacement) return "cannot be replaced: " + systemReason();
  if (!copyContent(program.get(), replacement.get(), length)) return "cannot be copied: " + systemReason();
  std::vector<std::uint8_t> signature;
  if (const Failure failure = makeSignature(replacement.get(), identity, signature)) return failure;
  const std::vector<std::uint8_t> appended = appendedBytes(signature);
  if (::lseek(replacement.get(), 0, SEEK_END) < 0 ||
      !writeAll(replacement.get(), appended.data(), appended.size()))
    return "cannot be written: " + systemReason();
  if (const Failure failure = keepAttributes(program.get(), replacement.get())) return failure;
  if (!replacement.moveTo(path)) return "cannot be replaced: " + systemReason();
  return std::nullopt;
}

}  // namespace

std::string openSSLReason() {
  const unsigned long code = ERR_get_error();
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  // A failed system call has no reason string of OpenSSL's.
  const std::string text = reason != nullptr        ? reason
                           : ERR_SYSTEM_ERROR(code) ? std::strerror(ERR_GET_REASON(code))
                                                    : "unknown reason";
  ERR_clear_error();
  return text;
}

Failure loadIdentity(const std::string& keyPath, const std::string& certificatePath,
                     const std::optional<std::string>& chainPath, SigningIdentity& identity) {
  const openssl::BioPtr keyFile = openPEM(keyPath);
  if (keyFile == nullptr) return keyPath + ": " + openSSLReason();
  identity.key.reset(PEM_read_bio_PrivateKey(keyFile.get(), nullptr, nullptr, nullptr));
  if (identity.key == nullptr) return keyPath + ": no private key in PEM form: " + openSSLReason();
  const openssl::BioPtr certificateFile = openPEM(certificatePath);
  if (certificateFile == nullptr) return certificatePath + ": " + openSSLReason();
  identity.certificate.reset(PEM_read_bio_X509(certificateFile.get(), nullptr, nullptr, nullptr));
  if (identity.certificate == nullptr)
    return certificatePath + ": no certificate in PEM form: " + openSSLReason();
  identity.chain.reset(sk_X509_new_null());
  readCertificates(certificateFile.get(), identity.chain.get());
  if (chainPath) {
    const openssl::BioPtr chainFile = openPEM(*chainPath);
    if (chainFile == nullptr) return *chainPath + ": " + openSSLReason();
    if (!readCertificates(chainFile.get(), identity.chain.get()))
      return *chainPath + ": no certificate in PEM form";
  }
  if (X509_check_private_key(identity.certificate.get(), identity.key.get()) == 1) return std::nullopt;
  ERR_clear_error();
  return keyPath + ": not the key of the certificate in " + certificatePath;
}

Failure signProgram(const std::string& path, const SigningIdentity& identity) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return path + ": " + systemReason();
  const std::string target = resolved;
  std::free(resolved);
  const Failure failure = replaceSigned(target, identity);
  return failure ? Failure(path + ": " + *failure) : std::nullopt;
}

}  // namespace qm::tools
