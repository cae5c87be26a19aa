// The tree of a pool's free blocks: a Cartesian tree (C. J. Stephenson, "Fast Fits: New Methods for Dynamic Storage
// Allocation", SOSP 1983), ordered by address from left to right and by size from the root down. The largest free block
// is its root, and the free neighbour below an address is found on one way down. Blocks of one size stand in the order
// of a hash of their addresses, so that many of them do not make a list.
//
// A node is the free block itself; its children stand in its first eight bytes, as the lower halves of their addresses.
#pragma once

#include <cstdint>

#include "memory/sqlo_mem_block.h"

struct SqloMemFreeBlock {
  std::uint32_t left;
  std::uint32_t right;
};

namespace vek {

using FreeTree = SqloMemFreeBlock*;

void sqloi_treeInsert(FreeTree* tree, Block block) noexcept;
void sqloi_treeRemove(FreeTree* tree, Block block) noexcept;

// A free block of at least that stride: the smallest at the ends of some ways down, each towards smaller ones ("better
// fit", tried several times). 0 when there is none. It stays in the tree.
Block sqloi_treeFind(FreeTree tree, std::uint32_t stride) noexcept;

// The last free block that begins below an address, 0 when there is none.
Block sqloi_treeBelow(FreeTree tree, Block block) noexcept;

// Visits all nodes, from the left; for checks. Uses a stack as deep as the tree at most; answers the depth.
std::uint32_t sqloi_treeVisit(FreeTree tree, bool (*visit)(void* context, Block block, Block parent),
                              void* context) noexcept;

}  // namespace vek
