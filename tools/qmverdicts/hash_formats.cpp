#include "tools/qmverdicts/hash_formats.hpp"

#include <algorithm>
#include <array>
#include <optional>

#include "foundation/strings.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm::qmverdicts {

namespace {

constexpr std::string_view kNotAHash = "no SHA-256 and no SHA-1";
constexpr std::string_view kMD5 = "an MD5, which the store does not take";
constexpr std::string_view kNotASignature = "not HASH:SIZE:NAME";
constexpr std::string_view kBadSize = "a size that is neither a number nor \"*\"";
constexpr std::string_view kBadName =
    "a name that is empty, of more than 255 bytes, with control characters or not UTF-8";

constexpr std::size_t kMD5Digits = 32;

bool isDecimal(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isHexadecimal(std::string_view text) {
  return text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

// Takes what stands before the next colon, or the rest, off the text.
std::string_view nextField(std::string_view& text) {
  const std::size_t colon = std::min(text.find(':'), text.size());
  const std::string_view field = text.substr(0, colon);
  text.remove_prefix(std::min(colon + 1, text.size()));
  return field;
}

// "SHA256 (name) = hash", as sha256sum --tag writes it: what stands behind the last " = ".
std::string_view hashOfTaggedLine(std::string_view line) {
  const std::size_t sign = line.rfind(") = ");
  return sign == std::string_view::npos ? std::string_view() : trimmed(line.substr(sign + 4));
}

}  // namespace

std::string_view readHash(std::string_view text, VerdictKey& key) {
  if (const auto sha256 = sha256FromHex(text)) {
    key = *sha256;
    return {};
  }
  if (const auto sha1 = sha1FromHex(text)) {
    key = *sha1;
    return {};
  }
  return text.size() == kMD5Digits && isHexadecimal(text) ? kMD5 : kNotAHash;
}

std::string textFromKey(const VerdictKey& key) {
  if (const auto* sha256 = std::get_if<SHA256Value>(&key)) return hexadecimal(sha256->data(), sha256->size());
  if (const auto* sha1 = std::get_if<SHA1Value>(&key)) return hexadecimal(sha1->data(), sha1->size());
  return std::get<std::string>(key);
}

ImportedLine ClamAVFormat::parse(std::string_view line) {
  line = trimmed(line);
  isPacked_ = isPacked_ || line.starts_with("ClamAV-VDB:");
  if (isPacked_ || line.empty() || line.starts_with('#')) return {};
  const std::string_view hash = nextField(line), size = nextField(line), name = nextField(line);
  VerdictEntry entry({}, record_);
  if (const std::string_view reason = readHash(hash, entry.first); !reason.empty()) return {{}, reason};
  if (size.empty()) return {{}, kNotASignature};
  if (size != "*" && !isDecimal(size)) return {{}, kBadSize};
  if (name.empty() || !isRecordText(name)) return {{}, kBadName};
  StoredURLVerdict& record = entry.second;
  if (record.verdict.empty())
    record.verdict =
        name.starts_with("PUA.") ? SVKSkyvaultSafetyVerdictValuePU : SVKSkyvaultSafetyVerdictValueMalicious;
  const bool isBad = record.verdict != SVKSkyvaultSafetyVerdictValueKnownClean;
  if (isBad && !record.infectionName) record.infectionName = name;
  ImportedLine result;
  result.entries.push_back(std::move(entry));
  return result;
}

tools::Failure ClamAVFormat::failure() const {
  if (!isPacked_) return std::nullopt;
  return "a packed signature database: unpack it with \"sigtool --unpack\" and import the .hsb files in it";
}

ImportedLine HashListFormat::parse(std::string_view line) {
  line = trimmed(line);
  if (line.empty() || line.starts_with('#')) return {};
  std::string_view rest = line;
  if (rest.starts_with('\\')) rest.remove_prefix(1);  // the name behind it is escaped
  const std::string_view tagged = hashOfTaggedLine(line);
  const bool isTagged = line.starts_with("SHA256 (") || line.starts_with("SHA1 (");
  VerdictEntry entry({}, record_);
  if (const std::string_view reason = readHash(isTagged ? tagged : nextWord(rest), entry.first);
      !reason.empty())
    return {{}, reason};
  ImportedLine result;
  result.entries.push_back(std::move(entry));
  return result;
}

}  // namespace qm::qmverdicts
