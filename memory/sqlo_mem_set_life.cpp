// Memory sets: creating, connecting, disconnecting, freeing.
//
// A shared set is entered in the directory as being created, made without the directory's latch, and ready last: nobody
// connects to half a set, and what a creator that dies leaves behind is removed by the next who looks. Its memory is a
// file of the instance; every process maps the whole window at the same address, whatever the size of the file, so that
// growing is a matter of the file alone.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_ctlr.h"
#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_rows.h"
#include "memory/sqlo_mem_set_directory.h"
#include "memory/sqlo_mem_settings.h"
#include "platform/address_space.h"
#include "platform/address_windows.h"
#include "platform/dirs.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"
#include "veksys/latch_types.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

using Access = SqloMemControllerAccess;

SqlzZrc complain(EcfFunctionId function, std::uint32_t probe, SqlzZrc zrc, const char* text) noexcept {
  PdLogCall call = pdLogDescribe(PD_LOG_RC_ZRC, function, zrc, probe, PD_LEVEL_ERROR);
  call.message = text;
  (void)pdLogCall(&call);
  return zrc;
}

void warn(const char* text, std::uint32_t setType) noexcept {
  PdLogCall call = pdLogDescribe(PD_LOG_RC_NONE, FID_sqlocshr, 0, 60, PD_LEVEL_WARNING);
  call.message = text;
  (void)pdLogCallValues(call, sqloMemSetTypeName(setType));
}

// ---- how large -------------------------------------------------------------------------------------------------

// What a set is going to be, in chunks.
struct SetPlan {
  std::uint32_t setType;
  std::uint32_t options;
  const char* name;
  std::uint32_t chunks;
  std::uint32_t maxChunks;
  std::uint32_t increment;
  std::uint32_t commitAtOnce;
  std::uint32_t commitTarget;
  std::uint32_t keepCommit;
  bool fillsFreed;
};

// The size that VEKNTMEMSIZE ("NAME:bytes;NAME:bytes") gives to sets of a type, 0 for none.
std::uint32_t configuredChunks(std::uint32_t setType) noexcept {
  char value[256];
  if (!g_ports.readSetting("VEKNTMEMSIZE", value, sizeof value)) return 0;
  const char* name = sqloMemSetTypeName(setType);
  const std::size_t length = std::strlen(name);
  for (const char* at = value; at != nullptr; at = std::strchr(at, ';')) {
    if (*at == ';') ++at;
    if (std::strncmp(at, name, length) == 0 && at[length] == ':')
      return static_cast<std::uint32_t>(std::min<std::uint64_t>(
          std::strtoull(at + length + 1, nullptr, 0) >> SQLO_CHUNK_SHIFT, SQLO_SET_CHUNKS_MOST));
  }
  return 0;
}

// Cuts a set to the address space that there is for it, and says so.
void truncate(SetPlan* plan, std::uint32_t requestedBytes, std::uint32_t configured) noexcept {
  const std::uint32_t limit = configured != 0 ? configured : SQLO_SET_CHUNKS_MOST;
  if (plan->maxChunks <= limit) return;
  plan->maxChunks = limit;
  plan->chunks = std::min(plan->chunks, limit);
  char text[384];
  const std::size_t length = ossSnprintf(text, sizeof text, "Set %d size truncated from %u bytes to %u bytes",
                                         static_cast<int>(plan->setType), requestedBytes, limit << SQLO_CHUNK_SHIFT);
  if (configured != 0)
    ossSnprintf(text + length, sizeof text - length,
                "  To avoid this truncation, either reduce your memory configuration parameters for this set "
                "or update the VEKNTMEMSIZE registry variable with the string %s:%u.",
                sqloMemSetTypeName(plan->setType), requestedBytes);
  warn(text, plan->setType);
}

void pad(SetPlan* plan, std::uint32_t paddingBytes, std::uint32_t configured) noexcept {
  const std::uint32_t limit = configured != 0 ? configured : SQLO_SET_CHUNKS_MOST;
  const std::uint32_t wanted = sqloChunksOf(paddingBytes);
  const std::uint32_t assigned = std::min(wanted, limit - plan->maxChunks);
  plan->maxChunks += assigned;
  if (assigned == wanted) return;
  char text[128];
  ossSnprintf(text, sizeof text, "The value requested for padding was %u, and the value assigned is %u.", paddingBytes,
              assigned << SQLO_CHUNK_SHIFT);
  warn(text, plan->setType);
}

