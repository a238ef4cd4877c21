// What the tests of the reputation floor share: files to ask about, requests for them and replies that are
// kept.
#pragma once

#include "filefacts/QMRHashCacheEntry.hpp"
#include "foundation/error.hpp"
#include "platform/file_handle.hpp"
#include "reputation/QMRFileReputationRequest.hpp"
#include "reputation/QMRFileReputationResult.hpp"
#include "reputation/QMRURLReputationResult.hpp"
#include "support/testing.hpp"

namespace qm::test {

inline std::shared_ptr<FileHandle> openHandle(const std::string& path) {
  return FileHandle::fileHandleForReadingAtPath(path);
}

// Digests of repeated bytes: 20 times 0x11 and 32 times 0x22, the magic bytes "#!".
inline std::shared_ptr<QMRHashCacheEntry> someHashes() {
  auto hashes = std::make_shared<QMRHashCacheEntry>();
  hashes->setSha1(Data(std::vector<std::uint8_t>(20, 0x11)));
  hashes->setSha256(Data(std::vector<std::uint8_t>(32, 0x22)));
  hashes->setMagicBytes(Data("#!", 2));
  return hashes;
}

struct RequestFacts {
  std::string path = "/Users/bob/Downloads/tool.sh";
  std::shared_ptr<FileHandle> fileHandle = nullptr;
  std::shared_ptr<const QMRHashCacheEntry> hashes = someHashes();
  bool isAOTBinary = false;
  bool isDownloadedFile = true;
  std::string teamID = {};
  Dictionary metadata = {};
};

inline std::shared_ptr<QMRFileReputationRequest> makeRequest(RequestFacts facts = {}) {
  return std::make_shared<QMRFileReputationRequest>(facts.path, facts.fileHandle, facts.hashes,
                                                    facts.isAOTBinary, facts.isDownloadedFile, 501,
                                                    facts.teamID, facts.metadata);
}

// Keeps what a completion was called with, from any thread; outlives whoever may call it.
struct Reply {
  std::shared_ptr<const QMRFileReputationResult> result;
  ErrorPtr error;
};
class Replies : public Inbox<Reply> {
 public:
  FileReputationCompletion block() {
    return [this](const std::shared_ptr<const QMRFileReputationResult>& result, const ErrorPtr& error) {
      put({result, error});
    };
  }
  // The only reply there is.
  Reply only() const {
    EXPECT_EQ(waitFor(1).size(), 1u);
    return waitForOne();
  }
};

inline void expectAnswer(const Reply& reply, ReputationLevel verdict, unsigned prevalence, std::uint64_t ttl,
                         const std::optional<std::string>& infectionName = std::nullopt,
                         const ErrorPtr& error = nullptr) {
  EXPECT_EQ(reply.error, error);
  ASSERT_NE(reply.result, nullptr);
  EXPECT_EQ(reply.result->reputationVerdict(), verdict);
  EXPECT_EQ(unsigned{reply.result->prevalence()}, prevalence);
  EXPECT_EQ(reply.result->ttl(), ttl);
  EXPECT_EQ(reply.result->infectionName(), infectionName);
  EXPECT_EQ(reply.result->fileAccessUserID(), 501u);
}

// The answer to a failure: the error as it is, and a result of level 6 without anything.
inline void expectFailure(const Reply& reply, const ErrorPtr& error) {
  expectAnswer(reply, reputation_level::error, 0, 0, std::nullopt, error);
}

// The answer about a URL that could not be rated.
inline void expectUnrated(const QMRURLReputationResult& rating, std::string_view domain, std::int64_t code,
                          const std::string& message) {
  EXPECT_EQ(rating.categories(), (Dictionary{{"cats", Dictionary{{"safe", 0}}}}));
  EXPECT_EQ(rating.ttl(), 0u);
  ASSERT_NE(rating.error(), nullptr);
  EXPECT_EQ(rating.error()->domain(), domain);
  EXPECT_EQ(rating.error()->code(), code);
  EXPECT_EQ(rating.error()->localizedDescription(), message);
}

}  // namespace qm::test
