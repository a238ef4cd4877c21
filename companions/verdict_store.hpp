// The local verdict store: what is known about files by the SHA-256 or the SHA-1 of their content, and about
// URLs by their keys. An SQLite file in write-ahead mode that several programs may use at once: the Skyvault
// agent answers from it, qmverdicts edits it.
//
// A store belongs to whoever opened it and may be used from any thread; lookups do not wait for changes.
// Every change is whole or not made, but where it says otherwise, and is on the disk when the call returns.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "foundation/error.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "platform/digest.hpp"

namespace qm {

inline constexpr const char* kVerdictStoreErrorDomain = "com.quillmarsh.VerdictStore";

enum class VerdictStoreError : std::int64_t {
  cannotOpen = 1,    // missing folder or file, no permission, not a regular file
  notAStore = 2,     // a file of another kind; left alone
  newerVersion = 3,  // written by a later version of the product; left alone
  damaged = 4,       // the file's content is not consistent
  diskFull = 5,
  busy = 6,       // another program kept it locked for longer than the time-out
  readOnly = 7,   // the file or its disk cannot be written
  failed = 8,     // anything else, the text says what
  badRecord = 9,  // a record that the store does not take
};

struct StoredVerdict {
  std::string verdict;                       // a safety verdict value
  std::optional<std::string> infectionName;  // at most 255 bytes of UTF-8 without control characters
  std::uint8_t prevalence = 0;
  std::uint32_t ttl = 0;   // seconds an asker may keep the answer
  std::string source;      // who says so: one of the below, or the name of an import; limits as above
  std::int64_t added = 0;  // seconds since 1970

  friend bool operator==(const StoredVerdict&, const StoredVerdict&) = default;
};

struct StoredURLVerdict : StoredVerdict {
  std::vector<SVKSkyvaultCategory> categories;

  friend bool operator==(const StoredURLVerdict&, const StoredURLVerdict&) = default;
};

enum class VerdictKind : std::uint8_t { sha256, sha1, url };

// What a verdict is about: a file by one of its hashes, or URLs by a key that companions/url_key.hpp makes.
// The alternatives stand in the order of the kinds.
using VerdictKey = std::variant<SHA256Value, SHA1Value, std::string>;
// A file's record has no categories.
using VerdictEntry = std::pair<VerdictKey, StoredURLVerdict>;

inline constexpr const char* kVerdictSourceManual = "manual";      // a person
inline constexpr const char* kVerdictSourceAnalysis = "analysis";  // of a sample
inline constexpr const char* kVerdictSourceImport = "import";      // an import without a name

// For verdicts that nobody gave another time.
inline constexpr std::uint32_t kDefaultVerdictTTL = 86400;

// The place of the installation's store, to be namespaced and opened below the system root.
inline constexpr std::string_view kVerdictStoreProductPath = "/Library/Quillmarsh/qxmac/var/verdicts.sqlite";

// One of the six safety verdict values.
bool isSafetyVerdictValue(std::string_view text);

// A hash as people and messages write it: 64 or 40 hexadecimal digits; nothing for any other text.
std::optional<SHA256Value> sha256FromHex(std::string_view text);
std::optional<SHA1Value> sha1FromHex(std::string_view text);

// At most 255 bytes of UTF-8 without control characters: fit to be an infection name or a source.
bool isRecordText(std::string_view text);

class SQLiteStatement;
namespace verdict_records {
struct ReadStatements;
}

class VerdictStore {
 public:
  // With readWrite a missing file is made (0644) together with its folders (0755), and an older store or an
  // empty file is brought up to date. With change the same, but a missing file is an error. With readOnly
  // nothing is changed and a missing file is an error. With look the same, for a moment: a user who may not
  // take part in the locking beside the file, where nobody else has the store open, sees the file as it is.
  enum class Access : std::uint8_t { look, readOnly, change, readWrite };

  // How long a change waits for one that another program is making.
  static constexpr std::chrono::milliseconds kBusyTimeout{5000};

  // Null with an error of kVerdictStoreErrorDomain.
  static std::unique_ptr<VerdictStore> open(const std::string& path, Access access, ErrorPtr* error = nullptr,
                                            std::chrono::milliseconds busyTimeout = kBusyTimeout);
  ~VerdictStore();
  VerdictStore(const VerdictStore&) = delete;
  VerdictStore& operator=(const VerdictStore&) = delete;

  const std::string& path() const { return path_; }

  // Nothing when the hash is not in the store and, with an error set, when the store cannot be read. A store
  // of a version that knew no SHA-1, or no URLs, opened for reading, has none.
  std::optional<StoredVerdict> find(const SHA256Value& sha256, ErrorPtr* error = nullptr);
  std::optional<StoredVerdict> find(const SHA1Value& sha1, ErrorPtr* error = nullptr);

