// Tells whether a file is an ahead-of-time translated executable: a thin Mach-O file whose load commands hold
// a marker. Universal files are deliberately not looked into. Every failure reads as no, and is logged. Used
// by the request handler. The file is hostile until proven otherwise. Any thread, but reading moves the
// descriptor's file offset. Source of the layout: mach-o/loader.h and mach-o/fat.h of the public SDK.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "foundation/value.hpp"
#include "platform/file_handle.hpp"

class QMRMachoHeaderParser {
 public:
  QMRMachoHeaderParser() = delete;

  // By the path if there is one, else by the descriptor, which stays open; 0 is refused like a negative one.
  // A path that cannot be read counts as translated when it ends in ".aot".
  static bool isAOTBinaryAtPath(const std::optional<std::string>& path, int descriptor);

  static bool parseSegmentsWithHandle(qm::FileHandle& handle);
  // The Mach-O header at the offset and the load commands behind it. `isSwap`: the file has the other byte
  // order.
  static bool parseMachHeaderWithHandle(qm::FileHandle& handle, std::uint64_t offset, bool is64, bool isSwap);
  // Whether one of the `ncmds` load commands from the offset on is the marker. Stops where no more follow in
  // the file.
  static bool findAOTLoadCommandWithHandle(qm::FileHandle& handle, std::uint64_t offset, bool isSwap,
                                           std::uint32_t ncmds);
  // The first 4 bytes at the offset in host order; bytes that are not there count as 0.
  static std::uint32_t getMagicWithHandle(qm::FileHandle& handle, std::uint64_t offset);
  // Up to `size` bytes, fewer at the end of the file; nothing when they cannot be read.
  static std::optional<qm::Data> loadBytesWithHandle(qm::FileHandle& handle, std::uint64_t offset,
                                                     std::size_t size);

  static bool isMagic32(std::uint32_t magic);
  static bool isMagic64(std::uint32_t magic);
  static bool isFatBinaryWithMagic(std::uint32_t magic);
  static bool shouldSwapBytesWithMagic(std::uint32_t magic);
  // A Mach-O or universal file.
  static bool isInterestingMagic(std::uint32_t magic);
};
