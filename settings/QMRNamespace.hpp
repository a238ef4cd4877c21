// The namespace of this installation: with one, several installations stand side by side, and every fixed
// service name and file path of the product is rewritten to carry it. Everything that uses such a name passes
// it through here.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/log.hpp"

class QMRNamespace {
 public:
  // The component (compared without regard to case) that the namespace is attached to.
  static constexpr std::string_view qmrIdentifier = "quillmarsh";

  // An empty namespace leaves every string unchanged.
  explicit QMRNamespace(std::string namespaceName);

  static qm::Log& log();
  // The one of this process, read on first use from the file "namespace" of the main bundle. Never changes.
  // Any thread.
  static const QMRNamespace& globalNamespace();

  // In the global namespace: a service name or identifier ("com.quillmarsh.x" becomes
  // "com.quillmarsh.NAME.x"; doing it twice changes nothing more) and a file path ("/Library/Quillmarsh/x"
  // becomes "/Library/Quillmarsh-NAME/x"). The path is still a product path: it is opened through
  // qm::hostPath.
  static std::string namespacedWithId(std::string_view identifier);
  static std::string namespacedWithPath(std::string_view path);

  // The name in the bundle's "namespace" file, without white space around it: the resource if there is one,
  // else the file beside the program (beside the bundle when the program is inside one that ends in ".app" or
  // ".xpc"). Empty when the file cannot be read. Both paths are those of the file system.
  static std::string nameFromBundle(const std::optional<std::string>& resourcePath,
                                    const std::string& bundlePath);

  const std::string& namespaceName() const { return namespaceName_; }

  // The same two rewritings in this namespace.
  std::string identifierInNamespace(std::string_view identifier) const;
  std::string pathInNamespace(std::string_view path) const;
  // The component with the separator and the namespace behind it.
  std::string namespacedComponent(std::string_view component, std::string_view separator) const;

 private:
  std::string namespacedString(std::string_view string, std::string_view componentSeparator,
                               std::string_view namespaceSeparator) const;

  const std::string namespaceName_;
};
