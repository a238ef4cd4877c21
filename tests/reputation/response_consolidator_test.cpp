#include "reputation/QMRResponseConsolidator.hpp"

#include "reputation/reputation_support.hpp"

namespace {

class ResponseConsolidatorTest : public testing::Test {
 protected:
  const ScratchFolder folder_;
  const std::string path_ = folder_.write("file", "content");
  const std::shared_ptr<QMRFileReputationRequest> first_ =
      makeRequest({.path = path_, .fileHandle = openHandle(path_)});
  const std::shared_ptr<QMRFileReputationResult> result_ =
      QMRFileReputationResult::resultFromRequest(*first_, 2, std::nullopt, 5, 6);
  Replies replies_;
  QMRResponseConsolidator consolidator_;
};

TEST_F(ResponseConsolidatorTest, RequestsForTheFileByAnyNameGetTheFirstOnesAnswerInTheirOrder) {
  ASSERT_FALSE(consolidator_.waitForPendingScansForRequest(*first_, replies_.block()));
  std::filesystem::create_hard_link(path_, folder_.path("link"));
  std::filesystem::create_symlink(path_, folder_.path("symlink"));
  const auto byHandle = makeRequest({.path = "/gone", .fileHandle = openHandle(path_)});
  int parked = 0;
  std::vector<int> order;
  for (const auto& later : {makeRequest({.path = folder_.path("link")}),
                            makeRequest({.path = folder_.path("symlink")}), byHandle}) {
    const auto reply = [&, number = ++parked](const auto& result, const auto& error) {
      order.push_back(number);
      EXPECT_EQ(result, result_);
      EXPECT_EQ(error, nullptr);
    };
    EXPECT_TRUE(consolidator_.waitForPendingScansForRequest(*later, reply)) << later->path();
  }
  EXPECT_TRUE(order.empty());
  consolidator_.respondToPendingCallbacksForRequest(*first_, result_, nullptr);
  consolidator_.respondToPendingCallbacksForRequest(*first_, result_, nullptr);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(replies_.size(), 0u) << "the one under way is answered by its caller";
}

TEST_F(ResponseConsolidatorTest, AFileThatCannotBeExaminedIsNeitherParkedNorInTheWay) {
  const LogRecorder logs;
  const auto missing = makeRequest({.path = folder_.path("missing")});
  const auto badHandle = makeRequest({.path = path_, .fileHandle = std::make_shared<FileHandle>(-1, false)});
  for (const auto& request : {missing, missing, badHandle, first_})
    EXPECT_FALSE(consolidator_.waitForPendingScansForRequest(*request, replies_.block()));
  EXPECT_TRUE(logs.has(LogLevel::error, "stat failed for path " + missing->path() + ", error 2"));
  consolidator_.respondToPendingCallbacksForRequest(*missing, result_, nullptr);
  EXPECT_TRUE(logs.has(LogLevel::debug, "No pending callbacks for file (null)"));
  EXPECT_EQ(replies_.size(), 0u);
}

TEST_F(ResponseConsolidatorTest, AnOpenFileStaysTheSameThoughItsPathNamesAnotherByThen) {
  const auto second = makeRequest({.path = path_, .fileHandle = openHandle(path_)});
  ASSERT_FALSE(consolidator_.waitForPendingScansForRequest(*first_, nullptr));
  std::filesystem::remove(path_);
  EXPECT_TRUE(consolidator_.waitForPendingScansForRequest(*second, replies_.block()));
  folder_.write("file", "another");
  EXPECT_FALSE(consolidator_.waitForPendingScansForRequest(*makeRequest({.path = path_}), nullptr));
  consolidator_.respondToPendingCallbacksForRequest(*first_, result_, nullptr);
  EXPECT_EQ(replies_.only().result, result_);
}

}  // namespace
