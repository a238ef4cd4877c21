#include "platform/main_bundle.hpp"

#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/linux/elf_section.hpp"
#include "platform/linux/system_root.hpp"
#include "platform/property_list.hpp"

namespace qm {
namespace {

Dictionary readInfoDictionary() {
  // The running program itself, also when its file was replaced since.
  const FileDescriptor program = openForReading("/proc/self/exe");
  if (!program) return {};
  const std::optional<Data> section = readElfSection(program.get(), kInfoPlistSection, kMaximumInfoPlistSize);
  if (!section) return {};
  std::optional<Value> plist = parsePropertyList(section->bytes(), section->length());
  if (!plist) return {};
  Dictionary* const dictionary = plist->as<Dictionary>();
  return dictionary == nullptr ? Dictionary() : std::move(*dictionary);
}

}  // namespace

MainBundle::MainBundle()
    : infoDictionary_(readInfoDictionary()),
      bundlePath_(stringByDeletingLastPathComponent(ownProgramPath())) {}

std::optional<std::string> MainBundle::pathForResource(std::string_view name) const {
  if (name.empty()) return std::nullopt;
  std::string path =
      stringByAppendingPathComponent(stringByAppendingPathComponent(bundlePath_, "Resources"), name);
  return fileExists(path.c_str()) ? std::optional<std::string>(std::move(path)) : std::nullopt;
}

}  // namespace qm
