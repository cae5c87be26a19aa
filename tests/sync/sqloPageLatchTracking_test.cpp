#include <array>
#include <map>
#include <random>

#include "platform/support.h"
#include "veksys/sync/page_latch.h"

namespace {

using namespace vek::platformtest;

std::array<char, 1024> g_pages;

std::string arrayText() {
  std::string text(64 * 1024, '\0');
  text.resize(sqloPageLatchTrackingToString(text.data(), text.size()));
  return text;
}

// What the text tells of latches that are held.
std::map<std::uint64_t, int> heldNow() {
  std::map<std::uint64_t, int> held;
  const std::string text = arrayText();
  for (std::size_t at = text.find("BPLatchEntry"); at != std::string::npos; at = text.find("BPLatchEntry", at + 1)) {
    int state = 0;
    unsigned long long latch = 0;
    EXPECT_EQ(std::sscanf(text.c_str() + at,
                          "BPLatchEntry %*d - LatchHeldState %d - nextFreeEntry %*d\nnextPage %*d - hashEntry = %*d - "
                          "pL (0x%llx)",
                          &state, &latch),
              2)
        << text.substr(at, 200);
    if (state != 0) held[latch] = state;
  }
  return held;
}

TEST_APART(PageLatches, AreNotedConvertedAndForgotten) {
  ::setenv("VEK_USE_PAGELATCH_TRACKING", "Yes", 1);
  sqlo_page_latch_latch_track_conv_helper(g_pages.data(), 2);
  sqlo_page_latch_unlatch_track_helper(g_pages.data());
  EXPECT_EQ(arrayText(), "");
  std::map<std::uint64_t, int> model;
  std::minstd_rand random(20'260'314);
  for (int step = 0; step < 20'000; ++step) {
    const char* page = &g_pages[random() % 200];
    const auto key = reinterpret_cast<std::uintptr_t>(page);
    const int state = 1 + static_cast<int>(random() % 3);
    switch (random() % 3) {
      case 0:
        sqlo_page_latch_latch_track_helper(page, state);
        model[key] = state;
        break;
      case 1:
        sqlo_page_latch_latch_track_conv_helper(page, state);
        if (model.contains(key)) model[key] = state;
        break;
      default:
        sqlo_page_latch_unlatch_track_helper(page);
        model.erase(key);
    }
    if (step % 500 == 0 && heldNow() != model) FAIL() << "after step " << step << arrayText();
  }
  std::thread([] { EXPECT_EQ(arrayText(), "") << "the array is another thread's"; }).join();
}

TEST_APART(PageLatches, BeyondTheArrayAreCounted) {
  ::setenv("VEK_USE_PAGELATCH_TRACKING", "1", 1);
  for (char& page : g_pages) sqlo_page_latch_latch_track_helper(&page, 1);
  EXPECT_EQ(heldNow().size(), SQLO_PAGE_LATCH_ENTRIES);
  EXPECT_NE(arrayText().find("not noted, for want of an entry: 768\n"), std::string::npos);
  for (char& page : g_pages) sqlo_page_latch_unlatch_track_helper(&page);
  EXPECT_TRUE(heldNow().empty());
  char cut[30];
  EXPECT_EQ(sqloPageLatchTrackingToString(cut, sizeof cut), sizeof cut - 1);
  EXPECT_STREQ(cut, "PAGE LATCH TRACKING ARRAY\nBPL");
}

TEST_APART(PageLatches, GoWithTheirThread) {
  ::setenv("VEK_USE_PAGELATCH_TRACKING", "on", 1);
  static int mappings = 0;
  static const vek::OssCalls real = vek::ossCalls();
  vek::ossCalls().mmap = [](auto... arguments) { return ++mappings, real.mmap(arguments...); };
  vek::ossCalls().munmap = [](auto... arguments) { return --mappings, real.munmap(arguments...); };
  const auto note = [] { sqlo_page_latch_latch_track_helper(g_pages.data(), 1); };
  std::thread(note).join();
  const int before = mappings;
  for (int thread = 0; thread < 10; ++thread) std::thread(note).join();
  EXPECT_EQ(mappings, before);
}

TEST(PageLatches, AreNotTrackedUnlessTheSettingSaysSo) {
  for (const char* value : {"", "NO", "OFF", "0", "yess"}) {
    const Instance instance;
    inProcess([value] {
      ::setenv("VEK_USE_PAGELATCH_TRACKING", value, 1);
      sqlo_page_latch_latch_track_helper(g_pages.data(), 1);
      EXPECT_EQ(arrayText(), "") << value;
    });
  }
}

}  // namespace
