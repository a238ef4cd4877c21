#include "tools/qmr/command_line.hpp"

#include <CLI/CLI.hpp>
#include <memory>
#include <utility>

#include "tools/qmr/exit_status.hpp"
#include "tools/qmr/settings_command_line.hpp"
#include "tools/usage.hpp"

namespace qm::qmr {
namespace {

constexpr int kDefaultFollowSeconds = 30;
constexpr int kLongestFollowSeconds = 3600;
constexpr int kLongestTimeoutSeconds = 3600;
constexpr std::size_t kMostJobs = 256;

constexpr const char* kCheckNotes =
    R"(A symbolic link named on the command line is followed, one inside a directory is not.
Paths read from standard input stand one on a line. Without --downloaded and --not-downloaded
a file counts as downloaded when it has the origin attributes that browsers leave on a file.
--follow waits until all files of unknown or undetected reputation had a delayed answer, at most
so many seconds from the last reply.
)";

constexpr const char* kURLNotes =
    R"(The backend that the service would ask now is asked from here: Basalt, or Wisp where the parameters
file does not say BASALT=true. SAFE is -100 (certainly not safe) to 100, DETAIL the categories with
their scores or why there is no answer. A host name alone is asked about, too. URLs read from
standard input stand one on a line.

Exit status:
  0    no URL is unsafe
  1    one is (SAFE below 0; wins over 2)
  2    something could not be answered, the backend cannot be used, or wrong usage
  130  interrupted by Ctrl-C (143 by SIGTERM))";

constexpr const char* kPingNotes = R"(Exit status:
  0    the service answered
  2    it did not, or wrong usage)";

std::string exitStatuses(const std::string& whatIsBad) {
  return "Exit status:\n"
         "  0    nothing bad was found\n"
         "  1    " +
         whatIsBad +
         " was found (wins over 2)\n"
         "  2    something could not be answered, the service cannot be reached, or wrong usage\n"
         "  130  interrupted by Ctrl-C (143 by SIGTERM); the summary says what was answered";
}

// The option's number stands behind "=" only, so that "--follow FILE" does not take the file for a number.
std::vector<std::string> withFollowDefault(int argumentCount, const char* const* arguments) {
  std::vector<std::string> texts;
  bool optionsEnded = false;
  for (int i = 1; i < argumentCount; ++i) {
    std::string text = arguments[i];
    optionsEnded = optionsEnded || text == "--";
    if (!optionsEnded && text == "--follow") text += "=" + std::to_string(kDefaultFollowSeconds);
    texts.push_back(std::move(text));
  }
  return {texts.rbegin(), texts.rend()};  // the order in which the library takes them
}

// Writes what stands behind "[" right after the option's name: "--follow[=SECONDS]".
class HelpFormatter final : public CLI::Formatter {
 public:
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string text = option->get_option_text();
    return text.empty() || text.front() == '[' ? text : " " + text;
  }
};

class Parser {
 public:
  Parser() {
    application_.set_version_flag("--version", std::string("qmr ") + QM_PRODUCT_VERSION,
                                  "Print the version and end");
    application_.set_help_flag("-h,--help", "Print this help and end");
    application_.footer(exitStatuses("something untrusted, unwanted, suspicious or spam, or an unsafe URL"));
    application_.formatter(std::make_shared<HelpFormatter>());
    application_.require_subcommand(1);
    addCheck();
    addURL();
    addPing();
    settings_.emplace(application_);
  }

  Command parse(int argumentCount, const char* const* arguments) {
    try {
      application_.parse(withFollowDefault(argumentCount, arguments));
    } catch (const CLI::ParseError& error) {
      return end(error);
    }
    if (downloaded_ && notDownloaded_)
      return EndAtOnce{"qmr: --downloaded and --not-downloaded exclude each other\n", true, kBadUsage};
    if (settings_->parsed()) return settings();
    if (url_->parsed()) {
      urlOptions_.timeout = std::chrono::seconds(urlTimeout_);
      return urlOptions_;
    }
    if (ping_->parsed())
      return PingOptions{std::chrono::seconds(pingTimeout_), std::chrono::seconds(pingWait_)};
    checkOptions_.timeout = std::chrono::seconds(checkTimeout_);
    if (follow_->count() > 0) checkOptions_.follow = std::chrono::seconds(followSeconds_);
    if (downloaded_) checkOptions_.downloaded = true;
    if (notDownloaded_) checkOptions_.downloaded = false;
    return checkOptions_;
  }

