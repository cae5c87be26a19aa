// Reading of the message catalogue.
//
// Layout of a message object, all words 32 bits: magic, revision, number of strings, offset of the table of keys,
// offset of the table of texts, and two words of a hash table that is not used here. A table holds the length and the
// offset of each string; strings are terminated. Keys ascend by their bytes.
#include "diag/base/sqlmsg.h"

#include <atomic>
#include <cstring>
#include <new>

#include "diag/base/traced.h"
#include "platform/file_read.h"
#include "platform/osse.h"
#include "veksys/diag/rc.h"
#include "veksys/host.h"

namespace vek {
namespace {

constexpr std::uint32_t kMagic = 0x950412DE;
constexpr std::size_t kHeaderBytes = 28;
constexpr std::size_t kRowBytes = 8;
constexpr std::size_t kPathBytes = 4096;
constexpr const char* kFileName = "veksql.mo";
constexpr const char* kBelowInstallation = "share/veksys/locale/en_US";
constexpr const char* kMissingMessageKey = "SQL10007N";

// The process's catalogue: the file and its checked view. Empty when there is no usable file.
struct Catalogue {
  FileBytes file;
  MessageObject messages;
};

// Published once and never changed. Threads that come at the same time each read the file; the first to publish wins,
// so that nobody waits for a lock: the logger makes descriptions too. The first use allocates.
constinit std::atomic<const Catalogue*> g_catalogue{nullptr};

bool readCatalogue(const char* directory, const char* below, Catalogue* out) noexcept {
  char path[kPathBytes];
  const std::size_t length = ossSnprintf(path, sizeof path, "%s/%s/%s", directory, below, kFileName);
  if (length + 1 >= sizeof path || ossReadFile(path, SQLMSG_FILE_BYTES_MOST, &out->file) != 0) return false;
  return out->messages.open(out->file.span());
}

void readFirstCatalogue(Catalogue* out) noexcept {
  if (const char* named = ossEnvironment("VEK_MESSAGE_DIR"); named != nullptr && named[0] != '\0') {
    (void)readCatalogue(named, ".", out);
    return;
  }
  if (readCatalogue(vekInstallationPath(), kBelowInstallation, out)) return;
  (void)readCatalogue(VEKSYS_MESSAGE_DIR, ".", out);
}

const Catalogue* catalogue() noexcept {
  const Catalogue* known = g_catalogue.load(std::memory_order_acquire);
  if (known != nullptr) return known;
  auto* made = new (std::nothrow) Catalogue;
  if (made == nullptr) return nullptr;
  readFirstCatalogue(made);
  if (g_catalogue.compare_exchange_strong(known, made, std::memory_order_acq_rel)) return made;
  delete made;
  return known;
}

std::uint32_t magnitude(std::int32_t number) noexcept {
  return number < 0 ? 0U - static_cast<std::uint32_t>(number) : static_cast<std::uint32_t>(number);
}

std::string_view messageOf(std::uint32_t number, char kind) noexcept {
  const Catalogue* known = catalogue();
  if (known == nullptr) return {};
  char key[16];
  const std::size_t length = ossSnprintf(key, sizeof key, "SQL%04u%c", number, kind);
  return known->messages.find({key, length});
}

}  // namespace

std::uint32_t MessageObject::word(std::size_t offset) const noexcept {
  unsigned char part[4];
  std::memcpy(part, bytes_.data() + offset, sizeof part);
  return part[0] | static_cast<std::uint32_t>(part[1]) << 8 | static_cast<std::uint32_t>(part[2]) << 16 |
         static_cast<std::uint32_t>(part[3]) << 24;
}

std::string_view MessageObject::stringAt(std::uint32_t table, std::uint32_t index) const noexcept {
  const std::size_t row = table + index * kRowBytes;
  return {bytes_.data() + word(row + 4), word(row)};
}

bool MessageObject::isTable(std::uint32_t table) const noexcept {
  return table <= bytes_.size() && count_ <= (bytes_.size() - table) / kRowBytes;
}

bool MessageObject::isString(std::uint32_t table, std::uint32_t index) const noexcept {
  const std::size_t row = table + index * kRowBytes;
  const std::uint32_t length = word(row);
  const std::uint32_t offset = word(row + 4);
  return offset < bytes_.size() && length < bytes_.size() - offset && bytes_[offset + length] == '\0';
}

bool MessageObject::isAscending(std::uint32_t index) const noexcept {
  return index == 0 || stringAt(keys_, index - 1) < stringAt(keys_, index);
}

bool MessageObject::isValid() const noexcept {
  if (!isTable(keys_) || !isTable(texts_)) return false;
  for (std::uint32_t index = 0; index < count_; ++index)
    if (!isString(keys_, index) || !isString(texts_, index) || !isAscending(index)) return false;
  return true;
}

bool MessageObject::open(std::span<const char> bytes) noexcept {
  *this = {};
  if (bytes.size() < kHeaderBytes || bytes.size() > SQLMSG_FILE_BYTES_MOST) return false;
  bytes_ = bytes;
  if (word(0) == kMagic && word(4) >> 16 == 0) {
    count_ = word(8);
    keys_ = word(12);
    texts_ = word(16);
    if (isValid()) return true;
  }
  *this = {};
  return false;
}

std::string_view MessageObject::find(std::string_view key) const noexcept {
  std::uint32_t low = 0;
  std::uint32_t high = count_;
  while (low < high) {
    const std::uint32_t middle = low + (high - low) / 2;
    const int order = stringAt(keys_, middle).compare(key);
    if (order == 0) return stringAt(texts_, middle);
    if (order < 0)
      low = middle + 1;
    else
      high = middle;
  }
  return {};
}

std::string_view sqlzi_messageOfSqlcode(std::int32_t sqlcode) noexcept {
  return messageOf(magnitude(sqlcode), sqlcode < 0 ? 'N' : 'W');
}

std::string_view sqlzi_messageOfZrc(SqlzZrc zrc) noexcept {
  std::string_view text = messageOf(magnitude(zrc), zrc < 0 ? 'N' : 'W');
  if (text.empty()) text = messageOf(magnitude(zrc), zrc < 0 ? 'W' : 'N');
  return text.starts_with(kMissingMessageKey) ? std::string_view{} : text;
}

void sqlzi_forgetMessages() noexcept { delete g_catalogue.exchange(nullptr); }

}  // namespace vek

std::size_t sqlzGetSqlMessage(std::int32_t sqlcode, char* buffer, std::size_t bufferSize) noexcept {
  vek::VekTrace<vek::FID_sqlzGetSqlMessage> trace;
  if (buffer == nullptr || bufferSize == 0) return trace.exit(std::size_t{0});
  const std::string_view text = vek::sqlzi_messageOfSqlcode(sqlcode);
  const std::size_t length = text.copy(buffer, bufferSize - 1);
  buffer[length] = '\0';
  return trace.exit(length);
}
