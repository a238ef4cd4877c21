#include "tools/qmverdicts/debian_import.hpp"

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/digest.hpp"
#include "platform/file_io.hpp"
#include "platform/regular_file.hpp"
#include "tools/qmverdicts/debian_packages.hpp"

namespace qm::qmverdicts {

namespace {

constexpr std::string_view kMissing = "not there";
constexpr std::string_view kNotRegular = "not a regular file";
constexpr std::string_view kUnreadable = "cannot be read";
constexpr std::string_view kChanged = "not as it was installed";
// Of whole packages, and of lines.
constexpr std::string_view kUnfinished = "not wholly installed";
constexpr std::string_view kWithoutSums = "without recorded sums";
constexpr std::string_view kUnreadableSums = "with recorded sums that cannot be read";
constexpr std::string_view kBadLine = "no sum and path";

// The digest that dpkg records; nothing but a comparison with it rests on it.
class MD5 {
 public:
  // False when libcrypto does not offer it.
  bool start() { return EVP_DigestInit_ex2(context_.get(), EVP_md5(), nullptr) == 1; }
  void update(const void* bytes, std::size_t length) { EVP_DigestUpdate(context_.get(), bytes, length); }
  MD5Value finish() {
    MD5Value value{};
    EVP_DigestFinal_ex(context_.get(), value.data(), nullptr);
    return value;
  }

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  const std::unique_ptr<EVP_MD_CTX, Free> context_{EVP_MD_CTX_new()};
};

struct Hashes {
  SHA1Value sha1{};
  SHA256Value sha256{};
};

class PackageFiles {
 public:
  bool start() { return md5_.start(); }
  // The reason when the file is not as it was recorded; empty when the hashes were set.
  std::string_view check(const RecordedFile& file, Hashes& hashes);

 private:
  MD5 md5_;
  std::vector<char> buffer_ = std::vector<char>(256 << 10);
};

std::string_view PackageFiles::check(const RecordedFile& file, Hashes& hashes) {
  const OpenedFile opened = openRegularFile(file.path, SymbolicLinks::refuse);
  if (!opened.descriptor && (opened.errorNumber == ENOENT || opened.errorNumber == ENOTDIR)) return kMissing;
  if (!opened.descriptor) return opened.errorNumber == 0 ? kNotRegular : kUnreadable;
  FileDigests digests;
  md5_.start();
  for (std::int64_t position = 0;;) {
    const std::int64_t count = readAt(opened.descriptor.get(), buffer_.data(), buffer_.size(), position);
    if (count < 0) return kUnreadable;
    if (count == 0) break;
    md5_.update(buffer_.data(), static_cast<std::size_t>(count));
    digests.update(buffer_.data(), static_cast<std::size_t>(count));
    position += count;
  }
  digests.finish(hashes.sha1, hashes.sha256);
  return md5_.finish() == file.md5 ? std::string_view() : kChanged;
}

void skipPackages(const DebianPackages& packages, ImportLedger& ledger) {
  for (const std::string& package : packages.unfinishedPackages) ledger.skip(kUnfinished, package, "package");
  for (const std::string& package : packages.packagesWithoutSums)
    ledger.skip(kWithoutSums, package, "package");
  for (const std::string& sums : packages.unreadableSums) ledger.skip(kUnreadableSums, sums, "package");
  for (const std::string& line : packages.badLines) ledger.skip(kBadLine, line, "line");
}

}  // namespace

tools::Failure importDebianFiles(const DebianPackages& packages, const StoredURLVerdict& record,
                                 ImportLedger& ledger) {
  skipPackages(packages, ledger);
  PackageFiles files;
  if (!files.start()) return "this machine's libcrypto offers no MD5, which dpkg's sums are";
  std::uint64_t done = 0;
  for (const RecordedFile& file : packages.files) {
    Hashes hashes;
    if (const std::string_view reason = files.check(file, hashes); reason.empty()) {
      ledger.add({hashes.sha256, record});
      ledger.add({hashes.sha1, record});
    } else {
      ledger.skip(reason, file.path);
    }
    ++done;
    if (auto failure =
            ledger.advance(done, static_cast<double>(done) / static_cast<double>(packages.files.size())))
      return failure;
  }
  return ledger.commit();
}

}  // namespace qm::qmverdicts
