#include "reputation/QMRFileReputationRequest.hpp"

#include <utility>

QMRFileReputationRequest::QMRFileReputationRequest(std::string path,
                                                   std::shared_ptr<qm::FileHandle> fileHandle,
                                                   std::shared_ptr<const QMRHashCacheEntry> hashes,
                                                   bool isAOTBinary, bool isDownloadedFile,
                                                   std::uint32_t fileAccessUserID, std::string teamID,
                                                   qm::Dictionary metadata) {
  setPath(std::move(path));
  setFileHandle(std::move(fileHandle));
  setHashes(std::move(hashes));
  setIsAOTBinary(isAOTBinary);
  setIsDownloadedFile(isDownloadedFile);
  setFileAccessUserID(fileAccessUserID);
  setTeamID(std::move(teamID));
  setMetadata(std::move(metadata));
}
