// The calls of the peer: GnuCOBOL's runtime, whose packed fields have the same bytes.
#include "packed_peer.h"

// Expects <cstddef> before it.
#include <libcob.h>

#include <vector>

#include "measure.h"

namespace bench {

struct PackedPeerColumn {
  cob_field_attr attributes;
  std::vector<cob_field> fields;

  cob_field* field(std::uint64_t index) { return &fields[index & (fields.size() - 1)]; }
};

bool packedPeerStart() {
  cob_init(0, nullptr);
  return true;
}

PackedPeerColumn* packedPeerColumn(unsigned precision, unsigned scale, unsigned char* values, std::size_t count) {
  auto* column = new PackedPeerColumn;
  column->attributes = {COB_TYPE_NUMERIC_PACKED, static_cast<unsigned short>(precision), static_cast<short>(scale),
                        COB_FLAG_HAVE_SIGN, nullptr};
  const std::size_t bytes = precision / 2 + 1;
  for (std::size_t i = 0; i < count; ++i) column->fields.push_back({bytes, values + i * bytes, &column->attributes});
  return column;
}

void packedPeerRead(PackedPeerColumn& column, std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) keep(cob_get_llint(column.field(i)));
}

void packedPeerCheck(PackedPeerColumn& column, std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) keep(cob_is_numeric(column.field(i)));
}

void packedPeerRescale(PackedPeerColumn& from, PackedPeerColumn& to, std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) cob_move(from.field(i), to.field(i));
}

}  // namespace bench