void planCommit(SetPlan* plan, const SqloMemSetRequest& request) noexcept {
  const bool isDebugging = sqloi_isSettingOn("VEKMEMDBG");
  bool isDeferred = sqloi_readBoolean("VEK_DEFER_MEMORY_COMMIT", false);
  if (isDeferred && isDebugging) {
    warn("Deferred memory commit is disabled in memory debug modes", plan->setType);
    isDeferred = false;
  }
  plan->fillsFreed = isDebugging;
  plan->keepCommit = std::min(sqloChunksOf(request.keepCommitBytes), plan->chunks);
  plan->commitTarget = isDeferred ? 0 : std::min(sqloChunksOf(request.commitBytes), plan->chunks);
  const bool inBackground = plan->setType == SQLO_SET_DBM_DB && plan->commitTarget != 0 && !isDebugging &&
                            sqloi_readBoolean("VEK_ENABLE_BG_COMMIT", true);
  if (inBackground) plan->options |= SQLO_SET_BACKGROUND_COMMIT;
  plan->commitAtOnce = inBackground ? 0 : plan->commitTarget;
}

bool isType(std::uint32_t setType) noexcept { return sqloMemSetTypeClass(setType)[0] != '\0'; }

SqlzZrc makePlan(const SqloMemSetRequest& request, SetPlan* plan) noexcept {
  const char* name = request.name == nullptr ? "" : request.name;
  if (request.size != sizeof request || !isType(request.setType) || std::strlen(name) >= SQLO_SET_NAME_BYTES)
    return SQLO_INV_PARM;
  const bool grows = (request.options & SQLO_SET_GROWABLE) != 0;
  const std::uint32_t most = grows && request.maxBytes != 0 ? request.maxBytes : request.bytes;
  if (request.bytes == 0 || most < request.bytes) return SQLO_MEM_SIZE;
  *plan = {};
  plan->setType = request.setType;
  plan->options = request.options & ~(SQLO_SET_BACKGROUND_COMMIT | SQLO_SET_PENDING_REPORT);
  plan->options |= request.setType == SQLO_SET_PRIVATE ? SQLO_SET_PRIVATE_OPTION : SQLO_SET_SHARED;
  // The system does not take pinned memory back piece by piece.
  if ((plan->options & SQLO_SET_PINNED) != 0) plan->options &= ~(SQLO_SET_DECOMMITABLE | SQLO_SET_REDUCIBLE);
  plan->name = name;
  plan->chunks = sqloChunksOf(request.bytes);
  plan->maxChunks = sqloChunksOf(most);
  plan->increment = std::max(sqloChunksOf(request.incrementBytes), 1U);
  const std::uint32_t configured = configuredChunks(request.setType);
  truncate(plan, most, configured);
  if (request.paddingBytes != 0) pad(plan, request.paddingBytes, configured);
  if (sqloChunksOf(request.heapBytes) > plan->chunks)
    return complain(FID_sqlocshr, 20, SQLO_MEM_SIZE, "Insufficient set size for heap reservations.");
  planCommit(plan, request);
  return 0;
}

// ---- making the set in its window ------------------------------------------------------------------------------

void buildRecords(SMemSet* set, std::uint32_t window, const SetPlan& plan) noexcept {
  set->m_window = window;
  set->m_setType = plan.setType;
  set->m_options = plan.options;
  set->m_keepCommitChunks = plan.keepCommit;
  set->m_referenceChunks = plan.chunks;
  set->m_maxChunksAllowed = plan.maxChunks;
  set->m_chunkIncrement = plan.increment;
  set->m_maxFreeChunks = SQLO_SET_CHUNKS_MOST;
  set->m_maxFreePercent = 100;
  set->m_fastEnabled = (plan.options & SQLO_SET_CHUNK_KEEP) != 0;
  set->m_fillsFreed = plan.fillsFreed;
  set->m_commitTarget = plan.commitTarget;
  ossCopyText(set->m_name, sizeof set->m_name, plan.name);
  set->m_latch.init(SQLO_LT_SMemSet__MemLatchType__latch, set->isPrivate() ? 0 : SQLO_LATCH_BETWEEN_PROCESSES);
  set->addChunkGroupToSet(plan.chunks);
  set->refreshMaxFreeChunks();
  set->m_eyeCatcher = MEM_SET_EYE_CATCHER;
}

