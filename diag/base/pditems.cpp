// The print routines of the generic PD types.
#include "diag/base/pditems.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstring>

#include "diag/base/pdtime.h"
#include "platform/ports.h"
#include "veksys/diag/rc.h"
#include "veksys/host.h"
#include "veksys/pd_types.h"

namespace vek {
namespace {

constexpr std::size_t kDumpLineBytes = 16;
constexpr std::size_t kDumpHexColumns = kDumpLineBytes * 2 + kDumpLineBytes / 2;  // a blank behind every two bytes

struct Value {
  std::uint32_t size;
  const void* data;

  std::string_view bytes() const noexcept { return {static_cast<const char*>(data), size}; }
};

template <class T>
T load(const void* data) noexcept {
  T value;
  std::memcpy(&value, data, sizeof value);
  return value;
}

bool isInteger(std::uint32_t size) noexcept { return size == 1 || size == 2 || size == 4 || size == 8; }

std::uint64_t unsignedOf(const Value& value) noexcept {
  switch (value.size) {
    case 1:
      return load<std::uint8_t>(value.data);
    case 2:
      return load<std::uint16_t>(value.data);
    case 4:
      return load<std::uint32_t>(value.data);
    default:
      return load<std::uint64_t>(value.data);
  }
}

std::int64_t signedOf(const Value& value) noexcept {
  const unsigned unused = 64 - 8 * value.size;
  return static_cast<std::int64_t>(unsignedOf(value) << unused) >> unused;
}

// ---- the routines: each writes one value without its line end -----------------------------------------------------

void penHexInteger(PdPen& pen, const Value& value) noexcept {
  pen.text("0x");
  pen.hex(unsignedOf(value), 2 * value.size);
}

void penUnsigned(PdPen& pen, const Value& value) noexcept { pen.decimal(unsignedOf(value)); }

void penSigned(PdPen& pen, const Value& value) noexcept { pen.signedDecimal(signedOf(value)); }

void penBool(PdPen& pen, const Value& value) noexcept { pen.text(unsignedOf(value) != 0 ? "true" : "false"); }

void penBits(PdPen& pen, std::uint64_t bits, std::string_view separator) noexcept {
  for (std::string_view lead; bits != 0; bits &= bits - 1, lead = separator) {
    pen.text(lead);
    pen.decimal(static_cast<unsigned>(__builtin_ctzll(bits)));
  }
}

void penBitmask(PdPen& pen, const Value& value) noexcept {
  const std::uint64_t bits = unsignedOf(value);
  penHexInteger(pen, value);
  if (bits == 0) return;
  pen.text((bits & (bits - 1)) == 0 ? " (bit " : " (bits ");
  penBits(pen, bits, ", ");
  pen.character(')');
}

void penCodePath(PdPen& pen, const Value& value) noexcept {
  const std::uint64_t points = unsignedOf(value);
  if (points == 0) return pen.character('0');
  penBits(pen, points, ":");
}

void penFunction(PdPen& pen, const Value& value) noexcept {
  const auto id = static_cast<EcfFunctionId>(unsignedOf(value));
  if (!ecfIsFunctionId(id)) return penHexInteger(pen, value);
  const char* name = ecfGetFunctionName(id);
  pen.text(ecfGetComponentName(id));
  pen.text(", ");
  if (name != nullptr) {
    pdPenText(pen, name);
    pen.character(' ');
  }
  pen.text(name != nullptr ? "(0x" : "0x");
  pen.hex(id, 8);
  if (name != nullptr) pen.character(')');
}

void penSignalNumber(PdPen& pen, std::int64_t number) noexcept {
  pen.signedDecimal(number);
  const char* name = number > 0 && number < NSIG ? ::sigabbrev_np(static_cast<int>(number)) : nullptr;
  if (name == nullptr) return;
  pen.text(" SIG");
  pen.text(name);
}

void penSignal(PdPen& pen, const Value& value) noexcept { penSignalNumber(pen, signedOf(value)); }

bool carriesAddress(int number) noexcept {
  return number == SIGSEGV || number == SIGBUS || number == SIGILL || number == SIGFPE || number == SIGTRAP;
}

void penSignalInfo(PdPen& pen, const Value& value) noexcept {
  const auto info = load<siginfo_t>(value.data);
  penSignalNumber(pen, info.si_signo);
  pen.text(", code ");
  pen.signedDecimal(info.si_code);
  pen.text(", errno ");
  pen.signedDecimal(info.si_errno);
  if (carriesAddress(info.si_signo) && info.si_code > 0) {
    pen.text(", address 0x");
    pen.hex(reinterpret_cast<std::uintptr_t>(info.si_addr), 16);
  } else {
    pen.text(", from process ");
    pen.signedDecimal(info.si_pid);
    pen.text(" of user ");
    pen.decimal(info.si_uid);
  }
}

void penCharacter(PdPen& pen, const Value& value) noexcept {
  const auto byte = load<unsigned char>(value.data);
  pen.character('\'');
  pen.character(byte >= ' ' && byte < 0x7F ? static_cast<char>(byte) : '.');
  pen.text("' (0x");
  pen.hex(byte, 2);
  pen.character(')');
}

void penText(PdPen& pen, const Value& value) noexcept {
  const std::string_view bytes = value.bytes();
  pdPenText(pen, bytes.substr(0, std::min(bytes.find('\0'), bytes.size())));
}

// Text as it stands, line by line.
void penLines(PdPen& pen, std::string_view text) noexcept {
  while (!text.empty() && !pen.isCut()) {
    const std::string_view line = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
    pdPenShield(pen, line);
    pen.text(line);
    text.remove_prefix(line.size());
  }
}

void penRawText(PdPen& pen, const Value& value) noexcept { penLines(pen, value.bytes()); }

void penReturnCode(PdPen& pen, const Value& value) noexcept {
  const char* end = pdZRCGetDescription(load<SqlzZrc>(value.data), pen.next(), pen.room() + 1);
  const auto characters = static_cast<std::size_t>(end - pen.next());
  pen.advance(characters, characters < pen.room());
}

void penOsErrorItem(PdPen& pen, const Value& value) noexcept {
  pdPenOsError(pen, load<int>(value.data));
  pdPenOsErrorText(pen, load<int>(value.data));
}

void penTime(PdPen& pen, const Value& value) noexcept { pdPenTime(pen, load<std::int64_t>(value.data)); }

void penIpAddress(PdPen& pen, const Value& value) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(value.data);
  const std::uint32_t step = value.size == 4 ? 1 : 2;
  for (std::uint32_t i = 0; i < value.size; i += step) {
    if (i != 0) pen.character(step == 1 ? '.' : ':');
    if (step == 1)
      pen.decimal(bytes[i]);
    else
      pen.hex(static_cast<std::uint64_t>(bytes[i]) << 8 | bytes[i + 1], 1);
  }
}

void penUuid(PdPen& pen, const Value& value) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(value.data);
  for (std::uint32_t i = 0; i < value.size; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) pen.character('-');
    pen.hex(bytes[i], 2);
  }
}

