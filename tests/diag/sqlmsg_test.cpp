// The message catalogue: reading it, and not trusting it.
#include "diag/base/sqlmsg.h"

#include <random>

#include "platform/support.h"
#include "veksys/diag/rc.h"

namespace {

using vek::MessageObject;

std::vector<char> catalogueBytes() {
  std::ifstream in(VEKSYS_TEST_MESSAGES, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void put32(std::string& out, std::size_t value) {
  for (unsigned shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift & 0xFF));
}

// A message object of these keys, each its own text.
std::string makeObject(const std::vector<std::string>& keys) {
  const std::size_t strings = 28 + 16 * keys.size();
  std::string table;
  std::string text;
  for (const std::string& key : keys) {
    put32(table, key.size());
    put32(table, strings + text.size());
    text += key + '\0';
  }
  std::string out;
  for (const std::size_t word : {std::size_t{0x950412DE}, std::size_t{0}, keys.size(), std::size_t{28},
                                 28 + 8 * keys.size(), std::size_t{0}, strings})
    put32(out, word);
  return out + table + table + text;
}

TEST(MessageObject, FindsWhatItHolds) {
  const std::vector<char> bytes = catalogueBytes();
  MessageObject object;
  ASSERT_TRUE(object.open(bytes));
  EXPECT_GT(object.count(), 400U);
  EXPECT_EQ(object.find("SQL10007N"), "SQL10007N  No message text was found for message number <number>.");
  EXPECT_TRUE(object.find("SQL0100W").starts_with("SQL0100W  "));
  EXPECT_TRUE(object.find("SQL30081N").starts_with("SQL30081N  "));
  for (const char* key : {"SQL0100N", "SQL902N", "SQL0902", "zzz", "!"}) EXPECT_EQ(object.find(key), "") << key;
  const std::string three = makeObject({"A", "B", "C"});
  ASSERT_TRUE(object.open(three));
  for (const char* key : {"A", "B", "C"}) EXPECT_EQ(object.find(key), key);
  for (const char* key : {"", "AA", "D"}) EXPECT_EQ(object.find(key), "");
  const std::string none = makeObject({});
  ASSERT_TRUE(object.open(none));
  EXPECT_EQ(object.find("A"), "");
}

TEST(MessageObject, RefusesWhatIsNotSound) {
  const std::string good = makeObject({"A", "B"});
  const auto with = [&](std::size_t at, std::string bytes) {
    return std::string(good).replace(at, bytes.size(), bytes);
  };
  const std::string far = {'\xF0', '\xFF', '\xFF', '\xFF'};
  const std::pair<const char*, std::string> cases[] = {
      {"wrong magic", with(0, "\x01")},
      {"other byte order", with(0, "\x95\x04\x12\xDE")},
      {"later revision", with(6, "\x01")},
      {"more strings than fit", with(8, far)},
      {"keys outside", with(12, far)},
      {"texts outside", with(16, far)},
      {"key too long", with(28, far)},
      {"key outside", with(32, far)},
      {"text outside", with(48, far)},
      {"not terminated", with(good.size() - 1, "x")},
      {"keys out of order", makeObject({"B", "A"})},
      {"a key twice", makeObject({"A", "A"})},
  };
  MessageObject object;
  for (const auto& [what, bytes] : cases) {
    EXPECT_FALSE(object.open(bytes)) << what;
    EXPECT_EQ(object.count(), 0U);
    EXPECT_EQ(object.find("A"), "");
  }
  for (std::size_t size = 0; size < good.size(); ++size) EXPECT_FALSE(object.open({good.data(), size})) << size;
}

TEST(MessageObject, StandsRandomDamage) {
  const std::vector<char> bytes = catalogueBytes();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  MessageObject object;
  std::size_t touched = 0;  // with a sanitizer this tells what an object gave away
  for (int round = 0; round < 300; ++round) {
    std::vector<char> damaged = bytes;
    const std::size_t within = round % 2 == 0 ? 28 : damaged.size();
    for (int hit = 0; hit <= round % 5; ++hit) damaged[random() % within] = static_cast<char>(random());
    if (round % 3 == 0) damaged.resize(random() % damaged.size());
    if (!object.open(damaged)) continue;
    for (int number = -11000; number <= 11000; number += 7) {
      char key[16];
      std::snprintf(key, sizeof key, "SQL%04d%c", std::abs(number), number < 0 ? 'N' : 'W');
      for (const char c : object.find(key)) touched += c != '\0' ? 1 : 0;
    }
  }
  EXPECT_GT(touched, 0U);
}

TEST_APART(SqlMessage, IsCutToTheBuffer) {
  char whole[512];
  const std::size_t length = sqlzGetSqlMessage(-901, whole, sizeof whole);
  ASSERT_TRUE(std::string(whole).starts_with("SQL0901N  "));
  EXPECT_EQ(std::string(whole).size(), length);
  for (std::size_t size = 1; size <= length + 1; ++size) {
    std::vector<char> part(size + 1, '#');
    EXPECT_EQ(sqlzGetSqlMessage(-901, part.data(), size), std::min(length, size - 1));
    EXPECT_EQ(std::string(part.data()), std::string(whole).substr(0, size - 1));
    EXPECT_EQ(part[size], '#');
  }
  EXPECT_EQ(sqlzGetSqlMessage(-901, nullptr, 10), 0U);
  EXPECT_EQ(sqlzGetSqlMessage(-901, whole, 0), 0U);
  for (const std::int32_t none : {0, 32000, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(sqlzGetSqlMessage(none, whole, sizeof whole), 0U);
    EXPECT_EQ(whole[0], '\0');
  }
}

TEST_APART(SqlMessage, IsReadOnceByAllThreads) {
  vek::sqlzi_forgetMessages();
  std::vector<std::string> seen(8);
  vek::platformtest::inThreads(8, [&](unsigned thread) {
    char buffer[512];
    sqlzGetSqlMessage(-902, buffer, sizeof buffer);
    seen[thread] = buffer;
  });
  for (const std::string& text : seen) EXPECT_EQ(text, seen[0]);
  EXPECT_TRUE(seen[0].starts_with("SQL0902N"));
}

}  // namespace
