#include "platform/file_io.hpp"

#include <poll.h>

#include "platform/common/disposal_lanes.hpp"
#include "platform/common/file_time.hpp"
#include "platform/disposal.hpp"
#include "platform/file_handle.hpp"
#include "platform/queue.hpp"
#include "platform/regular_file.hpp"
#include "platform/xpc.hpp"
#include "support/child_process.hpp"
#include "support/lingering_socket.hpp"

namespace {

TEST(FileStatus, OfADescriptorThatIsNoneIsAnError) {
  FileStatus status;
  // The one that means the working folder to the system among them.
  for (const int bad : {-1, AT_FDCWD, 1'000'000}) {
    EXPECT_FALSE(statDescriptor(bad, status));
    EXPECT_EQ(errno, EBADF);
  }
}

TEST(FileStatus, KeepsTheTimesOfStrangeFileSystemsInRange) {
  using Limits = std::numeric_limits<std::int64_t>;
  const struct {
    std::int64_t seconds, nanoseconds, expected;
  } cases[] = {{-1, 999'999'999, -1},
               {9'223'372'035, 999'999'999, 9'223'372'035'999'999'999},
               {9'223'372'037, 0, Limits::max()},
               {Limits::max(), 999'999'999, Limits::max()},
               {-9'223'372'036, 0, -9'223'372'036'000'000'000},
               {-9'223'372'037, 0, Limits::min()},
               {Limits::min(), 0, Limits::min()}};
  for (const auto& c : cases) EXPECT_EQ(asNanoseconds(c.seconds, c.nanoseconds), c.expected) << c.seconds;
}

TEST(OpenForReading, DoesNotWaitForTheWriterOfAFIFO) {
  const ScratchFolder folder;
  ASSERT_EQ(::mkfifo(folder.path("fifo").c_str(), 0600), 0);
  const FileDescriptor fifo = openForReading(folder.path("fifo").c_str());
  ASSERT_TRUE(fifo);
  char byte = 0;
  EXPECT_EQ(readAt(fifo.get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, ESPIPE);
}

TEST(OpenRegularFile, DoesNotWaitForTheHolderOfALease) {
  const ScratchFolder folder;
  const std::string path = folder.write("leased", "x");
  ::signal(SIGIO, SIG_IGN);  // what the holder is told with
  {
    const FileDescriptor holder(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::fcntl(holder.get(), F_SETLEASE, F_WRLCK), 0);
    EXPECT_EQ(openRegularFile(path, SymbolicLinks::follow).errorNumber, EWOULDBLOCK);
  }
  EXPECT_TRUE(openRegularFile(path, SymbolicLinks::follow).descriptor);
}

TEST(ReadRegularFile, TakesWhatThereIsAndNoMoreThanIsAllowed) {
  const ScratchFolder folder;
  const std::string text = folder.write("text", std::string(10'000, 'x'));
  constexpr std::size_t kAnyMemory = std::size_t{1} << 50;
  EXPECT_EQ(readRegularFile(text, kAnyMemory), contentOf(text)) << "memory for the file, not for the bound";
  EXPECT_EQ(readRegularFile(text, 10'000), contentOf(text));
  EXPECT_EQ(readRegularFile(text, 9'999), std::nullopt);
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(readRegularFile(folder.write("empty", ""), 0), "");
  // Files of the kernel's say a size of 0.
  EXPECT_EQ(readRegularFile("/proc/self/status", 3), std::nullopt);
  EXPECT_EQ(errno, EFBIG);
  EXPECT_GT(readRegularFile("/proc/self/smaps", kAnyMemory).value_or("").size(), 8192u);
}

TEST(ReadTextFile, ContentAndErrors) {
  const ScratchFolder folder;
  const std::string large(100'000, 'x');
  EXPECT_EQ(readTextFile(folder.write("bom", "\xef\xbb\xbf" + large)), large);
  const std::pair<std::string, std::int64_t> failures[] = {
      {folder.path("missing"), 260},
      {folder.path(std::string(300, 'n')), 258},
      {folder.path(), 256},
      {folder.write("latin1", "caf\xe9"), 261},
      {"/dev/zero", 263},
  };
  for (const auto& [path, code] : failures) {
    SCOPED_TRACE(path);
    ErrorPtr error;
    EXPECT_EQ(readTextFile(path, &error), std::nullopt);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), code);
  }
}

std::string processPathText(std::int32_t pid) {
  std::array<char, 4096> buffer{};
  errno = 0;
  const int length = processPath(pid, buffer.data(), buffer.size());
  return length > 0 ? std::string(buffer.data(), static_cast<std::size_t>(length)) : std::string();
}

TEST(ProcessPath, TellsWhatRunsFromWhatWasDeletedAndWhatEnded) {
  const ScratchFolder folder;
  const std::string odd = folder.path("cat (deleted)");
  const std::string plain = folder.path("cat");
  std::filesystem::copy_file("/bin/cat", odd);
  std::filesystem::copy_file("/bin/cat", plain);
  ChildProcess oddlyNamed({odd});
  ChildProcess deleted({plain});
  std::filesystem::remove(plain);
  EXPECT_EQ(processPathText(oddlyNamed.pid()), odd);
  // The system now reports the very name of the other file for it.
  EXPECT_EQ(processPathText(deleted.pid()), "");
  EXPECT_EQ(errno, ENOENT);
  oddlyNamed.closeInput();
  oddlyNamed.waitUntilEnded();
  for (const std::int32_t missing : {oddlyNamed.pid(), 0, -1, 2'147'483'647}) {
    EXPECT_EQ(processPathText(missing), "");
    EXPECT_EQ(errno, ESRCH);
  }
}

TEST(FileHandle, OwnsItsDescriptorWhenToldAndReadsFromWhereItWasSought) {
  const ScratchFolder folder;
  FileDescriptor file = openForReading(folder.write("f", "0123456789").c_str());
  FileStatus status;
  { const FileHandle borrowed(file.get(), false); }
  ASSERT_TRUE(statDescriptor(file.get(), status));
  const int number = file.get();
  {
    FileHandle owner(file.release(), true);
    EXPECT_TRUE(owner.seekToOffset(8));
    EXPECT_EQ(owner.readDataUpToLength(SIZE_MAX), Data("89", 2));
    EXPECT_TRUE(owner.seekToOffset(1'000'000));
    EXPECT_EQ(owner.readDataUpToLength(4), Data());
  }
  EXPECT_TRUE(eventually([&] { return !statDescriptor(number, status); }));
}

TEST(Disposal, KeepsNobodyWaitingForADescriptorThatCannotBeClosed) {
  std::array<LingeringSocket, 2> lingering;
  { const FileHandle last(lingering[0].socket.release(), true); }
  XPCDictionary message = XPCDictionary::create();
  message.setValue("file", XPCObject::fileDescriptor(std::move(lingering[1].socket)));
  message = {};
  Pipe pipe;
  closeElsewhere(std::move(pipe.writeEnd));
  EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
}

TEST(Disposal, KeepsNobodyWaitingForMoreDescriptorsThatCannotBeClosed) {
  setDisposalPatience(std::chrono::milliseconds(1));
  std::array<LingeringSocket, kDisposalLanes + 6> lingering;
  LingeringSocket last;
  for (LingeringSocket& each : lingering) closeElsewhere(std::move(each.socket));
  for (int i = 0; i < 2000; ++i) releaseElsewhere(XPCObject::boolean(true));
  closeElsewhere(std::move(last.socket));
  Pipe pipe;
  closeElsewhere(std::move(pipe.writeEnd));
  EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
}

constexpr std::uint32_t kUser = 501;

// Before it is known that they hang, too, and in whichever way they are let go of.
TEST(Disposal, OneUsersDescriptorsThatCannotBeClosedNeverTakeAllLanes) {
  setDisposalPatience(std::chrono::hours(1));
  const std::function<void(FileDescriptor)> ways[] = {
      [](FileDescriptor last) { closeElsewhere(std::move(last), kUser); },
      [](FileDescriptor last) { const FileHandle handle(last.release(), true, kUser); },
      [](FileDescriptor last) { XPCObject::fileDescriptor(std::move(last), kUser); },
      [](FileDescriptor last) { XPCObject::fileDescriptor(std::move(last)).setDescriptorUser(kUser); },
  };
  std::deque<LingeringSocket> lingering;
  for (const auto& letGo : ways) {
    for (std::size_t i = 0; i < kDisposalLanes; ++i) letGo(std::move(lingering.emplace_back().socket));
    Pipe pipe;
    closeElsewhere(std::move(pipe.writeEnd), 502);
    EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
  }
}

TEST(Disposal, OneUsersDescriptorsThatHangLeaveLanesToTheOthersUntilTheyAreClosed) {
  setDisposalPatience(std::chrono::milliseconds(1));
  LogRecorder log;
  Pipe ofTheSameUser;
  const auto isClosed = [&] {
    pollfd entry{.fd = ofTheSameUser.readEnd.get(), .events = POLLIN, .revents = 0};
    return ::poll(&entry, 1, 0) == 1;
  };
  {
    std::array<LingeringSocket, kMaximumDisposalLanes + 1> lingering;
    for (LingeringSocket& each : lingering) closeElsewhere(std::move(each.socket), kUser);
    closeElsewhere(std::move(ofTheSameUser.writeEnd), kUser);
    for (const std::optional<std::uint32_t> other : {std::optional<std::uint32_t>(502), {}}) {
      Pipe pipe;
      closeElsewhere(std::move(pipe.writeEnd), other);
      EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
    }
    EXPECT_TRUE(eventually([&] { return log.hasError("Closing files of user 501 hangs 16 times"); }));
    EXPECT_FALSE(isClosed());
    EXPECT_FALSE(hasTooManyClosings(kUser));
    for (std::size_t i = 0; i < kMaximumClosingsBehind; ++i) runOnDisposalLane([] {}, kUser);
    EXPECT_TRUE(hasTooManyClosings(kUser));
    EXPECT_FALSE(hasTooManyClosings(502));
  }
  EXPECT_TRUE(eventually(isClosed));
  EXPECT_TRUE(eventually([] { return !hasTooManyClosings(kUser); }));
  EXPECT_TRUE(log.hasError("16384 files of user 501 wait to be closed"));
}

// A fork has no threads to close anything. Its parent has, but has closed nothing before.
TEST(DisposalDeathTest, ClosesAtOnceInAForkedChild) {
  const auto started = std::make_shared<Inbox<bool>>();
  Queue::global().async([started] { started->put(true); });
  EXPECT_TRUE(started->take());
  GTEST_FLAG_SET(death_test_style, "fast");
  const auto closeInChild = [] {
    Pipe pipe;
    { const FileHandle handle(pipe.writeEnd.release(), true); }
    return pipe.isWriteEndClosedEverywhere() ? 0 : 1;
  };
  EXPECT_EXIT(::_exit(closeInChild()), testing::ExitedWithCode(0), "");
}

TEST(FileHandle, FailsOnFoldersAndClosedDescriptors) {
  const FileDescriptor folder = openForReading("/");
  ErrorPtr error;
  EXPECT_EQ(FileHandle(folder.get(), false).readDataUpToLength(1, &error), std::nullopt);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 256);
  EXPECT_THROW(FileHandle(-1, false).readDataUpToLength(1), FileHandleOperationException);
}

}  // namespace
