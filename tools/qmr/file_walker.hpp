// Finds the files a command line names: the paths themselves and, when asked, everything below directories.
#pragma once

#include <string>

#include "client/reputation_answer.hpp"
#include "foundation/block.hpp"
#include "platform/regular_file.hpp"

namespace qm::qmr {

struct WalkOptions {
  bool recursive = false;
  bool oneFileSystem = false;  // does not enter directories on other file systems than the one named
};

struct WalkVisitor {
  // A file to ask about. It may be of any kind, or missing: who opens it finds out.
  Block<void(const std::string& path, SymbolicLinks links)> file;
  // Something below or at a named path that cannot be looked at.
  Block<void(const std::string& path, ReputationFailure failure, const std::string& text)> failed;
  Block<void()> linkSkipped;
  Block<bool()> shouldStop;
};

class FileWalker {
 public:
  FileWalker(WalkOptions options, WalkVisitor visitor) : options_(options), visitor_(std::move(visitor)) {}

  // A symbolic link is followed here, and nowhere below. The content of a directory is visited in the order
  // of its names, one directory being read at a time.
  void walk(const std::string& path) const;

 private:
  void walkDirectory(const std::string& directory) const;

  const WalkOptions options_;
  const WalkVisitor visitor_;
};

}  // namespace qm::qmr