void penFloat(PdPen& pen, const Value& value) noexcept {
  char text[64];
  const auto result = value.size == 4 ? std::to_chars(text, text + sizeof text, load<float>(value.data))
                                      : std::to_chars(text, text + sizeof text, load<double>(value.data));
  pen.text({text, static_cast<std::size_t>(result.ptr - text)});
}

// ---- the table of routines ----------------------------------------------------------------------------------------

bool isAnySize(std::uint32_t) noexcept { return true; }
bool isFourOrEight(std::uint32_t size) noexcept { return size == 4 || size == 8; }
bool isAddress(std::uint32_t size) noexcept { return size == 4 || size == 16; }
template <std::uint32_t Size>
bool is(std::uint32_t size) noexcept {
  return size == Size;
}

void penBytes(PdPen& pen, const Value& value) noexcept { pdPenHexDump(pen, value.data, value.size, true); }
void penBytesAlone(PdPen& pen, const Value& value) noexcept { pdPenHexDump(pen, value.data, value.size, false); }

// A routine and the sizes that it takes.
struct Routine {
  PdPrint print;
  bool (*takes)(std::uint32_t size) noexcept;
  void (*pen)(PdPen& pen, const Value& value) noexcept;
};

constexpr Routine kRoutines[] = {
    {PdPrint::kBytes, isAnySize, penBytes},
    {PdPrint::kBytesAlone, isAnySize, penBytesAlone},
    {PdPrint::kPointer, isInteger, penHexInteger},
    {PdPrint::kUnsigned, isInteger, penUnsigned},
    {PdPrint::kSigned, isInteger, penSigned},
    {PdPrint::kHexInteger, isInteger, penHexInteger},
    {PdPrint::kText, isAnySize, penText},
    {PdPrint::kRawText, isAnySize, penRawText},
    {PdPrint::kCharacter, is<1>, penCharacter},
    {PdPrint::kBool, isInteger, penBool},
    {PdPrint::kBitmask, isInteger, penBitmask},
    {PdPrint::kFunction, is<4>, penFunction},
    {PdPrint::kCodePath, isInteger, penCodePath},
    {PdPrint::kSignal, isInteger, penSignal},
    {PdPrint::kSignalInfo, is<sizeof(siginfo_t)>, penSignalInfo},
    {PdPrint::kReturnCode, is<4>, penReturnCode},
    {PdPrint::kOsError, is<4>, penOsErrorItem},
    {PdPrint::kTime, is<8>, penTime},
    {PdPrint::kIpAddress, isAddress, penIpAddress},
    {PdPrint::kUuid, is<16>, penUuid},
    {PdPrint::kFloat, isFourOrEight, penFloat},
};

