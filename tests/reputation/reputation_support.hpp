// What the tests of the reputation floor share: files to ask about, requests for them and replies that are
// kept.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "filefacts/QMRHashCacheEntry.hpp"
#include "foundation/error.hpp"
#include "platform/file_handle.hpp"
#include "reputation/QMRFileReputationRequest.hpp"
#include "reputation/QMRFileReputationResult.hpp"
#include "support/scratch_folder.hpp"

namespace qm::test {

inline constexpr std::chrono::seconds kPatience{60};

inline std::shared_ptr<FileHandle> openHandle(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(descriptor, 0) << path;
  return std::make_shared<FileHandle>(descriptor, true);
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
class Replies {
 public:
  struct Reply {
    std::shared_ptr<const QMRFileReputationResult> result;
    ErrorPtr error;
  };

  FileReputationCompletion block() {
    return [this](const std::shared_ptr<const QMRFileReputationResult>& result, const ErrorPtr& error) {
      const std::lock_guard lock(mutex_);
      replies_.push_back({result, error});
      changed_.notify_all();
    };
  }
  std::size_t count() const {
    const std::lock_guard lock(mutex_);
    return replies_.size();
  }
  // Waits for as many replies.
  std::vector<Reply> wait(std::size_t count) const {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return replies_.size() >= count; })) << count;
    return replies_;
  }
  // The only reply there is.
  Reply only() const {
    const std::vector<Reply> replies = wait(1);
    EXPECT_EQ(replies.size(), 1u);
    return replies.at(0);
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Reply> replies_;
};

inline void expectAnswer(const Replies::Reply& reply, ReputationLevel verdict, unsigned prevalence,
                         std::uint64_t ttl, const std::optional<std::string>& infectionName = std::nullopt,
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
inline void expectFailure(const Replies::Reply& reply, const ErrorPtr& error) {
  expectAnswer(reply, reputation_level::error, 0, 0, std::nullopt, error);
}

}  // namespace qm::test