// Large pages as far as the machine grants them; what is to be committed at once.
SqlzZrc furnish(SMemSet& set, const SetPlan& plan) noexcept {
  if (set.has(SQLO_SET_LARGE_PAGES) &&
      ossPreferLargePages(set.addressOf(0), std::size_t{plan.chunks} << SQLO_CHUNK_SHIFT) != 0) {
    set.m_options &= ~SQLO_SET_LARGE_PAGES;
    warn("Can not continue with large page support, disabling to continue", plan.setType);
  }
  if (plan.commitAtOnce == 0) return 0;
  const SetOperation operation(set);
  return set.commitMemory({0, plan.commitAtOnce}) == 0 ? 0 : SQLO_NOSEG;
}

SqlzZrc registerNew(SMemSet& set) noexcept {
  const SqlzZrc result = sqloRegisterMemorySetWithPMC(&set);
  if (result == 0) return 0;
  return complain(FID_sqlocshr, 30, SQLO_NO_INS_MEM, "Insufficient INSTANCE_MEMORY to allocate new memory set.");
}

// ---- private sets ----------------------------------------------------------------------------------------------

std::size_t bytesWithRecords(std::uint32_t chunks) noexcept { return (std::size_t{chunks} + 1) << SQLO_CHUNK_SHIFT; }

void destroyPrivate(std::uint32_t window, std::uint32_t chunks) noexcept {
  (void)ossUnmapAt(addressOfWindow(PRIVATE_WINDOWS, window), bytesWithRecords(chunks));
  sqloi_freeWindow(window);
}

// Windows that something else lies in are passed over, for good.
SqlzZrc reservePrivate(std::uint32_t chunks, std::uint32_t* windowOut) noexcept {
  for (std::uint32_t window = sqloi_takeWindow(0); window != PRIVATE_WINDOWS.windows;
       window = sqloi_takeWindow(window + 1)) {
    const std::uint64_t address = addressOfWindow(PRIVATE_WINDOWS, window);
    int error = ossReserveAt(address, bytesWithRecords(chunks));
    if (error == 0) {
      error = ossCommit(address, SQLO_CHUNK_BYTES);
      *windowOut = window;
      if (error == 0) return 0;
      (void)ossUnmapAt(address, bytesWithRecords(chunks));
    }
    sqloi_freeWindow(window);
    if (error != EEXIST) return SQLO_NOSEG;
  }
  return SQLO_NOSEG;
}

SqlzZrc createPrivate(const SetPlan& plan, SMemSet** out) noexcept {
  std::uint32_t window = 0;
  SqlzZrc result = reservePrivate(plan.chunks, &window);
  if (result != 0) return result;
  SMemSet* set = sqloi_privateSetAt(window);
  buildRecords(set, window, plan);
  sqloi_notePrivate(window);
  result = registerNew(*set);
  if (result == 0) result = furnish(*set, plan);
  if (result != 0) {
    (void)sqloDeRegisterSet(set);
    destroyPrivate(window, plan.chunks);
    return result;
  }
  sqloi_listSet(*set);
  *out = set;
  return 0;
}

// ---- shared sets -----------------------------------------------------------------------------------------------

std::uint64_t sharedAddress(std::uint32_t entry) noexcept { return addressOfWindow(SHARED_WINDOWS, entry + 1); }

SqlzZrc mapShared(std::uint32_t entry, int fd) noexcept {
  const int error = ossMapSharedAt(sharedAddress(entry), ADDRESS_WINDOW_BYTES, fd, 0);
  if (error != 0) return error == EEXIST ? SQLO_ADDRESS_TAKEN : SQLO_NOSEG;
  sqloi_noteConnected(entry, fd);
  return 0;
}

void disconnect(std::uint32_t entry) noexcept {
  (void)ossUnmapAt(sharedAddress(entry), ADDRESS_WINDOW_BYTES);
  const int fd = sqloi_noteDisconnected(entry);
  if (fd >= 0) ossClose(fd);
}