constexpr bool standInOrder() {
  for (std::size_t i = 0; i < std::size(kRoutines); ++i)
    if (static_cast<std::size_t>(kRoutines[i].print) != i) return false;
  return static_cast<std::size_t>(PdPrint::kFloat) + 1 == std::size(kRoutines);
}
static_assert(standInOrder());

struct TypeRow {
  std::string_view description;
  PdPrint print;
};

constexpr TypeRow kTypes[] = {
#define PD_TYPE(number, name, description, print) {description, PdPrint::print},
#include "veksys/pd_types.def"
#undef PD_TYPE
};
static_assert(std::size(kTypes) == PD_TYPE_COUNT && PD_TYPE_FLOAT + 1 == PD_TYPE_COUNT);

void penGeneric(PdPen& pen, std::uint32_t type, const Value& value) noexcept {
  const PdPrint print = type < PD_TYPE_COUNT ? kTypes[type].print : PdPrint::kBytes;
  const Routine& routine = kRoutines[static_cast<std::size_t>(print)];
  (routine.takes(value.size) ? routine.pen : penBytes)(pen, value);
}

// False when nobody formats this structure. A text in which lines must be marked is taken in again from the end of the
// room: marks make it longer, and it must not run over what is still to be read.
bool penStructure(PdPen& pen, std::uint32_t type, const Value& value) noexcept {
  const std::size_t room = pen.room();
  char* const text = pen.next();
  const std::size_t characters = std::min(g_ports.formatItem(type, value.data, value.size, text, room + 1), room);
  const std::size_t labels = pdCountSections({text, characters});
  const bool whole = characters < room || room == 0;
  if (labels == 0) {
    pen.advance(characters, whole);
  } else {
    const std::size_t taken = std::min(characters, room - labels);
    std::memmove(text + room - taken, text, taken);
    penLines(pen, {text + room - taken, taken});
    if (!whole || taken != characters) pen.stop();
  }
  return characters != 0;
}

// ---- hex dump -----------------------------------------------------------------------------------------------------

char* putHexBytes(char* to, const unsigned char* bytes, std::size_t count) noexcept {
  constexpr char kDigits[] = "0123456789ABCDEF";
  char* const end = to + kDumpHexColumns;
  for (std::size_t i = 0; i < count; ++i) {
    *to++ = kDigits[bytes[i] >> 4];
    *to++ = kDigits[bytes[i] & 0xF];
    if (i % 2 == 1) *to++ = ' ';
  }
  std::fill(to, end, ' ');
  return end;
}

void penDumpLine(PdPen& pen, const unsigned char* bytes, std::size_t count, bool withCharacters) noexcept {
  char line[kDumpHexColumns + 3 + kDumpLineBytes];
  char* to = putHexBytes(line, bytes, count);
  if (withCharacters) {
    to = std::fill_n(to, 3, ' ');
    to = std::transform(bytes, bytes + count, to,
                        [](unsigned char c) { return c >= ' ' && c < 0x7F ? static_cast<char>(c) : '.'; });
  } else {
    while (to > line && to[-1] == ' ') --to;
  }
  pen.text({line, static_cast<std::size_t>(to - line)});
  pen.newLine();
}

// ---- text ---------------------------------------------------------------------------------------------------------

constexpr std::ptrdiff_t kLabelColumns = 10;  // with the colon and the blank behind it

bool isCapital(char c) noexcept { return c >= 'A' && c <= 'Z'; }
bool isOfLabel(char c) noexcept { return isCapital(c) || (c >= '0' && c <= '9') || c == ' ' || c == '#'; }

bool isControl(char c) noexcept { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; }

// Characters side by side in one register.
using Eight = unsigned char __attribute__((vector_size(8)));
using Sixteen = unsigned char __attribute__((vector_size(16)));

