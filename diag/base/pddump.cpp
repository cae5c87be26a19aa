// Objects written to dump files: <diagnostic directory><process>.<thread>.<partition>.dump.bin, one per thread.
//
// A dump is a record that says whose it is, and then the object's bytes as they stand. The log gets a record that tells
// where in which file the object is. Nobody but its thread writes to a dump file, so that neither a lock nor the log's
// buffer is held while a large object is written.
#include <cerrno>
#include <cstring>

#include "diag/base/pddiagpath.h"
#include "diag/base/pdlog.h"
#include "diag/base/pdlog_state.h"
#include "diag/base/pdrecord.h"
#include "diag/base/traced.h"
#include "platform/library_mutex.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

constexpr std::size_t kHeaderBytes = 2048;

struct Dump {
  std::uint32_t size = 0;
  const void* data = nullptr;
  char path[PD_DIAGPATH_BYTES + 64] = {};
  char header[kHeaderBytes] = {};
  std::size_t headerBytes = 0;
  std::int64_t offset = -1;  // of the object
  const char* reason = "";   // why it was not dumped
  int error = 0;
};

void formatHeader(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, Dump* dump) noexcept {
  char processName[64];
  ossProcessName(processName, sizeof processName);
  PdRecordHeader header;
  header.timeNs = ossRealtimeNs();
  header.level = level;
  header.functionId = functionId;
  header.probe = probe;
  header.processId = ossProcessId();
  header.threadId = ossThreadId();
  header.processName = processName;
  header.instance = vekInstanceName();
  header.partition = vekInstanceControl()->partition;
  PdRecordBody body;
  body.dumpFile = dump->path;
  dump->headerBytes = pdFormatDumpRecord(header, body, dump->header, sizeof dump->header).length;
}

bool failWith(Dump* dump, const char* reason, int error) noexcept {
  dump->reason = reason;
  dump->error = error;
  return false;
}

// Appends header and object; a dump that could not be written whole is cut off again.
bool writeDump(Dump* dump) noexcept {
  int fd = -1;
  std::uint64_t bytes = 0;
  int error = ossOpenToAppend(dump->path, &fd, &bytes);
  if (error != 0) return failWith(dump, "the dump file cannot be opened", error);
  dump->offset = static_cast<std::int64_t>(bytes + dump->headerBytes);
  (void)pdStampIdentifier(dump->header, bytes, dump->headerBytes);
  if (ossFileSizeLimit() < bytes + dump->headerBytes + dump->size) error = EFBIG;  // the kernel would send a signal
  if (error == 0) error = ossWriteAll(fd, dump->header, dump->headerBytes);
  if (error == 0) error = ossWriteAll(fd, dump->data, dump->size);
  if (error != 0) (void)ossTruncate(fd, bytes);
  ossClose(fd);
  return error == 0 || failWith(dump, "the dump file cannot be written", error);
}

bool dumpInto(const PdDiagDirectory& directory, EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level,
              Dump* dump) noexcept {
  ossSnprintf(dump->path, sizeof dump->path, "%s%u.%u.%.3d.dump.bin", directory.path, ossProcessId(), ossThreadId(),
              vekInstanceControl()->partition);
  formatHeader(functionId, probe, level, dump);
  return writeDump(dump);
}

// Dumps to the diagnostic directory, to one that was made anew, to the alternate one. The log stays where it is: that
// an object finds no place says nothing about a record.
bool tryDirectories(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, Dump* dump) noexcept {
  if (dump->data == nullptr && dump->size != 0) return failWith(dump, "its address is null", EFAULT);
  const PdDiagDirectory directory = pdiTrustedDirectory();
  if (directory.length == 0) return failWith(dump, "there is no diagnostic directory", ENOENT);
  if (dumpInto(directory, functionId, probe, level, dump)) return true;
  if (dump->error == EFAULT) return false;  // the object, not the file
  if (pdiRenewDiagDirectory() == 0 && dumpInto(directory, functionId, probe, level, dump)) return true;
  if (pdiIsOnAlternate()) return false;
  const PdDiagDirectory alternate = pdiAlternateDirectory();
  return alternate.zrc == 0 && dumpInto(alternate, functionId, probe, level, dump);
}

}  // namespace
}  // namespace vek

SqlzZrc pdLogDump(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                  std::uint32_t level, const char* label, std::uint32_t size, const void* data) noexcept {
  if (vek::pdi_isOver(flags, level)) return SQLT_NOLOG;
  if (vek::pdi_isInsideLog() || vek::threadIsInsideLock()) return vek::pdi_drop();
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.message = label;
  if (!vek::pdi_hasPlace(call)) return vek::pdi_writeRecord(call);  // nobody would know of the object
  vek::Dump dump;
  dump.size = size;
  dump.data = data;
  bool isDumped = false;
  {
    const vek::PdInsideLog inside;
    isDumped = vek::tryDirectories(functionId, probe, level, &dump);
  }
  const SqlzZrc code = isDumped ? 0 : sqloMapUnexpectedFileSystemErrorToZRC(dump.error);
  vek::PdLogDumpFact fact = {
      .size = size, .data = data, .label = label, .object = {}, .error = dump.reason, .code = code};
  fact.object.dumped = isDumped;
  fact.object.offset = dump.offset;
  fact.object.writtenBytes = static_cast<std::uint32_t>(dump.headerBytes + size);
  fact.object.file = dump.path;
  fact.object.reason = dump.reason;
  const SqlzZrc result = vek::pdi_writeDumped(call, &fact);
  if (result != 0) return result;
  return isDumped ? 0 : SQLT_DIAGERR_DUMPERR;
}
