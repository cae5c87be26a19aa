// Stacks of real code: through the C library, into a module without a name, in a signal handler, too deep.
#include "platform/callstack.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

namespace vek {
namespace {

std::string_view symbolOf(const CallStackFrame& frame) { return frame.symbol == nullptr ? "" : frame.symbol; }

bool passes(const CallStack& stack, std::string_view symbol) {
  for (std::uint32_t i = 0; i < stack.frameCount; ++i)
    if (symbolOf(stack.frames[i]) == symbol) return true;
  return false;
}

CallStack g_stack;

int compareAndCapture(const void*, const void*) {
  captureCallStack(&g_stack, 0);
  return 0;
}

TEST(CallStack, SymbolsAndModulesOfTheCallers) {
  int numbers[] = {1, 2};
  ::qsort(numbers, 2, sizeof numbers[0], compareAndCapture);
  EXPECT_TRUE(passes(g_stack, "qsort_r") || passes(g_stack, "qsort"));
  EXPECT_TRUE(passes(g_stack, "__libc_start_main"));
  ASSERT_GT(g_stack.frameCount, 4U);
  ASSERT_GE(g_stack.moduleCount, 2U);
  const auto own = reinterpret_cast<std::uintptr_t>(&compareAndCapture);
  EXPECT_LE(g_stack.frames[0].address - own, 0x400U) << "the first frame is that of the caller";
  for (std::uint32_t i = 0; i < g_stack.moduleCount; ++i) {
    const std::string_view path = g_stack.modules[i].path;
    EXPECT_FALSE(path.empty());
    EXPECT_TRUE(path.find("libc.so") == std::string_view::npos || g_stack.modules[i].buildIdBytes == 20);
  }
  CallStack fewer;
  captureCallStack(&fewer, 1);
  CallStack all;
  captureCallStack(&all, 0);
  EXPECT_EQ(fewer.frameCount + 1, all.frameCount);
  EXPECT_EQ(fewer.frames[0].address, all.frames[1].address);
}

TEST(CallStack, AddressesTakenElsewhere) {
  const auto inside = reinterpret_cast<std::uintptr_t>(&::strtol) + 1;
  const std::uintptr_t addresses[] = {inside, 1, 0, UINTPTR_MAX};
  CallStack stack;
  resolveCallStack(addresses, &stack);
  ASSERT_EQ(stack.frameCount, 4U);
  EXPECT_NE(symbolOf(stack.frames[0]).find("strtol"), std::string_view::npos) << symbolOf(stack.frames[0]);
  EXPECT_EQ(stack.frames[0].displacement, 1U);
  for (std::uint32_t i = 1; i < 4; ++i) {
    EXPECT_EQ(stack.frames[i].symbol, nullptr);
    EXPECT_EQ(stack.frames[i].module, -1);
    EXPECT_EQ(stack.frames[i].address, addresses[i]);
  }
  EXPECT_FALSE(stack.isCut);
}

TEST(CallStack, GoesOnThroughInterruptedCode) {
  const auto before = ::signal(SIGUSR1, [](int) { captureCallStack(&g_stack, 0); });
  ::raise(SIGUSR1);
  ::signal(SIGUSR1, before);
  EXPECT_TRUE(passes(g_stack, "raise") || passes(g_stack, "gsignal"));
  EXPECT_TRUE(passes(g_stack, "__libc_start_main"));
}

__attribute__((noinline)) std::uint32_t descend(std::uint32_t depth) {
  if (depth == 0) {
    captureCallStack(&g_stack, 0);
    return 0;
  }
  const std::uint32_t below = descend(depth - 1);
  asm volatile("" ::: "memory");  // keeps the call from becoming a jump
  return below + 1;
}

TEST(CallStack, SaysWhenThereWereMoreFrames) {
  EXPECT_EQ(descend(CALL_STACK_FRAMES_MOST), CALL_STACK_FRAMES_MOST);
  EXPECT_EQ(g_stack.frameCount, CALL_STACK_FRAMES_MOST);
  EXPECT_TRUE(g_stack.isCut);
}

}  // namespace
}  // namespace vek
