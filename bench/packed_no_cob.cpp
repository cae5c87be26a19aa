// Stands in where the peer's headers are not there: the bench leaves its rows out.
#include "packed_peer.h"

namespace bench {

bool packedPeerStart() { return false; }
PackedPeerColumn* packedPeerColumn(unsigned /*precision*/, unsigned /*scale*/, unsigned char* /*values*/,
                                   std::size_t /*count*/) {
  return nullptr;
}
void packedPeerRead(PackedPeerColumn& /*column*/, std::uint64_t /*count*/) {}
void packedPeerCheck(PackedPeerColumn& /*column*/, std::uint64_t /*count*/) {}
void packedPeerRescale(PackedPeerColumn& /*from*/, PackedPeerColumn& /*to*/, std::uint64_t /*count*/) {}

}  // namespace bench
