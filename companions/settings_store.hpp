// What the settings daemon serves: the settings file, which a person edits and which it changes itself on
// request, and what it keeps itself (the error state of Wisp) in a file of its own. Says when something has
// really changed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "companions/settings_document.hpp"
#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "platform/file_watcher.hpp"

namespace qm {

// The places of the installation, to be namespaced and opened below the system root.
inline constexpr std::string_view kSettingsProductPath = "/Library/Quillmarsh/qxmac/config/settings.toml";
inline constexpr std::string_view kSettingsStateProductPath =
    "/Library/Quillmarsh/qxmac/var/settings-state.toml";

// Any thread. What reads a setting never waits for a disk.
class SettingsStore {
 public:
  struct Change {
    bool settings = false;  // of the user or the system
    bool allowList = false;
  };
  // Called after the change can be read, with no lock held, on the thread that made or noticed it.
  using Observer = Block<void(const Change& change)>;

  // Paths of the file system. Reads both files.
  SettingsStore(std::string path, std::string statePath, Observer observer);
  ~SettingsStore();
  SettingsStore(const SettingsStore&) = delete;
  SettingsStore& operator=(const SettingsStore&) = delete;

  // From now on changes of the file by others are noticed. A file that is broken or cannot be read is
  // complained about in the log, once, and the settings stay as they were.
  void follow();

  // The settings in force, the error state of Wisp among those of the system. Null, with an error, when the
  // file was broken from the start: there is no last good state then.
  std::shared_ptr<const Settings> current(ErrorPtr* error = nullptr) const;

  // Why the file, as it is now, is not what is in force; null when it is.
  ErrorPtr fileProblem() const;

  // Change the file as it is at that moment; the change is on the disk and in force when they return.
  // Null or an error of the settings daemon: a file that is broken is left alone, and so is one that has just
  // become empty or gone (busy), until reload() has taken that for settled.
  [[nodiscard]] ErrorPtr change(SettingsTable table, const Dictionary& changes);
  [[nodiscard]] ErrorPtr setAllowList(const Array& allowList);

  // Keeps system settings that the daemon reports itself: in force at once and over what the file says; null
  // removes one. True when that changed something: then writeState is to be called, on a thread that may wait
  // for the disk.
  [[nodiscard]] bool keep(const Dictionary& changes);
  // Tells the observer about the state and writes it down; whatever has come together in the meantime goes in
  // one step. What cannot be written stands in the log and stays in force until the daemon ends.
  void writeState();

  // Reads the file again. Without `settled` one that is broken, empty or missing changes nothing yet: true,
  // it may be on its way.
  bool reload(bool settled);

 private:
  using Edit = std::function<std::optional<SettingsDocument>(const SettingsDocument& document, ErrorPtr*)>;

  ErrorPtr edit(const Edit& edit);
  // With fileMutex_ held: the file's document, as it is now.
  std::optional<SettingsDocument> read(std::optional<std::string>& content, ErrorPtr* error) const;
  // With fileMutex_ held.
  Change adopt(SettingsDocument document);
  void refuse(const ErrorPtr& error);
  void loadState();
  ErrorPtr replaceState() const;  // with stateFileMutex_ held
  Change put(Settings settings);  // with mutex_ held; the file's
  void tell(const Change& change) const;

  const std::string path_;
  const std::string statePath_;
  const Observer observer_;

  std::mutex fileMutex_;  // one reads or changes the file at a time; never taken with mutex_ held
  std::string complaint_;
  bool hasText_ = false;       // the file, when it was last taken or refused
  std::mutex stateFileMutex_;  // one replaces the file of the state at a time

  mutable std::mutex mutex_;
  std::optional<Settings> file_;             // what the file says
  Dictionary state_;                         // what the daemon keeps itself
  std::shared_ptr<const Settings> current_;  // both together
  ErrorPtr problem_;                         // why the file is not taken
  bool isStateTold_ = true;

  std::unique_ptr<FileWatcher> watcher_;  // last: it calls reload until it is gone
};

}  // namespace qm
