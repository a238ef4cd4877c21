// What hashing a file costs, as a ratio to the least it can cost: both digests of libcrypto over a buffer
// that is already in memory. File and reference take turns in one run, because other work on the machine
// moves both alike. The counter "of_reference" is the median reference time over the median file time, in
// processor time of the thread, the system's part included: 1 would be a file that is read for nothing.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "filefacts/QMRHashProvider.hpp"
#include "platform/file_descriptor.hpp"

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

double processorSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Work>
double secondsOf(Work&& work) {
  const double start = processorSeconds();
  work();
  return processorSeconds() - start;
}

double median(std::vector<double>& times) {
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return *middle;
}

void hashFile(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const qm::FileDescriptor file = makeFile(size);
  Reference reference;
  std::vector<double> fileTimes;
  std::vector<double> referenceTimes;
  for ([[maybe_unused]] const auto _ : state) {
    referenceTimes.push_back(secondsOf([&] { reference.run(size); }));
    const double elapsed = secondsOf([&] {
      if (QMRHashProvider::generateHashesForFiledescriptor(file.get(), size) == nullptr)
        state.SkipWithError("the file was not hashed");
    });
    fileTimes.push_back(elapsed);
    state.SetIterationTime(elapsed);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
  state.counters["of_reference"] = median(referenceTimes) / median(fileTimes);
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

}  // namespace

BENCHMARK_MAIN();
