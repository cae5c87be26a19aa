#include "platform/callstack.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <unwind.h>

#include <algorithm>
#include <bit>
#include <cstring>

namespace vek {
namespace {

// Everything below reads what the loader keeps in memory. _dl_find_object answers without a lock, from signal handlers
// too; dladdr and dl_iterate_phdr would wait for whoever is loading a library, for ever in a forked child.

// The loader and the unwinder tell addresses as numbers.
char* pointerTo(std::uintptr_t address) noexcept { return std::bit_cast<char*>(address); }

// The tables of a module's exported symbols.
struct SymbolTable {
  const ElfW(Sym) * symbols = nullptr;
  const char* names = nullptr;
  std::size_t nameBytes = 0;
  std::size_t count = 0;
};

// The loader has made addresses of the offsets in the dynamic section of most modules, but not of the kernel's.
const char* addressIn(const link_map& module, std::uintptr_t address) noexcept {
  return pointerTo(address < module.l_addr ? address + module.l_addr : address);
}

// How many symbols a GNU hash table covers: it holds the highest index, at the end of the last bucket's chain.
std::size_t symbolCountOf(const char* hashTable) noexcept {
  std::uint32_t head[3];  // buckets, first symbol, words of the filter
  std::memcpy(head, hashTable, sizeof head);
  constexpr std::size_t kHeadBytes = 16;
  const auto* buckets = reinterpret_cast<const std::uint32_t*>(hashTable + kHeadBytes + head[2] * sizeof(ElfW(Addr)));
  const std::uint32_t* chains = buckets + head[0];
  const std::uint32_t last = head[0] == 0 ? 0 : *std::max_element(buckets, buckets + head[0]);
  if (last < head[1]) return head[1];
  std::size_t index = last;
  while ((chains[index - head[1]] & 1U) == 0) ++index;
  return index + 1;
}

SymbolTable symbolTableOf(const link_map& module) noexcept {
  SymbolTable table;
  const char* hashTable = nullptr;
  for (const ElfW(Dyn)* entry = module.l_ld; entry != nullptr && entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_STRSZ) table.nameBytes = entry->d_un.d_val;
    if (entry->d_tag != DT_SYMTAB && entry->d_tag != DT_STRTAB && entry->d_tag != DT_GNU_HASH) continue;
    const char* address = addressIn(module, entry->d_un.d_ptr);
    if (entry->d_tag == DT_SYMTAB) table.symbols = reinterpret_cast<const ElfW(Sym)*>(address);
    if (entry->d_tag == DT_STRTAB) table.names = address;
    if (entry->d_tag == DT_GNU_HASH) hashTable = address;
  }
  const bool complete = table.symbols != nullptr && table.names != nullptr && hashTable != nullptr;
  table.count = complete ? symbolCountOf(hashTable) : 0;
  return table;
}

bool isPlace(const ElfW(Sym) & symbol) noexcept {
  const unsigned type = ELF64_ST_TYPE(symbol.st_info);
  return symbol.st_shndx != SHN_UNDEF && symbol.st_name != 0 && (type == STT_FUNC || type == STT_GNU_IFUNC);
}

// The function that an offset from the module's base lies in, or null.
const ElfW(Sym) * findSymbol(const SymbolTable& table, std::uintptr_t offset) noexcept {
  for (std::size_t i = 0; i < table.count; ++i) {
    const ElfW(Sym)& symbol = table.symbols[i];
    if (isPlace(symbol) && offset >= symbol.st_value && offset - symbol.st_value < symbol.st_size &&
        symbol.st_name < table.nameBytes)
      return &symbol;
  }
  return nullptr;
}

constexpr std::size_t roundedToWord(std::size_t bytes) noexcept { return (bytes + 3) & ~std::size_t{3}; }

// Looks for the build identifier among the notes of one segment.
void takeBuildId(const char* notes, std::size_t bytes, CallStackModule* out) noexcept {
  while (bytes >= sizeof(ElfW(Nhdr))) {
    ElfW(Nhdr) head;
    std::memcpy(&head, notes, sizeof head);
    const std::size_t whole = sizeof head + roundedToWord(head.n_namesz) + roundedToWord(head.n_descsz);
    if (whole > bytes) return;
    const char* name = notes + sizeof head;
    const bool isId = head.n_type == NT_GNU_BUILD_ID && head.n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0;
    if (isId && head.n_descsz <= CALL_STACK_BUILD_ID_BYTES_MOST) {
      std::memcpy(out->buildId, name + roundedToWord(head.n_namesz), head.n_descsz);
      out->buildIdBytes = head.n_descsz;
      return;
    }
    notes += whole;
    bytes -= whole;
  }
}

// The first bytes of a mapped module are the head of its file, which tells where the notes are.
void readBuildId(const dl_find_object& found, CallStackModule* out) noexcept {
  const char* start = static_cast<const char*>(found.dlfo_map_start);
  const auto mapped = static_cast<std::size_t>(static_cast<const char*>(found.dlfo_map_end) - start);
  ElfW(Ehdr) head;
  if (mapped < sizeof head) return;
  std::memcpy(&head, start, sizeof head);
  if (std::memcmp(head.e_ident, ELFMAG, SELFMAG) != 0 || head.e_phentsize != sizeof(ElfW(Phdr))) return;
  if (head.e_phoff > mapped || head.e_phnum > (mapped - head.e_phoff) / sizeof(ElfW(Phdr))) return;
  const auto* segments = reinterpret_cast<const ElfW(Phdr)*>(start + head.e_phoff);
  for (std::size_t i = 0; i < head.e_phnum && out->buildIdBytes == 0; ++i)
    if (segments[i].p_type == PT_NOTE)
      takeBuildId(pointerTo(out->base + segments[i].p_vaddr), segments[i].p_filesz, out);
}

// The program itself has no name in the loader's list.
const char* pathOf(const link_map& module) noexcept {
  if (module.l_name == nullptr) return "";
  return module.l_name[0] == '\0' && module.l_prev == nullptr ? program_invocation_name : module.l_name;
}

// The index of a module in the stack's list, which it joins when it is new; -1 when the list is full.
std::int32_t moduleIndex(const dl_find_object& found, CallStack* stack) noexcept {
  const std::uintptr_t base = found.dlfo_link_map->l_addr;
  for (std::uint32_t i = 0; i < stack->moduleCount; ++i)
    if (stack->modules[i].base == base) return static_cast<std::int32_t>(i);
  if (stack->moduleCount == CALL_STACK_MODULES_MOST) return -1;
  CallStackModule& module = stack->modules[stack->moduleCount];
  module = {};
  module.path = pathOf(*found.dlfo_link_map);
  module.base = base;
  readBuildId(found, &module);
  return static_cast<std::int32_t>(stack->moduleCount++);
}

void resolveFrame(std::uintptr_t address, CallStackFrame* frame, CallStack* stack) noexcept {
  *frame = {address, nullptr, 0, -1};
  dl_find_object found = {};
  if (::_dl_find_object(pointerTo(address), &found) != 0) return;
  frame->module = moduleIndex(found, stack);
  frame->displacement = address - found.dlfo_link_map->l_addr;
  const SymbolTable table = symbolTableOf(*found.dlfo_link_map);
  const ElfW(Sym)* symbol = findSymbol(table, frame->displacement);
  if (symbol == nullptr) return;
  frame->symbol = table.names + symbol->st_name;
  frame->displacement -= symbol->st_value;
}

struct Walk {
  std::uint32_t skip;
  std::uint32_t count;
  bool isCut;
  std::uintptr_t addresses[CALL_STACK_FRAMES_MOST];
};

// A return address stands behind its call, which may be the last instruction of a function: the place asked for is the
// one before, except in a frame that a signal interrupted.
_Unwind_Reason_Code takeFrame(_Unwind_Context* context, void* argument) {
  auto* walk = static_cast<Walk*>(argument);
  int isInterrupted = 0;
  const auto address = static_cast<std::uintptr_t>(::_Unwind_GetIPInfo(context, &isInterrupted));
  if (address == 0) return _URC_END_OF_STACK;
  if (walk->skip > 0) {
    --walk->skip;
    return _URC_NO_REASON;
  }
  walk->isCut = walk->count == CALL_STACK_FRAMES_MOST;
  if (walk->isCut) return _URC_END_OF_STACK;
  walk->addresses[walk->count++] = isInterrupted != 0 ? address : address - 1;
  return _URC_NO_REASON;
}

struct Interruptions {
  std::uintptr_t function;
  std::uint32_t count;
  bool isReached;
};

_Unwind_Reason_Code countInterruptions(_Unwind_Context* context, void* argument) {
  auto* walk = static_cast<Interruptions*>(argument);
  int isInterrupted = 0;
  if (::_Unwind_GetIPInfo(context, &isInterrupted) == 0) return _URC_END_OF_STACK;
  walk->count += isInterrupted != 0 ? 1U : 0U;
  walk->isReached = static_cast<std::uintptr_t>(::_Unwind_GetRegionStart(context)) == walk->function;
  return walk->isReached ? _URC_END_OF_STACK : _URC_NO_REASON;
}

}  // namespace

bool callStackIsOfHandlerOver(std::uintptr_t function) noexcept {
  Interruptions walk = {function, 0, false};
  ::_Unwind_Backtrace(countInterruptions, &walk);
  return walk.isReached && walk.count > 1;
}

__attribute__((noinline)) void captureCallStack(CallStack* out, std::uint32_t skip) noexcept {
  Walk walk = {.skip = skip + 1, .count = 0, .isCut = false, .addresses = {}};
  ::_Unwind_Backtrace(takeFrame, &walk);
  resolveCallStack({walk.addresses, walk.count}, out);
  out->isCut = walk.isCut;
}

void resolveCallStack(std::span<const std::uintptr_t> addresses, CallStack* out) noexcept {
  out->moduleCount = 0;
  out->isCut = addresses.size() > CALL_STACK_FRAMES_MOST;
  out->frameCount = static_cast<std::uint32_t>(std::min(addresses.size(), CALL_STACK_FRAMES_MOST));
  for (std::uint32_t i = 0; i < out->frameCount; ++i) resolveFrame(addresses[i], &out->frames[i], out);
}

}  // namespace vek