// Makes the memory of a set: the file with its size, and blocks for the records.
SqlzZrc makeFile(std::uint32_t entry, std::uint32_t chunks, int* fdOut) noexcept {
  char path[PATH_BYTES];
  if (!sqloi_setPath(entry, path, sizeof path)) return SQLO_NOSEG;
  if (ossMakeMemoryFile(path, bytesWithRecords(chunks), fdOut) != 0) return SQLO_NOSEG;
  if (ossAllocateRange(*fdOut, 0, SQLO_CHUNK_BYTES) == 0) return 0;
  ossClose(*fdOut);
  return SQLO_NOSEG;
}

// Takes an entry for a set that is about to be made.
SqlzZrc enter(const SetPlan& plan, std::uint32_t* entryOut) noexcept {
  const DirectoryOperation operation;
  SetDirectory& directory = operation.directory();
  sqloi_tidyDirectory(directory);
  if ((plan.options & SQLO_SET_MULTIPLE_SETS_ALLOWED) == 0 &&
      sqloi_findEntry(directory, plan.setType, plan.name) != MEM_SET_ENTRIES)
    return SQLO_SHM_EXISTS;
  for (std::uint32_t number = 0; number < sqloi_sharedEntries(); ++number) {
    SetEntry& entry = directory.entries[number];
    if (entry.state != SetState::kFree || sqloi_isConnected(number)) continue;
    entry.setType = plan.setType;
    entry.options = plan.options;
    ossCopyText(entry.name, sizeof entry.name, plan.name);
    std::memset(entry.connected, 0, sizeof entry.connected);
    entry.connected[0] = regionProcessOwner();
    ++entry.serial;
    entry.state = SetState::kCreating;
    *entryOut = number;
    return 0;
  }
  return SQLO_NOSEG;
}

void changeState(std::uint32_t entry, SetState state) noexcept {
  const DirectoryOperation operation;
  operation.directory().entries[entry].state = state;
  if (state == SetState::kEnding) {
    sqloi_dropProcess(operation.directory().entries[entry]);
    sqloi_tidyDirectory(operation.directory());
  }
}

std::uint32_t serialOf(std::uint32_t entry) noexcept {
  const DirectoryOperation operation;
  return operation.directory().entries[entry].serial;
}

SqlzZrc buildShared(std::uint32_t entry, const SetPlan& plan) noexcept {
  int fd = -1;
  SqlzZrc result = makeFile(entry, plan.chunks, &fd);
  if (result != 0) return result;
  result = mapShared(entry, fd);
  if (result != 0) {
    ossClose(fd);
    return result;
  }
  SMemSet* set = sqloi_sharedSetAt(entry);
  buildRecords(set, entry + 1, plan);
  set->m_sharedOwner = sharedRowOwner(entry, serialOf(entry));
  result = registerNew(*set);
  if (result == 0) result = furnish(*set, plan);
  if (result == 0) sqloi_listSet(*set);
  if (result == 0) return 0;
  (void)sqloDeRegisterSet(set);
  disconnect(entry);
  return result;
}

SqlzZrc createShared(const SetPlan& plan, SMemSet** out) noexcept {
  std::uint32_t entry = 0;
  SqlzZrc result = sqloi_prepareDirectory();
  if (result == 0) result = enter(plan, &entry);
  if (result != 0) return result;
  result = buildShared(entry, plan);
  changeState(entry, result == 0 ? SetState::kReady : SetState::kEnding);
  if (result == 0) *out = sqloi_sharedSetAt(entry);
  return result;
}

// Whether this process has the set of an entry mapped. A forked child has what its parent had: another set may have
// taken the place of that one since.
bool hasMapped(std::uint32_t number, const SetEntry& entry) noexcept {
  if (!sqloi_isConnected(number)) return false;
  if (sqloi_sharedSetAt(number)->m_sharedOwner == sharedRowOwner(number, entry.serial)) return true;
  disconnect(number);
  return false;
}

// Maps the set of an entry. Complains of what the system does not give.
SqlzZrc mapSet(std::uint32_t number, const char** complaint) noexcept {
  char path[PATH_BYTES];
  int fd = -1;
  if (!sqloi_setPath(number, path, sizeof path) || ossOpenMemoryFile(path, &fd) != 0) {
    *complaint = "NULL shared memory mapping handle.";
    return SQLO_NOSEG;
  }
  const SqlzZrc result = mapShared(number, fd);
  if (result == 0) return 0;
  if (result == SQLO_NOSEG) *complaint = "Set address is NULL.";
  ossClose(fd);
  return result;
}

