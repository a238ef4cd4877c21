// The question for the reputation of one file, as it goes from the request protocol through the provider to a
// backend. Shared by all who work on it: its properties are atomic, it has no lock beyond that.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/property.hpp"
#include "foundation/value.hpp"
#include "platform/file_handle.hpp"

class QMRHashCacheEntry;

class QMRFileReputationRequest {
 public:
  QMRFileReputationRequest(std::string path, std::shared_ptr<qm::FileHandle> fileHandle,
                           std::shared_ptr<const QMRHashCacheEntry> hashes, bool isAOTBinary,
                           bool isDownloadedFile, std::uint32_t fileAccessUserID, std::string teamID,
                           qm::Dictionary metadata);

  // As the client gave it.
  std::string path() const { return path_.get(); }
  void setPath(std::string path) { path_.set(std::move(path)); }

  // On the client's descriptor; may be null. Whoever needs the file open keeps the handle.
  std::shared_ptr<qm::FileHandle> fileHandle() const { return fileHandle_.get(); }
  void setFileHandle(std::shared_ptr<qm::FileHandle> handle) { fileHandle_.set(std::move(handle)); }

  // May be null; the provider then asks its hash provider, if it has one.
  std::shared_ptr<const QMRHashCacheEntry> hashes() const { return hashes_.get(); }
  void setHashes(std::shared_ptr<const QMRHashCacheEntry> hashes) { hashes_.set(std::move(hashes)); }

  // An ahead-of-time translated executable.
  bool isAOTBinary() const { return isAOTBinary_.get(); }
  void setIsAOTBinary(bool isAOTBinary) { isAOTBinary_.set(isAOTBinary); }

  bool isDownloadedFile() const { return isDownloadedFile_.get(); }
  void setIsDownloadedFile(bool isDownloadedFile) { isDownloadedFile_.set(isDownloadedFile); }

  // The user on whose behalf the file is accessed.
  std::uint32_t fileAccessUserID() const { return fileAccessUserID_.get(); }
  void setFileAccessUserID(std::uint32_t userID) { fileAccessUserID_.set(userID); }

  // The code-signing team identifier of the file; empty when not known.
  std::string teamID() const { return teamID_.get(); }
  void setTeamID(std::string teamID) { teamID_.set(std::move(teamID)); }

  // What is sent to the backend; the provider replaces it with the enriched dictionary.
  qm::Dictionary metadata() const { return metadata_.get(); }
  void setMetadata(qm::Dictionary metadata) { metadata_.set(std::move(metadata)); }

 private:
  qm::Property<std::string> path_;
  qm::Property<std::shared_ptr<qm::FileHandle>> fileHandle_;
  qm::Property<std::shared_ptr<const QMRHashCacheEntry>> hashes_;
  qm::Property<bool> isAOTBinary_;
  qm::Property<bool> isDownloadedFile_;
  qm::Property<std::uint32_t> fileAccessUserID_;
  qm::Property<std::string> teamID_;
  qm::Property<qm::Dictionary> metadata_;
};
