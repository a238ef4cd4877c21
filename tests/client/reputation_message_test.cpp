#include "client/reputation_message.hpp"

#include "support/testing.hpp"

namespace {

TEST(ReputationResponse, OnlyWhatKeepsToTheProtocolIsAVerdict) {
  constexpr auto kMalformed = ReputationFailure::malformedAnswer;
  constexpr auto kReported = ReputationFailure::reportedByService;
  const struct {
    std::function<void(XPCDictionary&)> change;
    ReputationFailure failure;
    const char* text = "";  // of the error, a part
  } cases[] = {
      {[](XPCDictionary&) {}, ReputationFailure::none},
      {[](XPCDictionary& d) { d.setUInt64("reputationVerdict", 2); }, kMalformed, "reputationVerdict"},
      {[](XPCDictionary& d) { d.setInt64("reputationVerdict", -1); }, kMalformed, "reputationVerdict"},
      {[](XPCDictionary& d) { d.setInt64("reputationVerdict", 6); }, kReported},
      {[](XPCDictionary& d) { d.setInt64("prevalence", 256); }, kMalformed, "prevalence"},
      {[](XPCDictionary& d) { d.setBool("ttl", true); }, kMalformed, "ttl"},
      {[](XPCDictionary& d) { d.setInt64("infectionName", 1); }, kMalformed, "infectionName"},
      {[](XPCDictionary& d) { d.setInt64("error", 1); }, kMalformed, "error"},
      {[](XPCDictionary& d) {
         d.setBool("error", true);  // the verdict beside it does not count
         d.setString("error-string", "Failed to calculate hashes for supplied fd");
         d.setString("error-description", "code 101");
       },
       kReported, "Failed to calculate hashes for supplied fd: code 101"},
  };
  for (const auto& [change, failure, text] : cases) {
    XPCDictionary dictionary = XPCDictionary::create();
    dictionary.setInt64("ttl", 3600);
    dictionary.setInt64("prevalence", 17);
    dictionary.setInt64("reputationVerdict", 8);
    dictionary.setString("infectionName", "Test.Virus");
    change(dictionary);
    ReputationAnswer answer;
    readReputationResponse(dictionary, answer);
    EXPECT_EQ(answer.failure, failure) << text;
    EXPECT_NE(answer.errorText.find(text), std::string::npos) << answer.errorText;
    // A level above the last counts as spam.
    EXPECT_EQ(answer.verdict, answer.answered() ? ReputationVerdict::spam : ReputationVerdict::error) << text;
  }
}

}  // namespace