// Connects under the directory's latch, so that two threads do not do it at once and nobody frees the set meanwhile.
SqlzZrc connect(std::uint32_t setType, const char* name, SMemSet** out, bool* wasConnected,
                const char** complaint) noexcept {
  const DirectoryOperation operation;
  std::uint32_t number = sqloi_findEntry(operation.directory(), setType, name);
  if (number != MEM_SET_ENTRIES && operation.directory().entries[number].state == SetState::kCreating) {
    sqloi_tidyDirectory(operation.directory());  // its creator may have died
    number = sqloi_findEntry(operation.directory(), setType, name);
  }
  if (number == MEM_SET_ENTRIES) return SQLO_NOSEG;
  SetEntry& entry = operation.directory().entries[number];
  if (entry.state != SetState::kReady) return SQLO_NOTAVAIL;
  *out = sqloi_sharedSetAt(number);
  *wasConnected = hasMapped(number, entry);
  if (!*wasConnected)
    if (const SqlzZrc mapped = mapSet(number, complaint); mapped != 0) return mapped;
  if (sqloi_addProcess(entry)) return 0;
  if (!*wasConnected) disconnect(number);
  return SQLO_NOSEG;
}

SqlzZrc connectAndReport(EcfFunctionId function, std::uint32_t setType, const char* name, SMemSet** out,
                         bool* wasConnected) noexcept {
  if (out == nullptr) return complain(function, 10, SQLO_INV_PARM, "pSetHdl was NULL");
  *out = nullptr;
  const SqlzZrc prepared = sqloi_prepareDirectory();
  if (prepared != 0) return prepared;
  SMemSet* set = nullptr;
  const char* complaint = nullptr;
  const SqlzZrc result = connect(setType, name == nullptr ? "" : name, &set, wasConnected, &complaint);
  if (result == SQLO_NOTAVAIL) complaint = "Memory set not ready to accept connections.";
  if (complaint != nullptr) return complain(function, 20, result, complaint);
  if (result == 0) *out = set;
  return result;
}

SqlzZrc checkSet(EcfFunctionId function, const SMemSet* set) noexcept {
  const char* complaint = sqloi_complaintAbout(set);
  return complaint == nullptr ? 0 : complain(function, 10, SQLO_INV_MEM, complaint);
}

std::uint32_t entryOf(const SMemSet& set) noexcept { return set.m_window - 1; }

// ---- the memory controller -------------------------------------------------------------------------------------

SqloMemConsumerKind consumerKindOf(std::uint32_t setType) noexcept {
  switch (setType) {
    case SQLO_SET_DBM_DB:
      return SQLO_MEM_CONSUMER_DATABASE;
    case SQLO_SET_LOCAL_APL:
    case SQLO_SET_APL_CTL:
      return SQLO_MEM_CONSUMER_APPLICATION;
    default:
      return SQLO_MEM_CONSUMER_INSTANCE;
  }
}

struct ConsumerRef {
  SqloMemoryConsumer* record;
  std::uint64_t owner;
};

bool isStill(const SqloMemController& controller, ConsumerRef consumer) noexcept {
  return consumer.record != nullptr && Access::numberOf(controller, consumer.record) != 0 &&
         Access::ownerOf(*consumer.record) == consumer.owner;
}

// The record is the set's as long as its process lives and the controller was not begun anew.
bool isRegistered(SqloMemController& controller, ConsumerRef consumer) noexcept {
  const MemOperation operation(controller);
  return isStill(controller, consumer) && regionOwnerLives(consumer.owner);
}

ConsumerRef consumerOf(SMemSet& set) noexcept {
  const SetOperation operation(set);
  return {set.m_consumer, set.m_consumerOwner};
}

// Puts a consumer in the place of another one; false: somebody else has done so meanwhile.
bool replaceConsumer(SMemSet& set, ConsumerRef former, ConsumerRef consumer) noexcept {
  const std::uint32_t number =
      consumer.record == nullptr ? 0 : Access::numberOf(Access::theController(), consumer.record);
  const SetOperation operation(set);
  if (set.m_consumer != former.record || set.m_consumerOwner != former.owner) return false;
  set.m_consumerNumber = number;
  set.m_consumer = consumer.record;
  set.m_consumerOwner = consumer.owner;
  return true;
}

}  // namespace

