// Where the files of the customization lie: product paths, before the namespace.
#pragma once

#include <string>
#include <utility>

#include "foundation/property.hpp"

class QMRCustomizationConfiguration {
 public:
  std::string parametersFilePath() const { return parametersFilePath_.get(); }
  void setParametersFilePath(std::string path) { parametersFilePath_.set(std::move(path)); }

  std::string browsingProtectionCustomizationFilePath() const {
    return browsingProtectionCustomizationFilePath_.get();
  }
  void setBrowsingProtectionCustomizationFilePath(std::string path) {
    browsingProtectionCustomizationFilePath_.set(std::move(path));
  }

 private:
  qm::Property<std::string> parametersFilePath_{"/Library/Quillmarsh/qxmac/config/parameters"};
  qm::Property<std::string> browsingProtectionCustomizationFilePath_{
      "/Library/Quillmarsh/qxmac/gui/product.json"};
};
