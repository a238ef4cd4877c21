// What the Wisp core daemon answers: looks hashes and URLs up in the verdict store, and scans files, with the
// store first and then with the sample rules. Knows nothing of messages; the service around it does.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "companions/live_verdict_store.hpp"
#include "companions/recent_map.hpp"
#include "companions/sample_analysis.hpp"
#include "companions/scan_cache.hpp"
#include "companions/wisp_address.hpp"
#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "platform/regular_file.hpp"
#include "reputation/backends/QMRWispCloudScanResponseObjC.hpp"
#include "reputation/backends/QMRWispQvsResponseObjC.hpp"

namespace qm {

// A file that the rules cannot be applied to, for its size or because there are none, is only looked up.
struct WispAnswersOptions : SampleAnalysisOptions {
  std::uint64_t maximumFileSize = 512 << 20;  // bytes; larger ones are not read at all
  std::uint32_t unknownTTL = 600;             // how long an asker may keep "unknown": seconds
  std::size_t rememberedFiles = 4096;
  std::size_t rememberedHashes = 16384;  // pairs of them
};

// Any thread.
class WispAnswers {
 public:
  using QvsResponse = std::shared_ptr<const QMRWispQvsResponseObjC>;
  using CloudScanResponse = std::shared_ptr<const QMRWispCloudScanResponseObjC>;

  WispAnswers(std::string storePath, WispAnswersOptions options);

  // Opens the store; false, and a line in the log, when it cannot be used. Answers are given all the same,
  // from the rules alone, and nobody may keep them: their time to live is 0.
  bool prepare() { return store_.open(); }

  // From now on files are examined with these. What analyses found before the rules were changed (seconds
  // since 1970) is found out anew.
  void setRules(std::shared_ptr<const SampleRules> rules, std::int64_t changed);

  // Of a content that was scanned here also by its SHA-256.
  QvsResponse lookUp(const SHA1Value& sha1);
  // The record of the URL itself, else that of its host, else that of the closest domain above it.
  QvsResponse lookUp(const WebURL& url);
  CloudScanResponse scan(const WebURL& url);

  // What a scan of a file asks those it is for, on its own thread.
  struct Scan {
    Block<bool()> isWanted;  // again and again; the scan is given up when it says no
    // When the rules begin, which nothing but their own time limit ends.
    Block<std::chrono::steady_clock::time_point()> deadline;
  };
  // Null with an error of kWispErrorDomain. What the rules found is kept by remember(), which may wait for
  // other programs that use the store.
  CloudScanResponse scan(const FilePath& file, const Scan& scan, std::optional<ScannedFile>& analyzed,
                         ErrorPtr* error);
  void remember(const ScannedFile& analyzed);

  // The next scan reads its file again, and the next question opens the store again.
  void clearCache();

 private:
  template <class Response>
  std::shared_ptr<Response> answerAbout(const WebURL& url,
                                        std::shared_ptr<Response> (*responseFor)(const StoredVerdict& known));
  // Without a store that can be used nobody may keep it.
  StoredVerdict unknown(bool isStoreUsable) const;
  CloudScanResponse scan(const OpenedFile& file, const Scan& scan, std::optional<ScannedFile>& analyzed,
                         ErrorPtr* error);
  // Sets what the store or else the rules say about the content; without its bytes it is not examined. False
  // with an error.
  bool judge(ScannedFile& scanned, const void* bytes, std::size_t length, const Scan& scan,
             std::optional<ScannedFile>& analyzed, ErrorPtr* error);
  void noteHashes(const ScannedFile& scanned);
  std::optional<SHA256Value> notedSHA256(const SHA1Value& sha1);
  std::optional<StoredVerdict> rememberedVerdict(const FileStatus& status);

  const WispAnswersOptions options_;
  SampleAnalysis analysis_;
  LiveVerdictStore store_;
  ScanCache cache_;
  std::mutex hashesMutex_;
  RecentMap<SHA1Value, SHA256Value> hashes_;  // of what was scanned
};

}  // namespace qm
