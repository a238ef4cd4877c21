#include "settings/QMRNamespace.hpp"

#include <utility>
#include <vector>

#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/main_bundle.hpp"

QMRNamespace::QMRNamespace(std::string namespaceName) : namespaceName_(std::move(namespaceName)) {}

qm::Log& QMRNamespace::log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "QMRNamespace");
  return log;
}

const QMRNamespace& QMRNamespace::globalNamespace() {
  static const QMRNamespace& global = *new QMRNamespace([] {
    const qm::MainBundle& bundle = qm::MainBundle::instance();
    return nameFromBundle(bundle.pathForResource("namespace"), bundle.bundlePath());
  }());
  return global;
}

std::string QMRNamespace::nameFromBundle(const std::optional<std::string>& resourcePath,
                                         const std::string& bundlePath) {
  std::optional<std::string> path = resourcePath;
  QM_LOG_INFO(log(), "namespace path from Resources: %{public}@", path);
  if (!path) {
    const std::string extension = qm::pathExtension(qm::lastPathComponent(bundlePath));
    const bool isInBundle = extension == "xpc" || extension == "app";
    const std::string folder = isInBundle ? qm::stringByDeletingLastPathComponent(bundlePath) : bundlePath;
    path = qm::stringByAppendingPathComponent(folder, "namespace");
    QM_LOG_INFO(log(), "namespace path from bundlePath: %{public}@", path);
  }

  QM_LOG_INFO(log(), "will search for namespace in %{public}@", path);
  qm::ErrorPtr error;
  const std::optional<std::string> text = qm::readTextFile(*path, &error);
  if (!text && error) QM_LOG_ERROR(log(), "there was an error opening the namespace at %{public}@", path);
  std::string name = text ? qm::trimWhitespaceAndNewlines(*text) : std::string();
  QM_LOG_INFO(log(), "resolved namespace: %{public}@", name);
  return name;
}

std::string QMRNamespace::namespacedWithId(std::string_view identifier) {
  std::string result = globalNamespace().identifierInNamespace(identifier);
  QM_LOG_DEBUG(log(), "namespaced id %{public}@ --> %{public}@", identifier, result);
  return result;
}

std::string QMRNamespace::namespacedWithPath(std::string_view path) {
  std::string result = globalNamespace().pathInNamespace(path);
  QM_LOG_DEBUG(log(), "namespaced path %{public}@ --> %{public}@", path, result);
  return result;
}

std::string QMRNamespace::identifierInNamespace(std::string_view identifier) const {
  return namespacedString(identifier, ".", ".");
}

std::string QMRNamespace::pathInNamespace(std::string_view path) const {
  return namespacedString(path, "/", "-");
}

std::string QMRNamespace::namespacedString(std::string_view string, std::string_view componentSeparator,
                                           std::string_view namespaceSeparator) const {
  if (namespaceName_.empty()) return std::string(string);
  // Where both separators are the same, an attached namespace shows as the next component.
  const bool namespaceIsComponent = componentSeparator == namespaceSeparator;
  const std::vector<std::string> components = qm::componentsSeparatedByString(string, componentSeparator);
  std::vector<std::string> result;
  result.reserve(components.size());
  for (std::size_t i = 0; i < components.size(); ++i) {
    const bool isAttached =
        namespaceIsComponent && i + 1 < components.size() && components[i + 1] == namespaceName_;
    const bool isMaker = qm::asciiLowercase(components[i]) == qmrIdentifier;
    result.push_back(isMaker && !isAttached ? namespacedComponent(components[i], namespaceSeparator)
                                            : components[i]);
  }
  return qm::componentsJoinedByString(result, componentSeparator);
}

std::string QMRNamespace::namespacedComponent(std::string_view component, std::string_view separator) const {
  std::string result(component);
  if (!namespaceName_.empty()) result.append(separator).append(namespaceName_);
  return result;
}
