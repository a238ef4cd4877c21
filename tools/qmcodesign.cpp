// qmcodesign: signs programs of the product, shows and verifies signatures, and makes a development
// authority.
//
// Exit status: 0 done, or valid; 1 (verify only) a program is not valid or does not meet the requirement; 2
// something could not be done.
#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "platform/file_io.hpp"
#include "platform/linux/code_signature.hpp"
#include "platform/linux/requirement.hpp"
#include "platform/standard_descriptors.hpp"
#include "tools/development_authority.hpp"
#include "tools/program_signer.hpp"
#include "tools/signature_report.hpp"
#include "tools/standard_streams.hpp"
#include "tools/usage.hpp"

namespace qm::tools {
namespace {

constexpr int kDone = 0;
constexpr int kNotValid = 1;
constexpr int kNotDone = 2;

struct Arguments {
  std::vector<std::string> programs;
  std::string key;
  std::string certificate;
  std::optional<std::string> chain;
  std::optional<std::string> requirement;
  std::optional<std::string> anchors;
  std::string signature;
  std::string content;
  std::string folder;
  AuthorityOptions authority;
};

int report(const Failure& failure) {
  if (!failure) return kDone;
  std::fprintf(stderr, "qmcodesign: %s\n", failure->c_str());
  return kNotDone;
}

int sign(const Arguments& arguments) {
  SigningIdentity identity;
  if (const Failure failure = loadIdentity(arguments.key, arguments.certificate, arguments.chain, identity))
    return report(failure);
  int result = kDone;
  for (const std::string& program : arguments.programs)
    if (report(signProgram(program, identity)) != kDone) result = kNotDone;
  return result;
}

int show(const Arguments& arguments) {
  int result = kDone;
  for (const std::string& program : arguments.programs) {
    std::string description;
    if (report(describeSignature(program, description)) != kDone)
      result = kNotDone;
    else
      std::fputs(description.c_str(), stdout);
  }
  return result;
}

// A folder that cannot count: that a program has no chain to an anchor in it would not say why.
Failure checkAnchorsFolder(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code failure;
  const fs::directory_iterator readable(folder, failure);
  if (failure == std::errc::no_such_file_or_directory) return folder + ": no such folder";
  if (failure) return folder + ": " + failure.message();
  if ((fs::status(folder, failure).permissions() & fs::perms::others_write) != fs::perms::none)
    return folder + ": everybody may write to it, so that no root in it counts";
  return std::nullopt;
}

int verifyProgram(const std::string& path, const std::string& anchors, const SecRequirementPtr& requirement) {
  const FileDescriptor program = openForReading(path.c_str());
  FileStatus file;
  if (!program || !statDescriptor(program.get(), file)) return report(path + ": " + std::strerror(errno));
  if (!file.isRegularFile) return report(path + ": is no regular file");
  const std::atomic<bool> cancelled{false};
  CodeFacts code;
  OSStatus status = verifyAppendedSignature(program.get(), anchors, cancelled, code);
  if (status == kSecSuccess && requirement != nullptr && !requirement->isSatisfiedBy(code))
    status = kSecCSReqFailed;
  std::printf("%s: %s\n", path.c_str(), statusText(status).c_str());
  return status == kSecSuccess ? kDone : status > kSecErrnoBase ? kNotDone : kNotValid;
}

int verify(const Arguments& arguments) {
  SecRequirementPtr requirement;
  std::string reason;
  if (arguments.requirement &&
      SecRequirement::parse(*arguments.requirement, requirement, &reason) != kSecSuccess)
    return report("requirement: " + reason);
  const std::string anchors = arguments.anchors.value_or(installedAnchorsFolder());
  if (const Failure failure = checkAnchorsFolder(anchors)) return report(failure);
  bool anyInvalid = false;
  bool anyFailure = false;
  for (const std::string& program : arguments.programs) {
    const int result = verifyProgram(program, anchors, requirement);
    anyInvalid = anyInvalid || result == kNotValid;
    anyFailure = anyFailure || result == kNotDone;
  }
  return anyInvalid ? kNotValid : anyFailure ? kNotDone : kDone;
}

int extract(const Arguments& arguments) {
  std::uint64_t length = 0;
  const int result =
      report(extractSignature(arguments.programs.front(), arguments.signature, arguments.content, length));
  if (result == kDone) std::printf("%llu\n", static_cast<unsigned long long>(length));
  return result;
}

int makeAuthority(const Arguments& arguments) {
  return report(makeDevelopmentAuthority(arguments.folder, arguments.authority));
}

using Command = int (*)(const Arguments&);

void addSign(CLI::App& app, Arguments& arguments, Command& chosen) {
  CLI::App* command = app.add_subcommand("sign", "Sign programs; a signature that is there is replaced");
  command->add_option("--key", arguments.key, "The private key, PEM")->required();
  command->add_option("--certificate", arguments.certificate, "The signing certificate, PEM")->required();
  command->add_option("--chain", arguments.chain, "Certificates between it and the anchor, PEM");
  command->add_option("PROGRAM", arguments.programs, "ELF programs")->required();
  command->callback([&chosen] { chosen = sign; });
}

void addShow(CLI::App& app, Arguments& arguments, Command& chosen) {
  CLI::App* command =
      app.add_subcommand("show", "Show what the signatures of programs say, without verifying them");
  command->add_option("PROGRAM", arguments.programs, "Signed programs")->required();
  command->callback([&chosen] { chosen = show; });
}

void addVerify(CLI::App& app, Arguments& arguments, Command& chosen) {
  CLI::App* command =
      app.add_subcommand("verify", "Verify programs: exit status 0 when all are valid, 1 when one is not");
  command->add_option("--requirement", arguments.requirement, "A code requirement they must meet, too");
  command->add_option("--anchors", arguments.anchors,
                      "Folder of the accepted roots, *.pem; by default the installation's");
  command->add_option("PROGRAM", arguments.programs, "Programs")->required();
  command->callback([&chosen] { chosen = verify; });
}

void addExtract(CLI::App& app, Arguments& arguments, Command& chosen) {
  CLI::App* command = app.add_subcommand(
      "extract", "Write a program's signature to a file and print how many bytes it is over");
  command->add_option("--signature", arguments.signature, "The file for the signature, CMS in DER")
      ->required();
  command->add_option("--content", arguments.content, "A file for the signed bytes, too");
  command->add_option("PROGRAM", arguments.programs, "A signed program")->required()->expected(1);
  command->callback([&chosen] { chosen = extract; });
}

void addAuthority(CLI::App& app, Arguments& arguments, Command& chosen) {
  CLI::App* command = app.add_subcommand(
      "authority", "Make a throw-away development root, signing certificate and key in a folder");
  command->add_option("--team", arguments.authority.team, "The signing team")->capture_default_str();
  command->add_option("--days", arguments.authority.days, "How long it is valid")->capture_default_str();
  command->add_option("FOLDER", arguments.folder, "The folder; made when there is none")->required();
  command->callback([&chosen] { chosen = makeAuthority; });
}

int run(int argumentCount, char** argumentValues) {
  CLI::App app("Signs programs of the product and verifies their signatures", "qmcodesign");
  app.set_version_flag("--version", std::string("qmcodesign ") + QM_PRODUCT_VERSION);
  app.require_subcommand(1);
  Arguments arguments;
  Command chosen = nullptr;
  addSign(app, arguments, chosen);
  addShow(app, arguments, chosen);
  addVerify(app, arguments, chosen);
  addExtract(app, arguments, chosen);
  addAuthority(app, arguments, chosen);
  try {
    app.parse(argumentCount, argumentValues);
  } catch (const CLI::ParseError& error) {
    return printUsage(app, error);
  }
  return chosen(arguments);
}

}  // namespace
}  // namespace qm::tools

int main(int argumentCount, char** argumentValues) {
  qm::occupyClosedStandardDescriptors();
  return qm::tools::endOutput("qmcodesign", qm::tools::run(argumentCount, argumentValues));
}
