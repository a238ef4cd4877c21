// How long whoever waits for a file's hashes waits, as a ratio to the least that one thread needs: both
// digests of libcrypto over a buffer that is already in memory. File and reference take turns in one run,
// because other work on the machine moves both alike, and the counters are medians of reference over file:
// "of_reference" in elapsed time, "of_reference_work" in processor time of the whole process, the system's
// part included. In one thread 1 would be a file that is read for nothing. Files over 1 MiB have the SHA-1
// computed on a second processor while nobody else wants one: the first ratio may then exceed 1, the second
// does not, since that buys time, not work. hashFilesAtOnce has as many files as processors, each beside as
// many references, so that no processor is to spare.
//
// smallBesideLarge: what a file of 4 KiB waits for on the queue ("p50_us", "p99_us") while 64 large ones wait
// and are hashed there.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <future>
#include <latch>
#include <thread>
#include <vector>

#include "filefacts/QMRHashProvider.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/queue.hpp"

namespace {

// Fits the first cache of the processor, so that the reference never waits for memory.
constexpr std::size_t kHotBufferSize = 16 * 1024;

std::vector<std::uint8_t> makeContent(std::size_t size) {
  std::vector<std::uint8_t> content(size);
  std::uint32_t state = 1;
  for (std::uint8_t& byte : content) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  return content;
}

// A file in memory, every page of it present.
qm::FileDescriptor makeFile(std::size_t size) {
  qm::FileDescriptor file(::memfd_create("hashing", MFD_CLOEXEC));
  const std::vector<std::uint8_t> content = makeContent(std::min<std::size_t>(size, 1024 * 1024));
  for (std::size_t written = 0; written < size;) {
    const ssize_t count = ::write(file.get(), content.data(), std::min(content.size(), size - written));
    if (count <= 0) std::abort();
    written += static_cast<std::size_t>(count);
  }
  return file;
}

void digestHotBuffer(EVP_MD_CTX* context, const EVP_MD* method, const std::vector<std::uint8_t>& buffer,
                     std::size_t size) {
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
  EVP_DigestInit_ex2(context, method, nullptr);
  for (std::size_t left = size; left > 0;) {
    const std::size_t count = std::min(left, buffer.size());
    EVP_DigestUpdate(context, buffer.data(), count);
    left -= count;
  }
  EVP_DigestFinal_ex(context, digest.data(), nullptr);
  benchmark::DoNotOptimize(digest);
}

// Both digests over the same hot bytes as often as it takes.
class Reference {
 public:
  void run(std::size_t size) {
    digestHotBuffer(context_, sha1_, buffer_, size);
    digestHotBuffer(context_, sha256_, buffer_, size);
  }
  ~Reference() {
    EVP_MD_CTX_free(context_);
    EVP_MD_free(sha1_);
    EVP_MD_free(sha256_);
  }
  Reference() = default;
  Reference(const Reference&) = delete;
  Reference& operator=(const Reference&) = delete;

 private:
  EVP_MD* const sha1_ = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  EVP_MD* const sha256_ = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  EVP_MD_CTX* const context_ = EVP_MD_CTX_new();
  const std::vector<std::uint8_t> buffer_ = makeContent(kHotBufferSize);
};

double secondsOn(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double quantile(std::vector<double>& values, double share) {
  const auto index = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + index, values.end());
  return values[static_cast<std::size_t>(index)];
}

// What the same work cost each time, in seconds.
class Times {
 public:
  template <class Work>
  double measure(Work&& work) {
    const double worked = secondsOn(CLOCK_PROCESS_CPUTIME_ID);
    const double start = secondsOn(CLOCK_MONOTONIC);
    work();
    elapsed_.push_back(secondsOn(CLOCK_MONOTONIC) - start);
    worked_.push_back(secondsOn(CLOCK_PROCESS_CPUTIME_ID) - worked);
    return elapsed_.back();
  }
  double elapsed(double share = 0.5) { return quantile(elapsed_, share); }
  double worked() { return quantile(worked_, 0.5); }

 private:
  std::vector<double> elapsed_;
  std::vector<double> worked_;
};

void hash(const qm::FileDescriptor& file, std::size_t size) {
  if (QMRHashProvider::generateHashesForFiledescriptor(file.get(), size) == nullptr) std::abort();
}

template <class File, class ReferenceWork>
void compare(benchmark::State& state, File&& file, ReferenceWork&& reference) {
  Times fileTimes;
  Times referenceTimes;
  for ([[maybe_unused]] const auto _ : state) {
    referenceTimes.measure(reference);
    state.SetIterationTime(fileTimes.measure(file));
  }
  state.counters["of_reference"] = referenceTimes.elapsed() / fileTimes.elapsed();
  state.counters["of_reference_work"] = referenceTimes.worked() / fileTimes.worked();
}

void hashFile(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const qm::FileDescriptor file = makeFile(size);
  Reference reference;
  compare(
      state, [&] { hash(file, size); }, [&] { reference.run(size); });
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

// Runs the work once on each of as many threads as there are processors, and ends with the last of them.
template <class Work>
void onAllProcessors(Work&& work) {
  std::vector<std::jthread> threads;
  for (unsigned index = 0; index < std::thread::hardware_concurrency(); ++index) threads.emplace_back(work);
}

void hashFilesAtOnce(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const qm::FileDescriptor file = makeFile(size);
  compare(
      state, [&] { onAllProcessors([&] { hash(file, size); }); },
      [&] { onAllProcessors([&] { Reference().run(size); }); });
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0) *
                          std::thread::hardware_concurrency());
}

void smallBesideLarge(benchmark::State& state) {
  constexpr std::size_t kLarge = 8 << 20;
  constexpr std::size_t kSmall = 4 << 10;
  constexpr std::ptrdiff_t kLargeFiles = 64;
  const qm::FileDescriptor large(::memfd_create("large", MFD_CLOEXEC));  // a single hole
  if (::ftruncate(large.get(), kLarge) != 0) std::abort();
  const qm::FileDescriptor small = makeFile(kSmall);
  const qm::Queue queue = qm::Queue::concurrent("bench");
  std::atomic<bool> end = false;
  std::latch ended(kLargeFiles);
  for (std::ptrdiff_t index = 0; index < kLargeFiles; ++index) {
    queue.async([&] {
      while (!end) hash(large, kLarge);
      ended.count_down();
    });
  }
  const auto ask = [&] {
    std::promise<void> hashed;
    queue.async([&] {
      hash(small, kSmall);
      hashed.set_value();
    });
    hashed.get_future().wait();
  };
  ask();  // until all the large ones have their threads
  Times times;
  for ([[maybe_unused]] const auto _ : state) state.SetIterationTime(times.measure(ask));
  end = true;
  ended.wait();
  state.counters["p50_us"] = 1e6 * times.elapsed();
  state.counters["p99_us"] = 1e6 * times.elapsed(0.99);
}

BENCHMARK(hashFile)
    ->Arg(4 << 10)
    ->Arg(64 << 10)
    ->Arg(128 << 10)
    ->Arg(256 << 10)
    ->Arg(1 << 20)
    ->Arg(4 << 20)
    ->Arg(16 << 20)
    ->Arg(64 << 20)
    ->Arg(512 << 20)
    ->ArgName("bytes")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(hashFilesAtOnce)
    ->Arg(1 << 20)
    ->Arg(16 << 20)
    ->Arg(64 << 20)
    ->ArgName("bytes")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(smallBesideLarge)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
