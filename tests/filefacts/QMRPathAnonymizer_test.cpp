#include "filefacts/QMRPathAnonymizer.hpp"

#include "support/testing.hpp"

namespace {

const std::pair<const char*, const char*> kCases[] = {
    // Home folders.
    {"/Users/bob/Downloads/tools/setup.exe", "%PROFILE%/Downloads/<dir1>/setup.exe"},
    {"/Users/bob/Documents/Report.DOCX", "%PROFILE%/Documents/<file_name>.docx"},
    {"/System/Volumes/Data/Users/bob/a/b.txt", "%PROFILE%/<dir1>/<file_name>.txt"},
    {"/system/volumes/data/users/bob/b.txt", "<dir1>/<dir2>/<dir3>/<dir4>/<dir5>/<dir6>/<file_name>.txt"},
    {"/Users/bob", "%PROFILE%"},
    {"/users/Bob/x.exe", "%PROFILE%/x.exe"},
    {"/Users/bob/Library/Application Support/Tool/a.dat",
     "%PROFILE%/Library/Application Support/<dir1>/<file_name>.dat"},
    {"/Users/bob/Library/Caches/x/y.so", "%PROFILE%/Library/<dir1>/<dir2>/y.so"},
    // Programs outside the watched areas keep everything, others nothing but their extension.
    {"/Applications/App.app/Contents/MacOS/App", "/Applications/App.app/Contents/MacOS/App"},
    {"/tmp/x/y/data.bin", "/tmp/<dir1>/<dir2>/<file_name>.bin"},
    {"/opt/data/notes.txt", "<dir1>/<dir2>/<dir3>/<file_name>.txt"},
    {"/opt/Run.SH", "/opt/Run.sh"},
    // Watched areas.
    {"/Volumes/Backup/tools/setup.exe", "/Volumes/<dir1>/<dir2>/setup.exe"},
    {"/Volumes/Recovery/a/f.txt", "/Volumes/Recovery<dir1>/<dir2>/<file_name>.txt"},
    {"/private/var/folders/zz/abc/T/a.dylib", "/private/var/folders/<dir1>/<dir2>/<dir3>/a.dylib"},
    {"/Library/LaunchDaemons/com.example.plist", "/Library/LaunchDaemons/<file_name>.plist"},
    // The product's own folder and the system's.
    {"/Library/Quillmarsh/qxmac/bin/tool.py", "/Library/Quillmarsh/qxmac/bin/tool.py"},
    {"/Library/Quillmarsh/qxmac/notes.txt", "/Library/<dir1>/<dir2>/<file_name>.txt"},
    {"/System/Library/CoreServices/Notes.TXT", "/System/Library/CoreServices/Notes.txt"},
    {"/System/Applications/Mail.app/data.bin", "/System/Applications/Mail.app/data.bin"},
    {"", ""},
};

TEST(PathAnonymizer, KeepsWhatSaysNothingAboutTheUser) {
  std::vector<std::string> paths;
  std::vector<std::string> all;
  for (const auto& [path, expected] : kCases) {
    EXPECT_EQ(QMRPathAnonymizer::anonymize(path), expected) << path;
    paths.emplace_back(path);
    all.emplace_back(expected);
  }
  EXPECT_EQ(QMRPathAnonymizer::anonymizeAll(paths), all);
}

}  // namespace
