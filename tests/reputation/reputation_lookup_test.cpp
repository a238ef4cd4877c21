#include "reputation/QMRReputationLookup.hpp"

#include "filefacts/QMRHashProvider.hpp"
#include "foundation/internal_inconsistency.hpp"
#include "reputation/reputation_support.hpp"

namespace {

// Notes which scan it was asked for and answers level 5.
class RecordingLookup final : public QMRReputationLookup {
 public:
  RecordingLookup() : QMRReputationLookup("RecordingLookup") {}
  void qvsScanForFile(const std::shared_ptr<QMRFileReputationRequest>& request, bool skipCloudScan,
                      const FileReputationCompletion& reply) override {
    answer(skipCloudScan ? "qvs" : "qvs with cloud scan", *request, reply);
  }
  void cloudScanForFile(const std::shared_ptr<QMRFileReputationRequest>& request,
                        const FileReputationCompletion& reply) override {
    answer("cloud", *request, reply);
  }
  void answer(const char* asked, const QMRFileReputationRequest& request,
              const FileReputationCompletion& reply) {
    scan = asked;
    reply(QMRFileReputationResult::resultFromRequest(request, 5, std::nullopt, 1, 2), nullptr);
  }

  std::string scan;
};

class ReputationLookupTest : public testing::Test {
 protected:
  const std::shared_ptr<RecordingLookup> lookup_ = std::make_shared<RecordingLookup>();
  Replies replies_;
};

TEST_F(ReputationLookupTest, TheFileDecidesWhichScanIsMade) {
  const auto sha256Only = std::make_shared<QMRHashCacheEntry>();
  sha256Only->setSha256(Data(std::vector<std::uint8_t>(32, 1)));
  const auto hashes = someHashes();
  const struct {
    bool isAOTBinary, isDownloadedFile;
    std::shared_ptr<const QMRHashCacheEntry> hashes;
    const char* scan;
  } cases[] = {
      {false, true, hashes, "cloud"},     {false, true, nullptr, "cloud"}, {false, true, sha256Only, "cloud"},
      {true, true, hashes, "qvs"},        {true, false, hashes, "qvs"},    {false, false, hashes, "qvs"},
      {false, false, sha256Only, "none"}, {true, true, nullptr, "none"},   {false, false, nullptr, "none"},
  };
  for (const auto& expected : cases) {
    lookup_->scan = "none";
    Replies replies;
    lookup_->reputationForFile(makeRequest({.hashes = expected.hashes,
                                            .isAOTBinary = expected.isAOTBinary,
                                            .isDownloadedFile = expected.isDownloadedFile}),
                               replies.block());
    EXPECT_EQ(lookup_->scan, expected.scan) << expected.isAOTBinary << expected.isDownloadedFile;
    if (lookup_->scan == "none")
      expectAnswer(replies.only(), reputation_level::unknown, 0, 0);
    else
      expectAnswer(replies.only(), 5, 1, 2);
  }
  lookup_->scan = "none";
  lookup_->setLookupEnabledCallback([] { return false; });
  lookup_->reputationForFile(makeRequest(), replies_.block());
  expectAnswer(replies_.only(), reputation_level::unknown, 0, 0);
  EXPECT_EQ(lookup_->scan, "none") << "lookups are switched off";
}

TEST_F(ReputationLookupTest, HashesThatAreMissingAreAskedForByPathAndDoneWithoutWhenThatFails) {
  const ScratchFolder folder;
  const LogRecorder recorder;
  const auto provider = std::make_shared<QMRHashProvider>();
  lookup_->setHashProvider(provider);
  const std::string missing = folder.path("missing");
  const std::string present = folder.write("present", "abc");
  const struct {
    const std::string& path;
    bool isDownloadedFile;
    const char* scan;
  } cases[] = {
      {missing, true, "cloud"}, {missing, false, "none"}, {present, true, "cloud"}, {present, false, "qvs"}};
  for (const auto& [path, isDownloadedFile, scan] : cases) {
    SCOPED_TRACE(path + " " + scan);
    lookup_->scan = "none";
    Replies replies;
    const auto request = makeRequest({.path = path, .hashes = nullptr, .isDownloadedFile = isDownloadedFile});
    lookup_->reputationForFile(request, replies.block());
    EXPECT_EQ(lookup_->scan, scan);
    EXPECT_EQ(replies.only().error, nullptr);
    EXPECT_EQ(request->metadata().contains("sha1"), path == present);
    EXPECT_TRUE(recorder.has(LogLevel::debug, "Will query hash provider " + provider->description() +
                                                  " for hashes for file " + path));
  }
  EXPECT_EQ(recorder.count(LogLevel::error, "Hashing failed for " + missing +
                                                ": Error Domain=com.quillmarsh.qmrhashprovider Code=102 "
                                                "\"(null)\" UserInfo={errno=2}"),
            2U);
  EXPECT_FALSE(recorder.hasError("Hashing failed for " + present));
}

TEST_F(ReputationLookupTest, ABackendThatDoesNotAnswerURLsIsAMistakeOfTheProgram) {
  EXPECT_THAT(
      [this] { lookup_->reputationForURL("http://h/", 1, nullptr); },
      testing::ThrowsMessage<InternalInconsistencyException>("This method must be overridden by subclass"));
}

TEST_F(ReputationLookupTest, TheRequestsMetadataIsEnriched) {
  lookup_->addBaseMetadataValue("local_file", "context");
  lookup_->addBaseMetadataValue(1, "shared");
  lookup_->addBaseMetadataValue(2, "shared");
  const auto request =
      makeRequest({.path = "/Users/bob/Downloads/tools/Report.DOCX",
                   .teamID = "TEAM",
                   .metadata = {{"file_size", 3}, {"shared", "request"}, {"context", "request"}}});
  lookup_->reputationForFile(request, replies_.block());
  const Dictionary expected{
      {"context", "local_file"},
      {"file_name", "<file_name>.docx"},
      {"file_path", "%PROFILE%/Downloads/tools"},
      {"file_size", 3},
      {"magic_bytes", "IyE="},
      {"sha1", "1111111111111111111111111111111111111111"},
      {"sha256", "2222222222222222222222222222222222222222222222222222222222222222"},
      {"shared", 2},
      {"teamid", "TEAM"},
  };
  EXPECT_EQ(request->metadata(), expected) << description(request->metadata());
}

TEST_F(ReputationLookupTest, PrevalencePromotesUnknownFilesOnly) {
  EXPECT_EQ(lookup_->updateReputationLevel(1, 255), 1u) << "no threshold";
  const struct {
    std::int32_t threshold;
    ReputationLevel level;
    std::uint8_t prevalence;
    ReputationLevel expected;
  } cases[] = {{10, 1, 10, 2}, {10, 1, 9, 1}, {10, 0, 255, 0}, {256, 1, 255, 1}, {0, 99, 255, 99}};
  for (const auto& [threshold, level, prevalence, expected] : cases) {
    lookup_->setPrevalenceThresholdCallback([value = threshold] { return value; });
    EXPECT_EQ(lookup_->updateReputationLevel(level, prevalence), expected)
        << level << " with " << unsigned{prevalence} << " of " << threshold;
  }
}

}  // namespace
