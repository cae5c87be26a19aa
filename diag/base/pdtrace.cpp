// The trace points of the current interface. Each packs its items and forwards; the attach step happens behind the
// forward, on the slow path only.
#include <algorithm>

#include "platform/host.h"
#include "platform/trcapi.h"
#include "veksys/diag/trace_scope.h"

namespace {

constexpr std::uint32_t kItemsMost = 20;

PdtItem textItem(const char* text) noexcept { return pdtItem(text); }

std::int64_t valueAt(const std::int64_t* returnCode) noexcept { return returnCode == nullptr ? 0 : *returnCode; }

}  // namespace

// clang-format off
#define ITEM(n) {type##n, size##n, data##n}
#define LIST_1 ITEM(1)
#define LIST_2 LIST_1, ITEM(2)
#define LIST_3 LIST_2, ITEM(3)
#define LIST_4 LIST_3, ITEM(4)
#define LIST_5 LIST_4, ITEM(5)
#define LIST_6 LIST_5, ITEM(6)
#define LIST_7 LIST_6, ITEM(7)
#define LIST_8 LIST_7, ITEM(8)
#define LIST_9 LIST_8, ITEM(9)
#define LIST_10 LIST_9, ITEM(10)
#define LIST_11 LIST_10, ITEM(11)
#define LIST_12 LIST_11, ITEM(12)
#define LIST_13 LIST_12, ITEM(13)
#define LIST_14 LIST_13, ITEM(14)
#define LIST_15 LIST_14, ITEM(15)
#define LIST_16 LIST_15, ITEM(16)
#define LIST_17 LIST_16, ITEM(17)
#define LIST_18 LIST_17, ITEM(18)
#define LIST_19 LIST_18, ITEM(19)
#define LIST_20 LIST_19, ITEM(20)
// clang-format on

void pdtEntry(EcfFunctionId id) noexcept { vek::_gtraceEntry(id, vek::hostEngineUnitNumber()); }

#define DEFINE(n)                                                    \
  void pdtEntry##n(EcfFunctionId id, VEK_TRACE_ITEMS_##n) noexcept { \
    const PdtItem items[] = {LIST_##n};                              \
    vek::_gtraceEntry(id, vek::hostEngineUnitNumber(), n, items);    \
  }
VEK_COUNTS_TO_16(DEFINE)
#undef DEFINE

void pdtExit(EcfFunctionId id, const std::int64_t* returnCode) noexcept {
  vek::_gtraceExit(id, valueAt(returnCode), 0, nullptr);
}

#define DEFINE(n)                                                                                   \
  void pdtExit##n(EcfFunctionId id, const std::int64_t* returnCode, VEK_TRACE_ITEMS_##n) noexcept { \
    const PdtItem items[] = {LIST_##n};                                                             \
    vek::_gtraceExit(id, valueAt(returnCode), n, items);                                            \
  }
VEK_COUNTS_TO_20(DEFINE)
#undef DEFINE

#define DEFINE(n)                                                                        \
  void pdtData##n(EcfFunctionId id, std::uint32_t probe, VEK_TRACE_ITEMS_##n) noexcept { \
    const PdtItem items[] = {LIST_##n};                                                  \
    vek::_gtraceVar(id, probe, vek::TRC_DATA, 0, n, items);                              \
  }
DEFINE(1)
VEK_COUNTS_3_TO_20(DEFINE)
#undef DEFINE

void pdtData2(EcfFunctionId id, std::uint32_t probe, VEK_TRACE_ITEMS_2) noexcept {
  vek::_gtraceData2(id, probe, type1, size1, data1, type2, size2, data2);
}

void pdtError(EcfFunctionId id, std::uint32_t probe) noexcept {
  vek::_gtraceErrorVar(id, probe, vek::TRC_ERROR, 0, 0, nullptr);
}

#define DEFINE(n)                                                                         \
  void pdtError##n(EcfFunctionId id, std::uint32_t probe, VEK_TRACE_ITEMS_##n) noexcept { \
    const PdtItem items[] = {LIST_##n};                                                   \
    vek::_gtraceErrorVar(id, probe, vek::TRC_ERROR, 0, n, items);                         \
  }
VEK_COUNTS_TO_6(DEFINE)
#undef DEFINE

void pdtErrorRc(EcfFunctionId id, std::uint32_t probe, std::int64_t returnCode) noexcept {
  vek::_gtraceErrorVar(id, probe, vek::TRC_ERROR, returnCode, 0, nullptr);
}

void pdtErrorRc1(EcfFunctionId id, std::uint32_t probe, std::int64_t returnCode, VEK_TRACE_ITEMS_1) noexcept {
  const PdtItem items[] = {LIST_1};
  vek::_gtraceErrorVar(id, probe, vek::TRC_ERROR, returnCode, 1, items);
}

void pdtErrorTrans(EcfFunctionId id, std::uint32_t probe, std::int64_t from, std::int64_t to) noexcept {
  const PdtItem items[] = {{PD_TYPE_SINT, sizeof to, &to}};
  vek::_gtraceErrorVar(id, probe, vek::TRC_TRANSLATION, from, 1, items);
}

void pdtMarker(EcfFunctionId id, std::uint32_t probe, const char* text) noexcept {
  const PdtItem items[] = {textItem(text)};
  vek::_gtraceVar(id, probe, vek::TRC_MARKER, 0, 1, items);
}

#define DEFINE(n)                                                                                            \
  void pdtMarker##n(EcfFunctionId id, std::uint32_t probe, const char* text, VEK_TRACE_ITEMS_##n) noexcept { \
    const PdtItem items[] = {textItem(text), LIST_##n};                                                      \
    vek::_gtraceVar(id, probe, vek::TRC_MARKER, 0, 1 + (n), items);                                          \
  }
VEK_COUNTS_TO_18(DEFINE)
#undef DEFINE

void pdtEvent(EcfFunctionId id, std::uint32_t probe, std::uint64_t event) noexcept {
  vek::_gtraceVar(id, probe, vek::TRC_EVENT, event, 0, nullptr);
}

void pdtEventVar(EcfFunctionId id, std::uint32_t probe, std::uint64_t event, std::uint32_t itemCount,
                 const PdtItem* items) noexcept {
  vek::_gtraceVar(id, probe, vek::TRC_EVENT, event, items == nullptr ? 0 : std::min(itemCount, kItemsMost), items);
}

void pdtCorrelator(EcfFunctionId id, std::uint32_t probe, std::uint64_t correlator) noexcept {
  vek::_gtraceVar(id, probe, vek::TRC_CORRELATOR, correlator, 0, nullptr);
}

void pdtDataItems(EcfFunctionId id, std::uint32_t probe, std::uint32_t itemCount, const PdtItem* items) noexcept {
  vek::_gtraceVar(id, probe, vek::TRC_DATA, 0, std::min(itemCount, kItemsMost), items);
}

void pdtErrorItems(EcfFunctionId id, std::uint32_t probe, std::int64_t returnCode, std::uint32_t itemCount,
                   const PdtItem* items) noexcept {
  vek::_gtraceErrorVar(id, probe, vek::TRC_ERROR, returnCode, std::min(itemCount, kItemsMost), items);
}
