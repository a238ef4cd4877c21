#include "filefacts/QMRHashProvider.hpp"

#include "platform/file_io.hpp"
#include "platform/linux/worker_pool.hpp"
#include "platform/queue.hpp"
#include "support/testing.hpp"

namespace {

using HashProvider = RecordedTest;

std::string description(const char* sha1, const char* sha256) {
  return std::string("<QMRHashCacheEntry: sha1: ") + sha1 + " sha256: " + sha256 + ">";
}

const std::string kOfNothing =
    description("da39a3ee5e6b4b0d3255bfef95601890afd80709",
                "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");

TEST_F(HashProvider, HashesShortFiles) {
  const std::pair<std::string, std::string> cases[] = {
      {"", kOfNothing},
      {"The quick brown fox jumps over the lazy dog",
       description("2fd4e1c67a2d28fced849ee1bb76e7391b93eb12",
                   "d7a8fbb307d7809469ca9abcb0082e4f8d5651e46d3cdb762d02d0bf37c9e592")},
  };
  for (const auto& [content, expected] : cases) {
    const auto entry = QMRHashProvider::generateHashesForPath(folder.write("f", content));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->description(), expected);
    EXPECT_EQ(entry->magicBytes(), Data(content.data(), std::min<std::size_t>(content.size(), 16)));
  }
}

TEST_F(HashProvider, ALargeFileIsReadSixteenMebibytesAtATime) {
  std::string content(40 * 1024 * 1024, '\0');
  for (std::size_t i = 0; i < content.size(); i += 997) content[i] = static_cast<char>(i / 997);
  content.replace(0, 16, "first 16 bytes..");
  const FileDescriptor file = openForReading(folder.write("f", content).c_str());
  ASSERT_EQ(::lseek(file.get(), 7, SEEK_SET), 7);

  const auto entry = QMRHashProvider::generateHashesForFiledescriptor(file.get(), content.size());
  ASSERT_NE(entry, nullptr);
  const auto expected = QMRHashProvider::generateHashesForBuffer(content.data(), content.size());
  EXPECT_EQ(entry->sha1(), expected->sha1());
  EXPECT_EQ(entry->sha256(), expected->sha256());
  EXPECT_EQ(entry->magicBytes(), Data("first 16 bytes..", 16));
  EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 7);
  EXPECT_EQ(recorder.count(LogLevel::debug, "Read and hashed 16777216 bytes"), 2U);
  EXPECT_EQ(recorder.count(LogLevel::debug, "Read and hashed 8388608 bytes"), 1U);
}

TEST_F(HashProvider, DigestsAreTheSameHoweverManyProcessorsThereAreForAFile) {
  const std::string content = std::string(3 * 1024 * 1024, 'a') + std::string(1024 * 1024 + 7, 'b');
  const std::string path = folder.write("f", content);
  const auto expected =
      QMRHashProvider::generateHashesForBuffer(content.data(), content.size())->description();
  const auto hash = [&] { EXPECT_EQ(QMRHashProvider::generateHashesForPath(path)->description(), expected); };
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 6; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round <= thread; ++round) hash();
    });
  }
  threads.clear();
  const auto workers = static_cast<std::ptrdiff_t>(qm::WorkerPool::shared().boundedLimit());
  std::latch running(workers);
  std::latch end(1);
  std::latch done(workers);
  for (std::ptrdiff_t worker = 0; worker < workers; ++worker) {
    qm::Queue::global().async([&] {
      running.count_down();
      end.wait();
      done.count_down();
    });
  }
  running.wait();
  hash();
  end.count_down();
  done.wait();
}

TEST_F(HashProvider, TheLimitOfTheSizeIsExact) {
  const std::string path = folder.write("f", "");
  std::filesystem::resize_file(path, 536'870'913);
  EXPECT_EQ(QMRHashProvider::generateHashesForPath(path), nullptr);
  EXPECT_TRUE(recorder.has(LogLevel::error, "Error: file too big (536870913 bytes) for hashing"));
  EXPECT_FALSE(recorder.hasContaining(LogLevel::debug, "Read and hashed"));
  std::filesystem::resize_file(path, 536'870'912);
  EXPECT_NE(QMRHashProvider::generateHashesForPath(path), nullptr);
}

TEST_F(HashProvider, WhatIsNotAsAnnouncedOrCannotBeReadIsAnError) {
  const FileDescriptor file = openForReading(folder.write("f", "0123456789").c_str());
  const FileDescriptor endless = openForReading("/dev/zero");
  const FileDescriptor directory = openForReading(folder.path().c_str());
  const struct {
    int descriptor;
    std::uint64_t size;
    int code;
    Dictionary userInfo;
    std::string line;
  } cases[] = {
      {endless.get(), 536'870'912, 101, {}, "Read byte count "},
      {file.get(), 9, 101, {}, "Read byte count 10 does not match expected size 9, file may have been trunc"},
      {file.get(), 536'870'912, 101, {}, "Read byte count 10 does not match expected size 536870912, "},
      {directory.get(), 10, 100, {{"errno", EISDIR}}, "Error reading from file descriptor (errno=21): Is a "},
      {-1, 10, 100, {{"errno", EBADF}}, "Error reading from file descriptor (errno=9): Bad file descriptor"},
      {-1, UINT64_MAX, 104, {}, "Error: file too big (18446744073709551615 bytes) for hashing"},
  };
  for (const auto& [descriptor, size, code, userInfo, line] : cases) {
    ErrorPtr error;
    EXPECT_EQ(QMRHashProvider::generateHashesForFiledescriptor(descriptor, size, &error), nullptr);
    ASSERT_NE(error, nullptr) << line;
    EXPECT_EQ(*error, Error("com.quillmarsh.qmrhashprovider", code, userInfo));
    EXPECT_TRUE(recorder.hasError(line)) << line;
  }
  // Announced as empty it is not read.
  const auto entry = QMRHashProvider::generateHashesForFiledescriptor(file.get(), 0);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->description(), kOfNothing);
}

TEST_F(HashProvider, RemembersByPathUntilItIsTold) {
  const std::string path = folder.write("f", "before");
  QMRHashProvider provider;
  const auto first = provider.hashesForPath(path);
  folder.write("f", "after");
  EXPECT_EQ(provider.hashesForPath(path), first);
  provider.invalidateHashesForPath(path);
  EXPECT_EQ(provider.hashesForPath(path)->magicBytes(), Data("after", 5));
  // Failures are not remembered.
  ErrorPtr error;
  EXPECT_EQ(provider.hashesForPath(folder.path("g"), &error), nullptr);
  EXPECT_EQ(error->code(), 102);
  folder.write("g", "now");
  EXPECT_NE(provider.hashesForPath(folder.path("g")), nullptr);
}

TEST_F(HashProvider, RemembersTheLast1024Paths) {
  QMRHashProvider provider;
  const auto hash = [&](int number) {
    return provider.hashesForPath(folder.path("f" + std::to_string(number)));
  };
  for (int number = 0; number <= 1024; ++number) folder.write("f" + std::to_string(number), "");
  const auto oldest = hash(0);
  const auto second = hash(1);
  for (int number = 2; number < 1024; ++number) hash(number);
  EXPECT_EQ(hash(0), oldest);
  hash(1024);
  EXPECT_EQ(hash(1), second);
  EXPECT_NE(hash(0), oldest) << "stored first, it goes first, however lately it was asked for";
  EXPECT_NE(hash(1), second);
}

}  // namespace
