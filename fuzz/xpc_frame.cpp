// The cutting of a byte stream into frames, as a peer reaches it. The first byte sets how long each read is;
// a set bit in the first byte of a read gives it a descriptor. No byte and no descriptor may be lost or made
// up.
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <span>

#include "platform/linux/xpc_frame.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  using namespace qm;
  if (length == 0) return 0;
  const std::size_t readLength = bytes[0] + std::size_t{1};
  std::span<const std::uint8_t> rest(bytes + 1, length - 1);
  xpc::FrameReader reader;
  reader.setMaximumBody(4096);
  std::size_t taken = 0;
  while (!rest.empty()) {
    const auto part = rest.first(std::min(readLength, rest.size()));
    rest = rest.subspan(part.size());
    std::vector<xpc::PassedDescriptor> descriptors;
    if ((part[0] & 0x80) != 0)
      descriptors.emplace_back(FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
    reader.feed(part, std::move(descriptors));
    xpc::Frame frame;
    xpc::FrameReader::Step step = reader.next(frame);
    for (; step == xpc::FrameReader::Step::frame; step = reader.next(frame)) {
      if (frame.body.size() != frame.header.bodyBytes || frame.body.size() > 4096) std::abort();
      if (frame.descriptors.size() != frame.header.descriptors) std::abort();
      taken += xpc::kHeaderBytes + frame.body.size();
    }
    if (step == xpc::FrameReader::Step::refused) return 0;
    if (taken + rest.size() > length - 1) std::abort();
  }
  return 0;
}
