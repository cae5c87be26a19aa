// Appending records to a file that many processes append to: each record whole, once, and at an offset that its writer
// knows while it writes.
//
// The file is opened and closed for each record. Beside it stands a lock file, ".<name>.lck", one page that every
// process maps: a robust mutex, what its owner is about to write, and which file is the current one. The kernel hands
// the mutex on when its owner dies; the next owner finds the noted intent and repairs the file before it writes:
//
//   1  open the file                             killed here: nothing has happened
//   2  take the mutex
//   3  size of the file;                           killed here: size is as before, nothing to repair
//      intent = {size, length, first bytes}
//   4  write                                       killed here: size is between and the first bytes are there: cut back
//                                                  to the noted size, or, where that is refused, followed by a line
//                                                  that says so
//   5  intent = none                               killed before: size is that of the whole record, it stays
//   6  give the mutex back, close the file
//
// A write that fails is cut back by its own writer; where that is refused its intent stays for the next one. So a
// record is in the file if its writer got 0 for it, or was killed between 4 and 6; in no other case.
//
// A file that is moved, removed or replaced by hand is noticed: the page knows the identity of the file, and the
// writer that of the page. One that does not end in a whole line when it becomes the current one gets that line,
// too. A switch of rotating files changes the page's count of moves, which a writer that opened the file before it had
// the mutex compares.
//
// Users of a page hold a shared flock on the lock file. One that finds it from another boot or damaged makes it anew
// while nobody else holds one, or, when somebody does for longer than a record takes, nevertheless: the page has a
// generation, by which its other users notice before they take the mutex and before they write.
//
// Where no lock file can be made (a full disk, a directory that is read-only), an exclusive flock on the file itself
// stands in. Whoever uses it looks under that lock whether there is a lock file meanwhile, and whoever makes a lock
// file takes that lock once before using it, so that both kinds exclude each other.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/dirs.h"

namespace vek {

inline constexpr unsigned APPEND_WAIT_MS = 5000;  // for a writer that keeps the lock: it has been stopped
inline constexpr std::size_t APPEND_NAME_BYTES = 80;
inline constexpr std::uint64_t APPEND_NO_LIMIT = ~0ULL;

struct AppendLockPage;

// A file that this process appends to. Zero-initialised but for the names; the caller sees to it that one thread at a
// time uses it, and that none does while the process forks.
struct AppendFile {
  char directory[PATH_BYTES];    // terminated, with a separator at its end
  char name[APPEND_NAME_BYTES];  // "vekdiag.log"; of a series the text before the number: "vekdiag"
  bool isSeries;                 // files <name>.<number>.log, lock file ".<name>.rotate.lck"

  AppendLockPage* page;  // null: not mapped
  int lockFd;
  std::uint64_t lockDevice;
  std::uint64_t lockInode;
  std::uint64_t generation;     // of the page when it was mapped
  int openFd;                   // of the file while it is open, else -1
  bool wasStuck;                // the last wait was in vain: the next ones are short
  std::uint32_t recordsToLook;  // until owner and mode of the file are looked at
};

// A text to append. `stamp`, when there is one, is told the offset before the text is written.
struct AppendText {
  char* bytes;
  std::size_t length;
  void (*stamp)(char* bytes, std::uint64_t offset, std::size_t length);
};

struct AppendPlan {
  AppendText text;
  AppendText (*firstText)();  // what an empty file begins with, asked for under the lock; null: nothing
  std::uint64_t fileBytes;    // of a series: the size that a file may reach; ignored otherwise
  std::uint64_t filesKept;    // of a series: how many files, the current one among them
};

// What happened, for those who report it.
struct AppendOutcome {
  std::uint64_t offset;     // where the text begins
  const char* failed;       // "open", "fstat", "lock", "lock file", "write", "switch"; null when nothing failed
  bool switchedFile;        // of a series: a new file was begun
  bool repaired;            // a record that a killed writer left was cut off or marked
  std::uint64_t freeBytes;  // in the file system, when switchedFile
  char path[PATH_BYTES + APPEND_NAME_BYTES + 32];  // of the file that was used or could not be
};

// Makes a file record. Opens nothing.
void appendPrepare(AppendFile& file, const char* directory, const char* name, bool isSeries) noexcept;

// Appends a text: whole, or not at all. To be called under a fault guard: a lock file that is cut while it is mapped is
// a fault, and the limit on file sizes a signal.
//
//   Result   0, or an errno value; ETIMEDOUT: another process kept the lock for APPEND_WAIT_MS; EPERM: the file or its
//            lock file belongs to another user, is open to others or is no regular file, which is noticed at once
//            when the file is another one or was written by others, and by the 16th record of a process when only its
//            owner or mode was changed; ELOOP: it is a symbolic link; EBUSY: the lock file is of another layout and in
//            use; ESTALE: files changed faster than they can be followed
//   Allocates nothing; a file and its lock file are made with mode 0600
int appendToFile(AppendFile& file, const AppendPlan& plan, AppendOutcome* outcome) noexcept;

// Gives the mapping of the lock file back.
void appendForget(AppendFile& file) noexcept;

// Gives it up without touching it, after a fault while the page was in use: what the thread's list of robust mutexes
// points to stays readable.
void appendAbandon(AppendFile& file) noexcept;

}  // namespace vek