SqlzZrc sqloi_setRequestMemory(SMemSet& set, std::uint32_t chunks) noexcept {
  const ConsumerRef consumer = consumerOf(set);
  SqloMemController* controller = SqloMemController::instance();
  if (consumer.record == nullptr || controller == nullptr || !controller->isActive()) return 0;
  MemRequest request = {consumer.record, chunks << SQLO_CHUNK_SHIFT, true, false};
  request.owner = consumer.owner;
  std::uint32_t attempts = 0;
  const SqlzZrc result = sqloi_requestMemory(*controller, request, false, &attempts);
  // The process that registered the set has ended: what the set has reserved is counted for this one from now on.
  if (result != SQLO_INV_MEM) return result;
  const SqlzZrc again = sqloRegisterMemorySetWithPMC(&set);
  return again != 0 ? again : sqloi_setRequestMemory(set, chunks);
}

void sqloi_setFreeMemory(SMemSet& set, std::uint32_t chunks) noexcept {
  const ConsumerRef consumer = consumerOf(set);
  SqloMemController* controller = SqloMemController::instance();
  if (consumer.record == nullptr || controller == nullptr || !controller->isActive()) return;
  const MemOperation operation(*controller);
  if (isStill(*controller, consumer)) Access::giveBack(*controller, *consumer.record, chunks << SQLO_CHUNK_SHIFT);
}

}  // namespace vek

// ---- life ------------------------------------------------------------------------------------------------------

SqlzZrc sqlocshr(const SqloMemSetRequest* request, SQLO_MEM_SET** set) noexcept {
  vek::VekTrace<vek::FID_sqlocshr> trace;
  if (request == nullptr || set == nullptr)
    return trace.exit(vek::complain(vek::FID_sqlocshr, 10, SQLO_INV_PARM, "pSetHdl was NULL"));
  *set = nullptr;
  vek::SetPlan plan;
  const SqlzZrc result = vek::makePlan(*request, &plan);
  if (result != 0) return trace.exit(result);
  return trace.exit(plan.setType == SQLO_SET_PRIVATE ? vek::createPrivate(plan, set) : vek::createShared(plan, set));
}

SqlzZrc sqlogmshr(std::uint32_t setType, const char* name, SQLO_MEM_SET** set) noexcept {
  vek::VekTrace<vek::FID_sqlogmshr> trace;
  bool wasConnected = false;
  const SqlzZrc result = vek::connectAndReport(vek::FID_sqlogmshr, setType, name, set, &wasConnected);
  if (wasConnected) (void)vek::complain(vek::FID_sqlogmshr, 30, 0, "Shared memory set is already connected.");
  return trace.exit(result);
}

bool sqloIsSetAlreadyConnected(std::uint32_t setType, const char* name) noexcept {
  vek::VekTrace<vek::FID_sqloIsSetAlreadyConnected> trace;
  if (vek::sqloi_prepareDirectory() != 0) return trace.exit(false);
  const vek::DirectoryOperation operation;
  const std::uint32_t entry = vek::sqloi_findEntry(operation.directory(), setType, name == nullptr ? "" : name);
  return trace.exit(entry != vek::MEM_SET_ENTRIES && vek::hasMapped(entry, operation.directory().entries[entry]));
}

SqlzZrc sqloConnectIfNotConnected(std::uint32_t setType, const char* name, SQLO_MEM_SET** set) noexcept {
  vek::VekTrace<vek::FID_sqloConnectIfNotConnected> trace;
  bool wasConnected = false;
  return trace.exit(vek::connectAndReport(vek::FID_sqloConnectIfNotConnected, setType, name, set, &wasConnected));
}

SqlzZrc sqloqshr(std::uint32_t setType, const char* name, SqloMemSetInfo* info) noexcept {
  vek::VekTrace<vek::FID_sqloqshr> trace;
  if (info == nullptr) return trace.exit(SQLO_INV_PARM);
  SQLO_MEM_SET* set = nullptr;
  bool wasConnected = false;
  SqlzZrc result = vek::connectAndReport(vek::FID_sqloqshr, setType, name, &set, &wasConnected);
  if (result != 0) return trace.exit(result);
  result = sqloGetSetInfo(set, info);
  if (!wasConnected) (void)sqlodshr(set);
  return trace.exit(result);
}

