#include "platform/linux/requirement.hpp"

#include "support/testing.hpp"

namespace {

using namespace std::string_literals;

CertificateFacts certificate(std::vector<std::pair<std::string, std::string>> subject,
                             std::uint8_t hashByte) {
  CertificateFacts facts;
  for (auto& [part, value] : subject) facts.subject[part].push_back(value);
  facts.hash.fill(hashByte);
  return facts;
}

// A program of the team, three certificates deep.
CodeFacts signedProgram() {
  return {.chain = {certificate({{"CN", "Signing (T1)"}, {"OU", "TEAM"}, {"OU", "SECOND"}}, 0xa0),
                    certificate({{"CN", "Intermediate"}}, 0xb1), certificate({{"C", "XX"}}, 0xc2)},
          .anchored = true,
          .info = {{"CFBundleIdentifier", "com.quillmarsh.tool"},
                   {"Version", "5.12.345"},
                   {"No", false},
                   {"Number", 7},
                   {"Yes", true}}};
}

TEST(Requirement, IsEvaluatedByTheRulesOfTheLanguage) {
  const auto isSatisfied = [](std::string_view text) {
    SecRequirementPtr requirement;
    EXPECT_EQ(SecRequirement::parse(text, requirement), kSecSuccess) << text;
    return requirement != nullptr && requirement->isSatisfiedBy(signedProgram());
  };
  for (const std::string_view text :
       {"true;", "! ( never or never )", "true or false and false", "!false and true",
        "# a\ntrue // b\n and /* c\n */ true", "identifier \"com.quillmarsh.tool\"", "info [Yes] exists",
        "info[Missing] absent", "info[Version] = \"5.12.\"*", "info[Version] == *\".345\"",
        "info[Version] >= \"5.9\"", "info[Version] <= \"5.12.345\"", "anchor apple generic",
        "certificate 2 trusted", "cert leaf[subject.OU] = SECOND",
        "certificate -2[subject.CN] = Intermediate", "anchor[subject.C] = XX",
        "certificate leaf[subject.L] absent"})
    EXPECT_TRUE(isSatisfied(text)) << text;
  for (const std::string_view text :
       {"!!never", "(true or false) and false", "identifier com.quillmarsh.Tool",
        "identifier \"com.quillmarsh\"", "info[No]", "info[No] absent", "info[Missing] < \"9\"",
        "info[Version] = \"5.12.\"", "info[Version] = *\".13.\"*", "info[Version] >= \"5.12.1000\"",
        "info[Version] > \"5.12.345\"", "info[Number] = \"7\"", "certificate leaf trusted",
        "certificate leaf [subject.OU] = team", "certificate 3[subject.CN]",
        "certificate -4[subject.CN] absent", "certificate leaf[subject.SHOE] absent",
        "certificate 1 = H\"a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0\""})
    EXPECT_FALSE(isSatisfied(text)) << text;
}

TEST(Requirement, IsNotMetByAnUntrustedChainNorByATextWithANUL) {
  SecRequirementPtr requirement;
  ASSERT_EQ(SecRequirement::parse("anchor apple generic or certificate root trusted", requirement),
            kSecSuccess);
  CodeFacts code = signedProgram();
  code.anchored = false;
  EXPECT_FALSE(requirement->isSatisfiedBy(code));
  ASSERT_EQ(SecRequirement::parse("certificate leaf[subject.OU] = TEAM", requirement), kSecSuccess);
  code.chain = {certificate({{"OU", std::string("TEAM\0.other", 11)}}, 0)};
  EXPECT_FALSE(requirement->isSatisfiedBy(code));
}

TEST(Requirement, WhatIsNotOfTheLanguageOrTooMuchIsRefusedWithAReason) {
  const std::string open(kMaximumRequirementNesting, '(');
  const std::string close(kMaximumRequirementNesting, ')');
  SecRequirementPtr requirement;
  EXPECT_EQ(SecRequirement::parse(open + "always" + close, requirement), kSecSuccess);
  for (const std::string& text :
       {""s, "always;;"s, "always always"s, "(always"s, "Always"s, "identifier \"open"s, "info[a"s,
        "info[a] >= 5.10"s, "info[a] < *x"s, "certificate leaf[OU] = x"s, "certificate leaf = H\"a0\""s,
        "certificate 99999999999999999999 trusted"s, "anchor generic"s, "/* open"s, "always \xff"s,
        "always\0"s, "(" + open + "always" + close + ")", std::string(60000, '!') + "always",
        "always" + std::string(kMaximumRequirementLength, ' ')}) {
    std::string reason;
    EXPECT_EQ(SecRequirement::parse(text, requirement, &reason), kSecCSReqInvalid) << text.substr(0, 60);
    EXPECT_TRUE(requirement == nullptr && !reason.empty());
  }
}

TEST(Requirement, ATermThatCannotBeEvaluatedIsRefusedEvenWhereTheRestWouldPass) {
  SecRequirementPtr requirement;
  for (const std::string& term :
       {"anchor apple"s, "notarized"s, "platform = 1"s, "entitlement[x] = true"s,
        "cdhash H\"00112233445566778899aabbccddeeff00112233\""s, "certificate leaf[field.1.2.840] exists"s})
    for (const std::string& text : {term, "!" + term, "always or " + term + " or always"})
      EXPECT_EQ(SecRequirement::parse(text, requirement), kSecCSReqUnsupported) << text;
}

TEST(NumericOrder, ComparesStretchesOfDigitsAsNumbers) {
  EXPECT_EQ(compareNumerically("1.0b10", "1.0b2"), 1);
  EXPECT_EQ(compareNumerically("18446744073709551616", "1"), -1);  // 2^64 wraps around to 0
}

}  // namespace
