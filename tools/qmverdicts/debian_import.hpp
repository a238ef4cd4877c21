// An import of the files of installed Debian packages.
#pragma once

#include "companions/verdict_store.hpp"
#include "tools/failure.hpp"
#include "tools/qmverdicts/debian_packages.hpp"
#include "tools/qmverdicts/import_ledger.hpp"

namespace qm::qmverdicts {

// Gives every file that still has the MD5 dpkg recorded the verdict of the record, under its SHA-256 and its
// SHA-1, which are taken in the same reading.
tools::Failure importDebianFiles(const DebianPackages& packages, const StoredURLVerdict& record,
                                 ImportLedger& ledger);

}  // namespace qm::qmverdicts
