#include "platform/digest.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace qm {
namespace {

// Fetching a method walks the library's providers: once for the process, not once a digest.
EVP_MD* fetch(const char* name) {
  EVP_MD* const method = EVP_MD_fetch(nullptr, name, nullptr);
  // Without its digests libcrypto is broken, and no answer of this process could be trusted.
  if (method == nullptr) std::abort();
  return method;
}

const EVP_MD* sha1Method() {
  static const EVP_MD* const method = fetch("SHA1");
  return method;
}

const EVP_MD* sha256Method() {
  static const EVP_MD* const method = fetch("SHA256");
  return method;
}

class Context {
 public:
  Context() : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr) std::abort();
  }
  ~Context() { EVP_MD_CTX_free(context_); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  void start(const EVP_MD* method) {
    if (EVP_DigestInit_ex2(context_, method, nullptr) != 1) std::abort();
  }
  void update(const void* bytes, std::size_t length) {
    if (EVP_DigestUpdate(context_, bytes, length) != 1) std::abort();
  }
  void finish(std::uint8_t* digest) {
    if (EVP_DigestFinal_ex(context_, digest, nullptr) != 1) std::abort();
  }

 private:
  EVP_MD_CTX* context_;
};

}  // namespace

struct FileDigests::Contexts {
  // The pair that the thread used last: making a new one is felt with small files.
  static std::unique_ptr<Contexts>& spare() {
    static thread_local std::unique_ptr<Contexts> contexts;
    return contexts;
  }

  Context sha1;
  Context sha256;
};

FileDigests::FileDigests() : contexts_(std::move(Contexts::spare())) {
  if (contexts_ == nullptr) contexts_ = std::make_unique<Contexts>();
  contexts_->sha1.start(sha1Method());
  contexts_->sha256.start(sha256Method());
}

FileDigests::~FileDigests() {
  Contexts::spare() = std::move(contexts_);
}

void FileDigests::update(const void* bytes, std::size_t length) {
  // Small enough that the second digest finds the bytes still in the processor's cache.
  constexpr std::size_t kPortion = 16 * 1024;
  const auto* position = static_cast<const std::uint8_t*>(bytes);
  while (length > 0) {
    const std::size_t count = std::min(length, kPortion);
    contexts_->sha1.update(position, count);
    contexts_->sha256.update(position, count);
    position += count;
    length -= count;
  }
}

void FileDigests::updateSHA1(const void* bytes, std::size_t length) {
  contexts_->sha1.update(bytes, length);
}

void FileDigests::updateSHA256(const void* bytes, std::size_t length) {
  contexts_->sha256.update(bytes, length);
}

void FileDigests::finish(SHA1Value& sha1, SHA256Value& sha256) {
  contexts_->sha1.finish(sha1.data());
  contexts_->sha256.finish(sha256.data());
}

SHA1Value sha1(const void* bytes, std::size_t length) {
  SHA1Value digest{};
  Context context;
  context.start(sha1Method());
  context.update(bytes, length);
  context.finish(digest.data());
  return digest;
}

SHA256Value sha256(const void* bytes, std::size_t length) {
  SHA256Value digest{};
  Context context;
  context.start(sha256Method());
  context.update(bytes, length);
  context.finish(digest.data());
  return digest;
}

}  // namespace qm
