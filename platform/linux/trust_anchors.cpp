#include "platform/linux/trust_anchors.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/file_descriptor.hpp"
#include "platform/file_io.hpp"
#include "platform/linux/code_signature.hpp"
#include "platform/linux/system_root.hpp"

namespace qm {
namespace {

constexpr std::size_t kMaximumAnchorFiles = 256;
constexpr std::int64_t kMaximumAnchorFileSize = 1024 * 1024;  // bytes

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// What means that nothing can be said, and not that there is no anchor.
bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

bool isWritableByAll(const struct stat& status) {
  return (status.st_mode & S_IWOTH) != 0;
}

// Sorted, so that what is over the limit does not depend on the file system.
OSStatus anchorNames(DIR* folder, std::vector<std::string>& names) {
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(folder);
    if (entry == nullptr) break;
    if (std::string_view(entry->d_name).ends_with(".pem")) names.emplace_back(entry->d_name);
  }
  if (errno != 0) return kSecErrnoBase + errno;
  std::sort(names.begin(), names.end());
  if (names.size() > kMaximumAnchorFiles) names.resize(kMaximumAnchorFiles);
  return kSecSuccess;
}

OSStatus readAnchorFile(int folder, const std::string& name, std::vector<char>& content) {
  const FileDescriptor file(::openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return isShortage(errno) ? kSecErrnoBase + errno : kSecSuccess;
  struct stat status {};
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || isWritableByAll(status) ||
      status.st_size > kMaximumAnchorFileSize)
    return kSecSuccess;
  content.resize(static_cast<std::size_t>(status.st_size));
  std::size_t length = 0;
  while (length < content.size()) {
    const std::int64_t count = readAt(file.get(), content.data() + length, content.size() - length,
                                      static_cast<std::int64_t>(length));
    if (count < 0) return kSecErrnoBase + errno;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  content.resize(length);
  return kSecSuccess;
}

void addCertificates(const std::vector<char>& pem, X509_STORE* store) {
  const openssl::BioPtr source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (source == nullptr) return;
  while (
      const openssl::CertificatePtr certificate{PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr)})
    X509_STORE_add_cert(store, certificate.get());
  ERR_clear_error();
}

}  // namespace

OSStatus loadAnchors(const std::string& folder, X509_STORE* store) {
  const std::unique_ptr<DIR, CloseFolder> entries(::opendir(folder.c_str()));
  if (entries == nullptr) return isShortage(errno) ? kSecErrnoBase + errno : kSecSuccess;
  const int descriptor = ::dirfd(entries.get());
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return kSecErrnoBase + errno;
  if (isWritableByAll(status)) return kSecSuccess;
  std::vector<std::string> names;
  if (const OSStatus failure = anchorNames(entries.get(), names); failure != kSecSuccess) return failure;
  for (const std::string& name : names) {
    std::vector<char> pem;
    if (const OSStatus failure = readAnchorFile(descriptor, name, pem); failure != kSecSuccess)
      return failure;
    addCertificates(pem, store);
  }
  return kSecSuccess;
}

std::string installedAnchorsFolder() {
  const std::string& program = ownProgramPath();
  // The folder in front makes the regular installation's answer differ from that for a program that lies
  // elsewhere.
  const bool isInstalled = programRoot("/root" + program) != "/";
  if (!isInstalled) return "/Library/Quillmarsh/qxmac/trust";
  const std::size_t bin = program.rfind('/', program.rfind('/') - 1);
  return program.substr(0, bin) + "/trust";
}

}  // namespace qm