 private:
  void addCheck() {
    check_ = application_.add_subcommand("check", "Print the reputation of files");
    check_->footer(kCheckNotes + ("\n" + exitStatuses("something untrusted, unwanted, suspicious or spam")));
    check_
        ->add_option("PATH", checkOptions_.paths, "Files, with -r also directories, or - for standard input")
        ->required()
        ->option_text("...");
    check_->add_flag("-r,--recursive", checkOptions_.recursive, "Check the files below directories too");
    check_->add_flag("-x,--one-file-system", checkOptions_.oneFileSystem,
                     "With -r, stay on the file system of each PATH");
    check_->add_flag("-0,--null", checkOptions_.nullSeparated,
                     "Paths on standard input end in NUL, not in line ends");
    check_->add_flag("--downloaded", downloaded_, "Ask about every file as a downloaded one");
    check_->add_flag("--not-downloaded", notDownloaded_, "Ask about no file as a downloaded one");
    check_->add_flag("--json", checkOptions_.json, "Print one JSON object a line instead of the table");
    follow_ =
        check_->add_option("--follow", followSeconds_, "Wait for delayed answers (30 seconds when not given)")
            ->check(CLI::Range(1, kLongestFollowSeconds))
            ->option_text("[=SECONDS]");
    check_->add_option("-j,--jobs", checkOptions_.jobs, "Files with the service at once (32)")
        ->check(CLI::Range(std::size_t{1}, kMostJobs))
        ->option_text("N");
    check_->add_option("--timeout", checkTimeout_, "Longest wait for the answer about one file (60)")
        ->check(CLI::Range(1, kLongestTimeoutSeconds))
        ->option_text("SECONDS");
    check_->add_flag("-q,--quiet", checkOptions_.quiet, "No summary and no progress");
  }

  void addURL() {
    url_ = application_.add_subcommand("url", "Print the reputation of URLs");
    url_->footer(kURLNotes);
    url_->add_option("URL", urlOptions_.urls, "URLs or host names, or - for standard input")
        ->required()
        ->option_text("...");
    url_->add_flag("--cloud-scan", urlOptions_.cloudScan,
                   "Of the Wisp backend: a cloud scan instead of a query");
    url_->add_flag("--json", urlOptions_.json, "Print one JSON object a line instead of the table");
    url_->add_option("-j,--jobs", urlOptions_.jobs, "URLs with the backend at once (32)")
        ->check(CLI::Range(std::size_t{1}, kMostJobs))
        ->option_text("N");
    url_->add_option("--timeout", urlTimeout_, "Longest wait for the answer about one URL (10)")
        ->check(CLI::Range(1, kLongestTimeoutSeconds))
        ->option_text("SECONDS");
    url_->add_flag("-q,--quiet", urlOptions_.quiet, "No summary and no progress");
  }

  void addPing() {
    ping_ =
        application_.add_subcommand("ping", "Ask the service about an empty file, to see whether it answers");
    ping_->footer(kPingNotes);
    ping_->add_option("--timeout", pingTimeout_, "Longest wait for the answer (5)")
        ->check(CLI::Range(1, kLongestTimeoutSeconds))
        ->option_text("SECONDS");
    ping_->add_option("--wait", pingWait_, "Try again for so long until there is an answer (0)")
        ->check(CLI::Range(0, kLongestTimeoutSeconds))
        ->option_text("SECONDS");
  }

  Command settings() const {
    std::string problem;
    const std::optional<SettingsOptions> options = settings_->options(problem);
    if (options) return *options;
    return EndAtOnce{"qmr: settings: " + problem + "\n", true, kBadUsage};
  }

  EndAtOnce end(const CLI::ParseError& error) const {
    tools::UsageEnd end = tools::endOfUsage(application_, error);
    return {std::move(end.text), end.isError, end.isError ? kBadUsage : kNothingBad};
  }

  CLI::App application_{"Asks for the reputation of files and URLs, shows and changes settings.", "qmr"};
  CLI::App* check_ = nullptr;
  CLI::App* url_ = nullptr;
  CLI::App* ping_ = nullptr;
  std::optional<SettingsCommandLine> settings_;
  CLI::Option* follow_ = nullptr;
  CheckOptions checkOptions_;
  URLOptions urlOptions_;
  int followSeconds_ = kDefaultFollowSeconds;
  int checkTimeout_ = static_cast<int>(CheckOptions{}.timeout.count());
  int urlTimeout_ = static_cast<int>(URLOptions{}.timeout.count());
  int pingWait_ = 0;
  int pingTimeout_ = static_cast<int>(PingOptions{}.timeout.count());
  bool downloaded_ = false;
  bool notDownloaded_ = false;
};

}  // namespace

Command parseCommandLine(int argumentCount, const char* const* arguments) {
  return Parser().parse(argumentCount, arguments);
}

}  // namespace qm::qmr
