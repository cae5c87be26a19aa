// Ports: how a lower floor reaches a higher one.
//
// A lower floor calls through one of these hooks and never includes upward. The table is constant-initialised by
// compose/compose.cpp, which every build of the library contains; no hook is ever null. What answers today:
//
//   readSetting   a registry variable's value         the process environment
//   reportEvent   something for the diagnostic log    a record; one line on standard error where that fails
//   recordEvent   an event for a component's recorder nothing
//   formatItem    a structure-typed data item         not formatted: the caller prints bytes
//   member        host and partition look-up          one member: this process's own
//   attachTrace   the first trace point of a process  diag/base: skip switch, call-backs, attach
//   thread end    memory caches, latches              both give back what the thread has
//   process end   rows of the list of memory          are freed
//
// The embedding engine's facts are the sixth port: include/veksys/host.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/types.h"

struct PdtItem;

namespace vek {

// An event on its way to the diagnostic log.
struct PortEvent {
  std::uint32_t functionId;
  std::uint32_t probe;
  std::uint32_t level;  // 1 Severe, 2 Error, 3 Warning, 4 Info, 5 Critical, 6 Event
  SqlzZrc zrc;          // 0: none
  const char* message;  // terminated
};

// A member of the instance as the node configuration has it.
struct PortMember {
  std::int16_t partition;
  char host[256];  // terminated
};

enum class MemberAnswer { kFound, kUnknown, kUnreadable };  // kUnreadable: the node configuration could not be read

inline constexpr std::int16_t ANY_PARTITION = -1;

// An event on its way to a component's event recorder.
struct PortRecorderEvent {
  void* recorder;  // null: the default one of the component of the function identifier
  std::uint64_t event;
  std::uint64_t qualifiers;
  std::uint32_t functionId;
  std::uint32_t probe;
  std::uint32_t level;
  std::int64_t returnCode;
  std::size_t itemCount;
  const PdtItem* items;
};

struct Ports {
  // Copies the value of a variable, terminated; false when it is not set or does not fit. Never called while a lock
  // is held or from the trace's attach step.
  bool (*readSetting)(const char* name, char* value, std::size_t bytes);

  // Reports one event. Never called while a set or pool latch is held.
  void (*reportEvent)(const PortEvent& event);

  // Hands an event to a recorder. Called by a log call before it takes its lock.
  void (*recordEvent)(const PortRecorderEvent& event);

  // Formats a structure-typed item as text; returns the characters written, 0 when no formatter is registered.
  std::size_t (*formatItem)(std::uint32_t type, const void* data, std::uint32_t bytes, char* text, std::size_t room);

  // The first member of that partition (ANY_PARTITION: of any) on that host (null: on any). Asked by the logger: it
  // must not log.
  MemberAnswer (*member)(std::int16_t partition, const char* host, PortMember* out);

  // The attach step of a trace point: true when the process is attached to the instance's trace.
  bool (*attachTrace)();

  // Given back when a thread ends, before its trace segment and its slot: memory caches first, then latches.
  void (*flushMemoryCaches)();
  void (*checkLatches)();

  // Given back when the process ends in order; other threads may still run.
  void (*freeMemoryRows)();
};

extern Ports g_ports;

}  // namespace vek
