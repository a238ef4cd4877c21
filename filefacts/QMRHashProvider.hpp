// Computes SHA-1 and SHA-256 of a file in one pass and keeps its first bytes on the way. The request handler
// uses the static functions on the descriptor it received; the reputation lookup holds an instance, which
// remembers by path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "filefacts/QMRHashCacheEntry.hpp"
#include "filefacts/QMRHashProviderProtocol.hpp"
#include "foundation/error.hpp"

// The largest file that is hashed, in bytes.
inline constexpr std::uint64_t kMaxFileSizeForHashing = 536'870'912;
// The largest read, in bytes. It needs less memory than that: it comes in portions.
inline constexpr std::uint64_t kHashBufferMaxSize = 16'777'216;
// How many leading bytes are kept.
inline constexpr std::uint64_t kMagicBytesLength = 16;
// A file of more bytes waits for a processor before it is read, so that small ones need not wait for it.
inline constexpr std::uint64_t kLargestShortFile = 1'048'576;

// Domain of the provider's errors. Codes: 100 reading failed, 101 the file is shorter or longer than
// announced, 102 the file cannot be opened, 103 its size cannot be read, 104 it is too large. 100, 102 and
// 103 carry "errno".
inline constexpr const char* QMRHashProviderErrorDomain = "com.quillmarsh.qmrhashprovider";

namespace qm {
class HashCache;
}

class QMRHashProvider : public QMRHashProviderProtocol {
 public:
  QMRHashProvider();
  ~QMRHashProvider() override;
  QMRHashProvider(const QMRHashProvider&) = delete;
  QMRHashProvider& operator=(const QMRHashProvider&) = delete;

  // Reads the file from its beginning to its actual end, but not on past kMaxFileSizeForHashing bytes, by
  // position: the descriptor stays open and its offset where it is. `fileSize` is the size in bytes the
  // caller knows of; it bounds each read, so that a small one means many small reads, and with 0 nothing is
  // read of any file. Another size read is error 101, a `fileSize` above kMaxFileSizeForHashing error 104.
  // Null on failure; when there is no memory for the buffer `error` stays as it is. Any thread.
  static std::shared_ptr<QMRHashCacheEntry> generateHashesForFiledescriptor(int descriptor,
                                                                            std::uint64_t fileSize,
                                                                            qm::ErrorPtr* error = nullptr);
  // Opens the file and hashes it with the size it has then; beside those above errors 102 and 103.
  static std::shared_ptr<QMRHashCacheEntry> generateHashesForPath(const std::string& path,
                                                                  qm::ErrorPtr* error = nullptr);
  // Hashes of the bytes, without magic bytes.
  static std::shared_ptr<QMRHashCacheEntry> generateHashesForBuffer(const void* bytes, std::size_t length);

  // Lower-case hexadecimal text of a 20-byte and a 32-byte digest. A null pointer gives the empty text.
  static std::string sha1StringForBuffer(const std::uint8_t* digest);
  static std::string sha256StringForBuffer(const std::uint8_t* digest);
  static std::string hexStringForBytes(const std::uint8_t* bytes, std::size_t size);

  // From the cache, else generateHashesForPath; success is remembered under the path. Nobody looks whether
  // the file has changed since: who knows that it has calls invalidateHashesForPath. Two callers that miss
  // one path at once both hash the file, and the later result stays.
  std::shared_ptr<QMRHashCacheEntry> hashesForPath(const std::string& path,
                                                   qm::ErrorPtr* error = nullptr) override;
  void invalidateHashesForPath(const std::string& path) override;

  // <QMRHashProvider: ADDRESS>
  std::string description() const override;

 private:
  const std::unique_ptr<qm::HashCache> hashCache_;
};
