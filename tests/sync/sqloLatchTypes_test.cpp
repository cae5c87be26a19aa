#include <gtest/gtest.h>

#include <set>
#include <string>

#include "veksys/latch_types.h"
#include "veksys/sync/latch_control.h"

namespace {

TEST(LatchTypes, AreNamedByIdAndUnique) {
  std::set<std::string> names;
  for (std::uint32_t id = 0; id < SQLO_LATCH_TYPE_COUNT; ++id) names.insert(sqloLatchTypeName(id));
  EXPECT_EQ(names.size(), SQLO_LATCH_TYPE_COUNT);
  EXPECT_STREQ(sqloLatchTypeName(SQLO_LT_SMemSet__MemLatchType__latch), "SQLO_LT_SMemSet__MemLatchType__latch");
  EXPECT_STREQ(sqloLatchTypeName(466), "SQLO_LT_SqloMemController__m_latch__latch");
  for (const std::uint32_t id : {SQLO_LATCH_TYPE_COUNT, 0xFFFFFFFFU})
    EXPECT_STREQ(sqloLatchTypeName(id), "SQLO_LT_UNKNOWN") << id;
}

}  // namespace
