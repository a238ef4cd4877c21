#include "platform/digest.hpp"

#include <CommonCrypto/CommonDigest.h>

#include <algorithm>
#include <limits>

namespace qm {
namespace {

// Calls with portions that the library's 32-bit lengths can say.
template <class Work>
void inPortions(const void* bytes, std::size_t length, std::size_t portion, const Work& work) {
  const auto* position = static_cast<const std::uint8_t*>(bytes);
  while (length > 0) {
    const std::size_t count = std::min(length, portion);
    work(position, static_cast<CC_LONG>(count));
    position += count;
    length -= count;
  }
}

constexpr std::size_t kLongest = std::numeric_limits<CC_LONG>::max();
// Small enough that the second digest finds the bytes still in the processor's cache.
constexpr std::size_t kPortion = 16 * 1024;

}  // namespace

struct FileDigests::Contexts {
  CC_SHA1_CTX sha1{};
  CC_SHA256_CTX sha256{};
};

FileDigests::FileDigests() : contexts_(std::make_unique<Contexts>()) {
  CC_SHA1_Init(&contexts_->sha1);
  CC_SHA256_Init(&contexts_->sha256);
}

FileDigests::~FileDigests() = default;

void FileDigests::update(const void* bytes, std::size_t length) {
  inPortions(bytes, length, kPortion, [this](const std::uint8_t* portion, CC_LONG count) {
    CC_SHA1_Update(&contexts_->sha1, portion, count);
    CC_SHA256_Update(&contexts_->sha256, portion, count);
  });
}

void FileDigests::updateSHA1(const void* bytes, std::size_t length) {
  inPortions(bytes, length, kLongest, [this](const std::uint8_t* portion, CC_LONG count) {
    CC_SHA1_Update(&contexts_->sha1, portion, count);
  });
}

void FileDigests::updateSHA256(const void* bytes, std::size_t length) {
  inPortions(bytes, length, kLongest, [this](const std::uint8_t* portion, CC_LONG count) {
    CC_SHA256_Update(&contexts_->sha256, portion, count);
  });
}

void FileDigests::finish(SHA1Value& sha1, SHA256Value& sha256) {
  CC_SHA1_Final(sha1.data(), &contexts_->sha1);
  CC_SHA256_Final(sha256.data(), &contexts_->sha256);
}

SHA1Value sha1(const void* bytes, std::size_t length) {
  CC_SHA1_CTX context{};
  CC_SHA1_Init(&context);
  inPortions(bytes, length, kLongest, [&context](const std::uint8_t* portion, CC_LONG count) {
    CC_SHA1_Update(&context, portion, count);
  });
  SHA1Value digest{};
  CC_SHA1_Final(digest.data(), &context);
  return digest;
}

SHA256Value sha256(const void* bytes, std::size_t length) {
  CC_SHA256_CTX context{};
  CC_SHA256_Init(&context);
  inPortions(bytes, length, kLongest, [&context](const std::uint8_t* portion, CC_LONG count) {
    CC_SHA256_Update(&context, portion, count);
  });
  SHA256Value digest{};
  CC_SHA256_Final(digest.data(), &context);
  return digest;
}

}  // namespace qm
