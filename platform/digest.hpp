// SHA-1 and SHA-256 (FIPS 180-4).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace qm {

using SHA1Value = std::array<std::uint8_t, 20>;
using SHA256Value = std::array<std::uint8_t, 32>;

// Both digests of one stream.
class FileDigests {
 public:
  FileDigests();
  ~FileDigests();
  FileDigests(const FileDigests&) = delete;
  FileDigests& operator=(const FileDigests&) = delete;

  void update(const void* bytes, std::size_t length);
  // Each alone; the two may be fed from different threads at once.
  void updateSHA1(const void* bytes, std::size_t length);
  void updateSHA256(const void* bytes, std::size_t length);
  // Once, after the last update.
  void finish(SHA1Value& sha1, SHA256Value& sha256);

 private:
  struct Contexts;
  std::unique_ptr<Contexts> contexts_;
};

SHA1Value sha1(const void* bytes, std::size_t length);
SHA256Value sha256(const void* bytes, std::size_t length);

}  // namespace qm
