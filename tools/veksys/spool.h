// Text of several blocks that grow side by side and are delivered one after the other. What does not fit into a fixed
// amount of memory waits in a temporary file without a name.
#pragma once

#include <cstdint>
#include <vector>

#include "output.h"

namespace veksys {

class Spool {
 public:
  Spool() = default;
  ~Spool();
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  // The text of a block. It may be moved to the file by settle().
  Text& block(std::size_t index) {
    if (index >= blocks_.size()) blocks_.resize(index + 1);
    return blocks_[index].text;
  }

  // Told after text was added to a block. Throws Failure when there is no room for the file.
  void settle(std::size_t index) {
    if (blocks_[index].text.size() >= kShare && blocks_[index].text.size() * blocks_.size() >= kHeldMost)
      spill(blocks_[index]);
  }

  // Writes the blocks in the order of their index, an empty line between two that have text.
  void deliver(Output& out);

 private:
  static constexpr std::size_t kHeldMost = 2U << 20;  // in all blocks together
  static constexpr std::size_t kShare = 16U << 10;    // of one block, however many there are

  struct Extent {
    std::uint64_t offset;
    std::uint64_t bytes;
  };
  struct Block {
    Text text;
    std::vector<Extent> extents;
  };

  void spill(Block& block);
  void copyOut(const Block& block, Output& out) const;

  std::vector<Block> blocks_;
  std::uint64_t fileBytes_ = 0;
  int fd_ = -1;
};

}  // namespace veksys
