// What the coordinator and its workers hand to each other: slots of shared memory with a request and its reply.
//
// A slot belongs to the coordinator until its number is sent to a worker, and to the worker until the number comes
// back. Everything in it is plain data: no pointer of one process means anything to another.
#pragma once

#include <veksys/diag/sqlca.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "blocks.h"
#include "findings.h"

namespace demo {

enum class RequestKind : std::uint32_t {
  kLoad,    // parse the stanzas of the text, keep and index their packages
  kVerify,  // verify the packages that the load request `block` left with this worker
};

struct Request {
  std::uint32_t number;  // from 1, in the order in which the client made them
  RequestKind kind;
  std::uint32_t block;  // number of the load request
  bool cut;             // the last stanza of the text is incomplete
  std::uint64_t firstLine;
  std::size_t textBytes;
};

struct SectionRow {
  char name[24];  // terminated
  std::uint64_t packages;
  std::uint64_t installedKib;
};

inline constexpr std::size_t kSectionRows = 64;  // more are added up in the last one, "(other)"

struct Reply {
  sqlca area;
  std::uint64_t stanzas;
  std::uint64_t packages;
  std::uint64_t installedKib;
  std::uint64_t busyNs;
  std::uint64_t poolPeakBytes;  // the most that the worker's pool ever owned
  std::uint32_t sectionCount;
  SectionRow sections[kSectionRows];
  FindingTable findings;
};

struct Slot {
  Request request;
  Reply reply;
  char text[kBlockBytes];
};
static_assert(std::is_trivially_copyable_v<Slot>);

}  // namespace demo
