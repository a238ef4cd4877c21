// Turns paths into a form that may leave the machine: no user names, no names of folders and documents of the
// user. Used by the reputation lookup. Any thread.
#pragma once

#include <string>
#include <vector>

class QMRPathAnonymizer {
 public:
  QMRPathAnonymizer() = delete;

  // A home folder becomes "%PROFILE%", folders "<dir1>/", "<dir2>/" and so on, the name of a file that is not
  // of a program-like type "<file_name>." with its extension, which always comes out in lower case. The path
  // may be a whole one, a folder alone or a name alone.
  static std::string anonymize(const std::string& path);
  // Each of them, in the same order.
  static std::vector<std::string> anonymizeAll(const std::vector<std::string>& paths);
};
