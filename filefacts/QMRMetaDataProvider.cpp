#include "filefacts/QMRMetaDataProvider.hpp"

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/log.hpp"
#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/property_list.hpp"

namespace {

// Made when the program is loaded.
qm::Log& metaDataLog = qm::Log::create(qm::kQMRLogSubsystem, "QMRMetaDataProvider");

// The file that is asked about: by its path, or without one by descriptor.
struct Subject {
  const char* path;
  int descriptor;

  bool status(qm::FileStatus& status) const {
    return path != nullptr ? qm::statPath(path, status) : qm::statDescriptor(descriptor, status);
  }
  std::int64_t list(char* names, std::size_t size) const {
    return path != nullptr ? qm::listExtendedAttributes(path, names, size)
                           : qm::listExtendedAttributes(descriptor, names, size);
  }
  std::int64_t get(const char* name, void* value, std::size_t size) const {
    return path != nullptr ? qm::getExtendedAttribute(path, name, value, size)
                           : qm::getExtendedAttribute(descriptor, name, value, size);
  }
};

// The names of the attributes, each with its NUL. Empty when there are none or they cannot be listed.
std::string attributeNames(const Subject& subject) {
  const std::int64_t size = subject.list(nullptr, 0);
  if (size < 0) {
    const int errnoValue = errno;
    QM_LOG_ERROR(metaDataLog, "Error listing extended attributes, errno=%d", errnoValue);
    QM_LOG_ERROR(metaDataLog, "Error listing extended attributes for %s, errno=%d", subject.path, errnoValue);
    return {};
  }
  if (size == 0) return {};
  std::string names(static_cast<std::size_t>(size), '\0');
  if (subject.list(names.data(), names.size()) != size) {
    QM_LOG_ERROR(metaDataLog, "error: attribute list size changed between calls");
    return {};
  }
  return names;
}

// Nothing for an attribute that is empty or cannot be read.
std::optional<std::string> attributeValue(const Subject& subject, const char* name) {
  const std::int64_t size = subject.get(name, nullptr, 0);
  if (size < 1) return std::nullopt;
  QM_LOG_DEBUG(metaDataLog, "Fetching xattr %s of size %zd", name, size);
  std::string value(static_cast<std::size_t>(size), '\0');
  if (subject.get(name, value.data(), value.size()) != size) {
    QM_LOG_ERROR(metaDataLog, "error: attribute %s size changed between calls", name);
    return std::nullopt;
  }
  return value;
}

bool isBinaryPropertyList(std::string_view value) {
  constexpr std::string_view kMark = "bplist";
  return value.size() > kMark.size() && value.starts_with(kMark);
}

qm::Value renderPropertyList(qm::Value object) {
  if (const auto* array = object.as<qm::Array>()) {
    std::vector<std::string> members;
    for (const qm::Value& member : *array) members.push_back(member.description());
    return qm::componentsJoinedByString(members, ";");
  }
  if (const auto* dictionary = object.as<qm::Dictionary>()) {
    std::string text = qm::description(*dictionary);
    std::erase(text, '\n');
    std::erase(text, ' ');
    return text;
  }
  return object;
}

std::optional<qm::Value> decodePropertyList(std::string_view value) {
  qm::ErrorPtr error;
  std::optional<qm::Value> object = qm::parsePropertyList(value.data(), value.size(), &error);
  if (!object) {
    QM_LOG_ERROR(metaDataLog, "Error parsing binary plist: %{public}@", error);
    return std::nullopt;
  }
  return renderPropertyList(std::move(*object));
}

std::optional<qm::Value> decodeText(std::string_view value, const char* name) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  std::string_view text = value.substr(0, value.find('\0'));
  if (!qm::isValidUTF8(text)) {
    QM_LOG_ERROR(metaDataLog, "Failed to decode data in xattr %s, ignoring", name);
    return std::nullopt;
  }
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  return text;
}

std::optional<qm::Value> renderedValue(const Subject& subject, const char* name) {
  const std::optional<std::string> value = attributeValue(subject, name);
  if (!value) return std::nullopt;
  return isBinaryPropertyList(*value) ? decodePropertyList(*value) : decodeText(*value, name);
}

}  // namespace

qm::Dictionary QMRMetaDataProvider::fileInfoForPath(const char* path) {
  return fileInfoForPath(path, 0);
}

qm::Dictionary QMRMetaDataProvider::fileInfoForFiledescriptor(int descriptor) {
  return fileInfoForPath(nullptr, descriptor);
}

qm::Dictionary QMRMetaDataProvider::fileInfoForPath(const char* path, int descriptor) {
  QM_LOG_DEBUG(metaDataLog, "Getting file metadata for [path %s | fd %d]", path, descriptor);
  qm::Dictionary info;
  qm::FileStatus status;
  if (Subject{path, descriptor}.status(status)) {
    info["created"] = status.created;
    info["accessed"] = status.accessed;
    info["modified"] = status.modified;
  } else {
    const int errnoValue = errno;
    QM_LOG_ERROR(metaDataLog,
                 "failed to stat() %s: errno=%d file_info will not be populated with stat information", path,
                 errnoValue);
  }
  qm::Array attributes = extendedAttributesForPath(path, descriptor);
  if (!attributes.empty()) info["attributes"] = std::move(attributes);
  return info;
}

qm::Array QMRMetaDataProvider::extendedAttributesForPath(const char* path, int descriptor) {
  const Subject subject{path, descriptor};
  const std::string names = attributeNames(subject);
  if (names.empty()) return {};
  qm::Array attributes;
  for (std::size_t start = 0; start < names.size();) {
    // The string has a NUL behind its end as well.
    const char* const rawName = names.c_str() + start;
    start += std::string_view(rawName).size() + 1;
    std::optional<qm::Value> value = renderedValue(subject, rawName);
    if (!value) continue;
    const std::string name = qm::lossyUTF8(rawName);
    QM_LOG_DEBUG(metaDataLog, "[file %s | fd %d] xattr %@ value %@", path, descriptor, name, *value);
    attributes.push_back(qm::Dictionary{{"attribute", name}, {"value", std::move(*value)}});
  }
  QM_LOG_DEBUG(metaDataLog, "Returning extended attributes %@", attributes);
  return attributes;
}