SqlzZrc sqlodshr(SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqlodshr> trace;
  const SqlzZrc result = vek::checkSet(vek::FID_sqlodshr, set);
  if (result != 0 || set->isPrivate()) return trace.exit(SQLO_INV_MEM);
  const std::uint32_t entry = vek::entryOf(*set);
  const vek::DirectoryOperation operation;
  vek::disconnect(entry);
  vek::sqloi_dropProcess(operation.directory().entries[entry]);
  vek::sqloi_tidyDirectory(operation.directory());
  return trace.exit(0);
}

SqlzZrc sqlofshr(SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqlofshr> trace;
  const SqlzZrc result = vek::checkSet(vek::FID_sqlofshr, set);
  if (result != 0) return trace.exit(result);
  {
    const vek::SetOperation operation(*set);
    (void)set->returnStrandedChunks();
  }
  SqloMemSetInfo info;
  (void)sqloGetSetInfo(set, &info);
  if (info.usedChunks != 0 && (info.options & SQLO_SET_CRASH_ON_LEAKS) != 0)
    sqloPanic(SQLO_INV_MEM, "A memory set is freed with chunks in use", set);
  if (info.usedChunks != 0 && (info.options & SQLO_SET_FFDC_REPORT) != 0)
    (void)pdLogValues(PD_LOG_RC_NONE, vek::FID_sqlofshr, 0, 40, PD_LEVEL_WARNING,
                      "A memory set is freed with chunks in use:", sqloMemSetTypeName(info.setType), info.usedChunks);
  (void)sqloDeRegisterSet(set);
  if (set->isPrivate()) {
    for (vek::MemPool* pool = set->m_pools; pool != nullptr; pool = pool->m_next) vek::sqloi_fastForget(*pool);
    vek::fastForgetKnowledge();
    vek::unpoison(set->addressOf(0), std::uint64_t{info.allocatedChunks} << SQLO_CHUNK_SHIFT);
    vek::sqloi_unlistSet(*set);
    set->m_eyeCatcher = 0;
    vek::destroyPrivate(set->m_window, info.allocatedChunks);
    return trace.exit(0);
  }
  const std::uint32_t entry = vek::entryOf(*set);
  char path[vek::PATH_BYTES];
  if (vek::sqloi_setPath(entry, path, sizeof path)) vek::ossCalls().unlink(path);
  vek::disconnect(entry);
  vek::changeState(entry, vek::SetState::kEnding);
  return trace.exit(0);
}

// ---- the memory controller -------------------------------------------------------------------------------------

SqlzZrc sqloRegisterMemorySetWithPMC(SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqloRegisterMemorySetWithPMC> trace;
  const SqlzZrc checked = vek::checkSet(vek::FID_sqloRegisterMemorySetWithPMC, set);
  if (checked != 0) return trace.exit(checked);
  SqloMemController* controller = SqloMemController::instance();
  if (controller == nullptr || !controller->isActive()) return trace.exit(0);
  const vek::ConsumerRef former = vek::consumerOf(*set);
  if (vek::isRegistered(*controller, former)) return trace.exit(0);
  SqloMemSetInfo info;
  (void)sqloGetSetInfo(set, &info);
  const char* name = info.name[0] != '\0' ? info.name : sqloMemSetTypeClass(info.setType);
  SqloMemoryConsumer* record = nullptr;
  const SqlzZrc result = controller->registerConsumer(&record, info.allocatedChunks << SQLO_CHUNK_SHIFT, name, nullptr,
                                                      nullptr, false, vek::consumerKindOf(info.setType));
  if (result == 0 && !vek::replaceConsumer(*set, former, {record, vek::regionProcessOwner()}))
    (void)controller->deregisterConsumer(record);
  return trace.exit(result);
}

SqlzZrc sqloDeRegisterSet(SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqloDeRegisterSet> trace;
  const SqlzZrc checked = vek::checkSet(vek::FID_sqloDeRegisterSet, set);
  if (checked != 0) return trace.exit(checked);
  const vek::ConsumerRef consumer = vek::consumerOf(*set);
  if (!vek::replaceConsumer(*set, consumer, {nullptr, 0})) return trace.exit(0);
  SqloMemController* controller = SqloMemController::instance();
  if (consumer.record == nullptr || controller == nullptr || !controller->isActive()) return trace.exit(0);
  // It may have been registered by another process, which lives or not.
  const vek::MemOperation operation(*controller);
  if (vek::isStill(*controller, consumer)) vek::Access::remove(*controller, *consumer.record);
  return trace.exit(0);
}
