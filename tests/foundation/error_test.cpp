#include "foundation/error.hpp"

#include "support/testing.hpp"

namespace {

using testing::MatchesRegex;

TEST(ErrorDescription, ShowsDomainCodeTextAndUserInfo) {
  const std::pair<Error, const char*> cases[] = {
      {{"D", 42}, "Error Domain=D Code=42 \"(null)\""},
      {{"D", 1, {{kLocalizedDescriptionKey, "X"}}},
       "Error Domain=D Code=1 \"X\" UserInfo={NSLocalizedDescription=X}"},
      {{"D", 1, {{"a", 1}, {"b", "x y\n"}}}, "Error Domain=D Code=1 \"(null)\" UserInfo={a=1, b=x y\n}"},
      {{"D", 1, {{kDescriptionKey, "desc"}, {kDebugDescriptionKey, "dbg"}}},
       "Error Domain=D Code=1 \"desc\" (dbg) UserInfo={NSDebugDescription=dbg, NSDescription=desc}"},
      {{kOSStatusErrorDomain, -67050}, "Error Domain=NSOSStatusErrorDomain Code=-67050 \"(null)\""},
      {{kOSStatusErrorDomain, 100002},
       "Error Domain=NSOSStatusErrorDomain Code=100002 \"ENOENT: No such file or directory\""},
      {{kCocoaErrorDomain, 4097, {{kDebugDescriptionKey, "connection to service named X"}}},
       "Error Domain=NSCocoaErrorDomain Code=4097 \"connection to service named X\" "
       "UserInfo={NSDebugDescription=connection to service named X}"},
  };
  for (const auto& [error, text] : cases) EXPECT_EQ(error.description(), text);
}

TEST(ErrorDescription, OfAFailedReadShowsTheUnderlyingError) {
  EXPECT_THAT(
      makeFileReadError(ENOENT, "/p/x")->description(),
      MatchesRegex("Error Domain=NSCocoaErrorDomain Code=260 \"The file \u201Cx\u201D couldn\u2019t be "
                   "opened because there is no such file.\" UserInfo=\\{NSFilePath=/p/x, "
                   "NSUnderlyingError=0x[0-9a-f]+ \\{Error Domain=NSPOSIXErrorDomain Code=2 "
                   "\"No such file or directory\"\\}\\}"));
  EXPECT_EQ(makeFileReadError(EACCES, "/p")->code(), 257);
}

TEST(ErrorDescription, ShowsThreeLevelsOfNestedErrors) {
  ErrorPtr error = makeError("D", 5, {{"k", "v"}});
  for (int code = 4; code >= 1; --code) error = makeError("D", code, {{kUnderlyingErrorKey, error}});
  EXPECT_THAT(error->description(), MatchesRegex(".*Code=3.*Code=4 \"\\(null\\)\" UserInfo=0x[0-9a-f]+ "
                                                 "\\(not displayed\\)\\}\\}\\}\\}\\}\\}"));
}

TEST(ErrorLocalizedDescription, IsTheFirstSentenceThatCanBeMade) {
  const std::string start = "The operation couldn\u2019t be completed. ";
  EXPECT_EQ(Error("D", 1, {{kDescriptionKey, "S"}}).localizedDescription(), start + "(D error 1 - S)");
  EXPECT_EQ(makePOSIXError(2)->localizedDescription(), start + "No such file or directory");
}

}  // namespace