// Whether none of so many characters is a control character.
template <class Characters>
bool areVisible(const char* text) noexcept {
  using Words = std::array<std::uint64_t, sizeof(Characters) / sizeof(std::uint64_t)>;
  const auto characters = load<Characters>(text);
  const auto words = std::bit_cast<Words>((characters < ' ') | (characters == 0x7F));
  return (words.front() | words.back()) == 0;
}

// How many characters at the beginning are plain.
std::size_t countPlain(std::string_view text) noexcept {
  std::size_t count = pdCountVisible(text);
  while (count < text.size() && text[count] == '\t') count += 1 + pdCountVisible(text.substr(count + 1));
  return count;
}

}  // namespace

std::size_t pdCountVisible(std::string_view text) noexcept {
  const char* const at = text.data();
  const std::size_t size = text.size();
  std::size_t count = 0;
  while (count + sizeof(Sixteen) <= size && areVisible<Sixteen>(at + count)) count += sizeof(Sixteen);
  while (count + sizeof(Eight) <= size && areVisible<Eight>(at + count)) count += sizeof(Eight);
  const bool isEnd = count + sizeof(Eight) > size && size >= sizeof(Eight);
  if (isEnd && areVisible<Eight>(at + size - sizeof(Eight))) return size;
  while (count < size && !isControl(at[count])) ++count;
  return count;
}

bool pdOpensSection(std::string_view text) noexcept {
  return text.size() >= std::size_t{kLabelColumns} && isCapital(text[0]) && text[kLabelColumns - 2] == ':' &&
         text[kLabelColumns - 1] == ' ' && std::all_of(text.begin(), text.begin() + kLabelColumns - 2, isOfLabel);
}

std::size_t pdCountSections(std::string_view text) noexcept {
  std::size_t count = 0;
  while (!text.empty()) {
    count += pdOpensSection(text) ? 1U : 0U;
    text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
  }
  return count;
}

void pdPenShield(PdPen& pen, std::string_view text) noexcept {
  const bool beginsLine = pen.written() != 0 && pen.next()[-1] == '\n';
  if (beginsLine && pdOpensSection(text)) pen.character(' ');
}

void pdPenText(PdPen& pen, std::string_view text) noexcept {
  while (!text.empty() && !pen.isCut()) {
    pdPenShield(pen, text);
    const std::size_t plain = countPlain(text);
    pen.text(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) return;
    const std::size_t lineEnd = text.starts_with("\r\n") ? 2 : text.front() == '\n' ? 1 : 0;
    if (lineEnd != 0)
      pen.newLine();
    else
      pen.character('.');
    text.remove_prefix(std::max<std::size_t>(lineEnd, 1));
  }
}

void pdPenEndLine(PdPen& pen) noexcept {
  if (pen.written() == 0 || pen.next()[-1] != '\n') pen.newLine();
}

void pdPenHexDump(PdPen& pen, const void* data, std::size_t size, bool withCharacters) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  const unsigned offsetDigits = size <= 0x10000 ? 4 : 8;
  for (std::size_t offset = 0; offset < size && !pen.isCut(); offset += kDumpLineBytes) {
    pen.text("0x");
    pen.hex(offset, offsetDigits);
    pen.text(" : ");
    penDumpLine(pen, bytes + offset, std::min(size - offset, kDumpLineBytes), withCharacters);
  }
}

void pdPenOsError(PdPen& pen, int error) noexcept {
  const char* name = error == 0 ? nullptr : ::strerrorname_np(error);
  if (name == nullptr) return pen.signedDecimal(error);
  pen.text(name);
  pen.text(" (");
  pen.signedDecimal(error);
  pen.character(')');
}

void pdPenOsErrorText(PdPen& pen, int error) noexcept {
  const char* text = ::strerrordesc_np(error);
  if (text == nullptr) return;
  pen.text(" \"");
  pen.text(text);
  pen.character('"');
}

void pdPenTypeDescription(PdPen& pen, std::uint32_t type) noexcept {
  if (type < PD_TYPE_COUNT) return pen.text(kTypes[type].description);
  pen.text(type >= PD_TYPE_STRUCTURES ? "Structure 0x" : "Unknown type 0x");
  pen.hex(type, 8);
}

void pdPenItemValue(PdPen& pen, std::uint32_t type, std::uint32_t size, const void* data) noexcept {
  const Value value = {size, data};
  if (data == nullptr)
    pen.text("<null pointer>");
  else if (type < PD_TYPE_STRUCTURES)
    penGeneric(pen, type, value);
  else if (!penStructure(pen, type, value))
    penBytes(pen, value);
  pdPenEndLine(pen);
}

}  // namespace vek
