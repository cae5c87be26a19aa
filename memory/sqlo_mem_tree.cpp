#include "memory/sqlo_mem_tree.h"

#include <iterator>

namespace vek {
namespace {

// Which of two free blocks stands higher.
constexpr std::uint64_t mixed(Block block) noexcept {
  return (block >> 4) * 0x9E3779B97F4A7C15U;  // multiplicative hashing: neighbours differ in the upper bits
}

VEK_MAY_TOUCH_POISONED bool standsAbove(Block block, Block other) noexcept {
  const std::uint32_t size = headerOf(block)->size;
  const std::uint32_t otherSize = headerOf(other)->size;
  return size != otherSize ? size > otherSize : mixed(block) > mixed(other);
}

SqloMemFreeBlock* nodeOf(Block block) noexcept { return pointerAs<SqloMemFreeBlock>(block); }
Block fullOf(Block window, std::uint32_t low) noexcept { return low == 0 ? 0 : window | low; }
FreeTree treeOf(Block block) noexcept { return pointerAs<SqloMemFreeBlock>(block); }

VEK_MAY_TOUCH_POISONED Block leftOf(Block block) noexcept { return fullOf(windowOf(block), nodeOf(block)->left); }
VEK_MAY_TOUCH_POISONED Block rightOf(Block block) noexcept { return fullOf(windowOf(block), nodeOf(block)->right); }

// A place in the tree where a node hangs: the root, or a side of a node.
class Slot {
 public:
  explicit Slot(FreeTree* root) noexcept : root_(root) {}
  void toLeftOf(Block block) noexcept { side_ = &nodeOf(block)->left, window_ = windowOf(block); }
  void toRightOf(Block block) noexcept { side_ = &nodeOf(block)->right, window_ = windowOf(block); }

  VEK_MAY_TOUCH_POISONED Block block() const noexcept {
    return side_ == nullptr ? blockOf(*root_) : fullOf(window_, *side_);
  }
  VEK_MAY_TOUCH_POISONED void hang(Block block) noexcept {
    if (side_ == nullptr)
      *root_ = treeOf(block);
    else
      *side_ = shortOf(block);
  }

 private:
  FreeTree* root_;
  std::uint32_t* side_ = nullptr;
  Block window_ = 0;
};

}  // namespace

// The nodes that stand below the new one are split by its address, on one way down.
void sqloi_treeInsert(FreeTree* tree, Block block) noexcept {
  Slot place(tree);
  Block at = place.block();
  while (at != 0 && standsAbove(at, block)) {
    if (block < at)
      place.toLeftOf(at);
    else
      place.toRightOf(at);
    at = place.block();
  }
  place.hang(block);
  Slot left(tree);
  Slot right(tree);
  left.toLeftOf(block);
  right.toRightOf(block);
  while (at != 0) {
    if (at < block) {
      left.hang(at);
      left.toRightOf(at);
      at = rightOf(at);
    } else {
      right.hang(at);
      right.toLeftOf(at);
      at = leftOf(at);
    }
  }
  left.hang(0);
  right.hang(0);
}

// Its two subtrees are merged in its place, the higher node first.
void sqloi_treeRemove(FreeTree* tree, Block block) noexcept {
  Slot place(tree);
  for (Block at = place.block(); at != block; at = place.block()) {
    if (at == 0) return;
    if (block < at)
      place.toLeftOf(at);
    else
      place.toRightOf(at);
  }
  Block left = leftOf(block);
  Block right = rightOf(block);
  while (left != 0 && right != 0) {
    if (standsAbove(left, right)) {
      place.hang(left);
      place.toRightOf(left);
      left = rightOf(left);
    } else {
      place.hang(right);
      place.toLeftOf(right);
      right = leftOf(right);
    }
  }
  place.hang(left != 0 ? left : right);
}

namespace {

// Nodes with room, passed by on the way down. When there are too many of them, later ones are forgotten.
class Bypassed {
 public:
  void add(Block block) noexcept {
    if (count_ < std::size(blocks_)) blocks_[count_++] = block;
  }
  Block next() noexcept { return count_ == 0 ? 0 : blocks_[--count_]; }

 private:
  Block blocks_[32];
  std::size_t count_ = 0;
};

// Ways down that are tried at most. One alone leaves twice as much unused between large blocks; more than this gain
// little.
constexpr unsigned kWaysMost = 16;

}  // namespace

Block sqloi_treeFind(FreeTree tree, std::uint32_t stride) noexcept {
  const auto fitting = [stride](Block block) { return block != 0 && strideOf(block) >= stride ? strideOf(block) : 0; };
  Block best = 0;
  Bypassed bypassed;
  Block at = fitting(blockOf(tree)) == 0 ? 0 : blockOf(tree);
  for (unsigned ways = 0; at != 0 && ways < kWaysMost; ++ways, at = bypassed.next()) {
    for (Block below = at; below != 0;) {
      at = below;
      const std::uint32_t left = fitting(leftOf(at));
      const std::uint32_t right = fitting(rightOf(at));
      const bool goesLeft = left != 0 && (right == 0 || left <= right);
      if (left != 0 && right != 0) bypassed.add(goesLeft ? rightOf(at) : leftOf(at));
      below = goesLeft ? leftOf(at) : right != 0 ? rightOf(at) : 0;
    }
    if (best == 0 || strideOf(at) < strideOf(best)) best = at;
    if (strideOf(best) == stride) break;
  }
  return best;
}

Block sqloi_treeBelow(FreeTree tree, Block block) noexcept {
  Block below = 0;
  for (Block at = blockOf(tree); at != 0;) {
    if (at < block) {
      below = at;
      at = rightOf(at);
    } else {
      at = leftOf(at);
    }
  }
  return below;
}

namespace {

std::uint32_t visitBelow(Block at, Block parent, bool (*visit)(void*, Block, Block), void* context) noexcept {
  if (at == 0) return 0;
  const std::uint32_t left = visitBelow(leftOf(at), at, visit, context);
  if (!visit(context, at, parent)) return left + 1;
  const std::uint32_t right = visitBelow(rightOf(at), at, visit, context);
  return 1 + (left > right ? left : right);
}

}  // namespace

std::uint32_t sqloi_treeVisit(FreeTree tree, bool (*visit)(void* context, Block block, Block parent),
                              void* context) noexcept {
  return visitBelow(blockOf(tree), 0, visit, context);
}

}  // namespace vek