  using FileEntry = std::pair<VerdictKey, StoredVerdict>;
  // The record that an answer about a file comes from, by its hashes as far as they are known. What an
  // analysis found counts when nothing else is known by either hash, and that of the SHA-256 before that of
  // the SHA-1.
  std::optional<FileEntry> findFile(const std::optional<SHA256Value>& sha256,
                                    const std::optional<SHA1Value>& sha1, ErrorPtr* error = nullptr);

  using Entry = std::pair<SHA256Value, StoredVerdict>;
  // Adds all or none; a verdict that is there is replaced.
  [[nodiscard]] bool add(const std::vector<Entry>& entries, ErrorPtr* error = nullptr);
  [[nodiscard]] bool addAll(const std::vector<VerdictEntry>& entries, ErrorPtr* error = nullptr);

  struct ImportOutcome {
    std::size_t added = 0;
    std::size_t replaced = 0;   // said something else before, or had another source
    std::size_t unchanged = 0;  // there already: the time when it was added stays
    std::size_t kept = 0;       // a person had given another verdict, which stays
    std::size_t repeated = 0;   // not looked at: a later one of the same call has their key
    // Of the replaced ones: known clean now and malicious, unwanted or pu before, and the reverse.
    std::size_t badToClean = 0;
    std::size_t cleanToBad = 0;
  };
  // Takes all, in the order of their keys, or none. Of several with one key the last counts.
  std::optional<ImportOutcome> importAll(const std::vector<VerdictEntry>& entries, ErrorPtr* error = nullptr);

  // Keeps what an analysis found under both hashes, unless one of them has a verdict from another source. The
  // verdict in force afterwards, nothing on failure.
  std::optional<StoredVerdict> remember(const SHA256Value& sha256, const SHA1Value& sha1,
                                        const StoredVerdict& found, ErrorPtr* error = nullptr);

  // Removes all or none. How many there were, nothing on failure.
  std::optional<std::size_t> remove(const std::vector<VerdictKey>& keys, ErrorPtr* error = nullptr);

  // How many are removed for good, and how much of the work is done (0 to 1). False ends the removal there.
  using RemovalObserver = std::function<bool(std::size_t removed, double share)>;
  // In many short transactions, so that others come to their turn: what was removed before a failure stays
  // removed. How many were removed, nothing on failure.
  std::optional<std::size_t> removeFilesOfSource(const std::string& source, ErrorPtr* error = nullptr,
                                                 const RemovalObserver& observer = nullptr);
  std::optional<std::size_t> removeURLsOfSource(const std::string& source, ErrorPtr* error = nullptr,
                                                const RemovalObserver& observer = nullptr);

  // Records by verdict; nothing on failure.
  using Counts = std::map<std::string, std::uint64_t>;
  std::optional<Counts> count(VerdictKind kind, ErrorPtr* error = nullptr);
  std::optional<Counts> count(ErrorPtr* error = nullptr) { return count(VerdictKind::sha256, error); }
  std::optional<Counts> countURLs(ErrorPtr* error = nullptr) { return count(VerdictKind::url, error); }
  // Records by source.
  std::optional<Counts> countSources(VerdictKind kind, ErrorPtr* error = nullptr);

  // Calls the visitor with each record of the kind, in the order of the keys and as of one moment, until it
  // returns false; of one source only when it is not empty. The visitor does not look into this store. False
  // when the store cannot be read.
  bool visit(VerdictKind kind, const std::string& source,
             const std::function<bool(const VerdictEntry&)>& visitor, ErrorPtr* error = nullptr);

  using URLEntry = std::pair<std::string, StoredURLVerdict>;
  // The first of the keys that is there.
  std::optional<URLEntry> findURL(const std::vector<std::string>& keys, ErrorPtr* error = nullptr);
  [[nodiscard]] bool addURLs(const std::vector<URLEntry>& entries, ErrorPtr* error = nullptr);

 private:
  struct Reader;
  struct Writer;

  VerdictStore(std::string path, std::unique_ptr<Reader> reader, std::unique_ptr<Writer> writer);

  // Runs the work in one transaction.
  template <class Work>
  bool change(const Work& work, ErrorPtr* error);
  template <class Entries>
  bool putAll(const Entries& entries, ErrorPtr* error);
  std::optional<std::size_t> removeSource(const std::vector<VerdictKind>& kinds, const std::string& source,
                                          const RemovalObserver& observer, ErrorPtr* error);
  template <class Hash>
  std::optional<StoredVerdict> findHash(const Hash& hash, ErrorPtr* error);
  std::optional<Counts> countWith(SQLiteStatement verdict_records::ReadStatements::*statement,
                                  VerdictKind kind, ErrorPtr* error);

  const std::string path_;
  // Closed last: only a writing connection moves the log into the file when it is the last to go. Null for a
  // store that is only read.
  const std::unique_ptr<Writer> writer_;
  const std::unique_ptr<Reader> reader_;
};

}  // namespace qm
