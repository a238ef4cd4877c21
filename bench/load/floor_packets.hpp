// What passes between the floor and its client: one packet each way, the question's with the open file.
#pragma once

#include <cstdint>

namespace qm::load {

struct FloorQuestion {
  std::uint64_t identifier;
  std::uint64_t fileSize;
};

struct FloorAnswer {
  std::uint64_t identifier;
  std::uint64_t verdict;
};

}  // namespace qm::load
