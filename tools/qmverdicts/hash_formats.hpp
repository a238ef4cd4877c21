// Lists of file hashes: those of the ClamAV signature databases, and plain ones.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "companions/verdict_store.hpp"
#include "tools/qmverdicts/import_lines.hpp"

namespace qm::qmverdicts {

// The reason when the text is neither a SHA-256 nor a SHA-1; empty when the key was set.
std::string_view readHash(std::string_view text, VerdictKey& key);
// A hash as lower-case hexadecimal digits, a URL's key as it is.
std::string textFromKey(const VerdictKey& key);

// ClamAV's hash signatures (docs.clamav.net, "Signatures based on file hashes"), the format of .hsb, .hsu and
// .sfp files: HASH:SIZE:NAME, then up to two functionality levels, which are not looked at. The size is a
// number or "*"; the hash says as much, so it is checked and forgotten. MD5 is skipped. Lines that begin with
// "#" are comments.
class ClamAVFormat final : public ImportFormat {
 public:
  // The record that every hash gets, but for its name. A verdict that is empty stands for "malicious" and,
  // for names that begin with "PUA.", "pu". An infection name there takes the place of the list's.
  explicit ClamAVFormat(StoredURLVerdict record) : record_(std::move(record)) {}
  ImportedLine parse(std::string_view line) override;
  tools::Failure failure() const override;

 private:
  const StoredURLVerdict record_;
  bool isPacked_ = false;  // a database (.cvd, .cld) rather than a list
};

// One hash a line: alone, followed by spaces and a file name as sha256sum(1) and sha1sum(1) write it, also
// with --tag. Lines that begin with "#" are comments.
class HashListFormat final : public ImportFormat {
 public:
  // Every hash gets this record.
  explicit HashListFormat(StoredURLVerdict record) : record_(std::move(record)) {}
  ImportedLine parse(std::string_view line) override;

 private:
  const StoredURLVerdict record_;
};

}  // namespace qm::qmverdicts
