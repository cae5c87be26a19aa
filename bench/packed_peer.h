// The calls of the peer of packed_bench: an independent runtime with packed decimals of the same bytes. Loops stand on
// this side, so that the peer's functions are called as directly as ours.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

// Values of one type, side by side, as the peer describes them.
struct PackedPeerColumn;

// False: there is no peer in this build.
bool packedPeerStart();

// The count of values is a power of two. Lives as long as the program.
PackedPeerColumn* packedPeerColumn(unsigned precision, unsigned scale, unsigned char* values, std::size_t count);

// The operation `count` times, over the values again and again.
void packedPeerRead(PackedPeerColumn& column, std::uint64_t count);
void packedPeerCheck(PackedPeerColumn& column, std::uint64_t count);
void packedPeerRescale(PackedPeerColumn& from, PackedPeerColumn& to, std::uint64_t count);

}  // namespace bench
