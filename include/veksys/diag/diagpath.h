// Where a process keeps its diagnostic files: the diagnostic directory, its alternate, and how both are split.
//
// The configured value is a parameter of the instance (VekInstanceControl in veksys/host.h): DIAGPATH, ALT_DIAGPATH,
// or CF_DIAGPATH for the cluster caching facility. It is an absolute path, and it may end, after a blank, in a split
// pattern that gives each host or member a directory of its own below it:
//
//   pattern   directory, for host "alpha" and member 3, below /var/diag
//   $n        /var/diag/NODE0003/
//   $m        /var/diag/DIAG0003/
//   $h        /var/diag/HOST_alpha/
//   $h$n      /var/diag/HOST_alpha/NODE0003/
//   $h$m      /var/diag/HOST_alpha/DIAG0003/
//
// A separator behind the pattern is accepted. A pattern alone splits the default directory. An empty DIAGPATH stands
// for the default directory: "diag" in the directory of the instance.
//
// Every path that leaves these functions ends in a separator, so that a file name can follow. Paths have up to
// PD_DIAGPATH_BYTES bytes with their terminator.
//
// Rules that hold for all of them
//   - Directories are made with mode 0700. One that is there already is used only when it belongs to the calling user
//     or to root and nobody else may write in it, since what is written there is trusted later.
//   - When a function does not answer 0 its buffer holds the empty text, unless it says otherwise.
//   - A value that cannot be used as it stands is reported once per process to the diagnostic log.
//   - Any thread may call them at any time, except while it holds a latch of a memory set or pool.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/types.h"

// Room for any path that these functions give out, with its terminator.
inline constexpr std::size_t PD_DIAGPATH_BYTES = 256;

// A default path shorter than this is not kept.
inline constexpr std::size_t PD_DIAGPATH_SHORTEST_KEPT = 10;

// Kinds of paths, for pdGetDiagPath.
inline constexpr std::uint32_t PD_DIAGPATH_DEFAULT = 1;    // what an instance without configuration uses
inline constexpr std::uint32_t PD_DIAGPATH_PRIMARY = 2;    // DIAGPATH
inline constexpr std::uint32_t PD_DIAGPATH_ALTERNATE = 3;  // ALT_DIAGPATH
inline constexpr std::uint32_t PD_DIAGPATH_CA = 4;         // CF_DIAGPATH: the cluster caching facility's
inline constexpr std::uint32_t PD_DIAGPATH_IN_USE = 5;     // where this process writes: the alternate after a switch

// Types of values, as pdDiagpathType tells them: bits that say by what the value is split.
inline constexpr std::uint32_t PD_DIAGPATH_PLAIN = 0;
inline constexpr std::uint32_t PD_DIAGPATH_BY_HOST = 0x1;    // $h
inline constexpr std::uint32_t PD_DIAGPATH_BY_NODE = 0x2;    // $n
inline constexpr std::uint32_t PD_DIAGPATH_BY_MEMBER = 0x4;  // $m
inline constexpr std::uint32_t PD_DIAGPATH_UNKNOWN = 0x80;   // it ends in a pattern that is none of those accepted

// No particular member, for pdDiagpathSplitGetByNode.
inline constexpr std::int16_t PD_DIAGPATH_NO_NODE = -1;

extern "C" {

// ---- the directories of this process ----------------------------------------------------------------------------

// The diagnostic directory of this process (its alternate when `alternate` is set); made when it is missing.
//
//   Result   0
//            SQLO_INV_PARM: no buffer
//            SQLO_PATH_TOO_LONG: the path does not fit into `bytes`, or the value is too long for any buffer
//            SQLT_DIAGPATH_NO_ALTERNATE: ALT_DIAGPATH is not set
//            SQLT_DIAGPATH_SAME_AS_ALTERNATE: ALT_DIAGPATH names the same directory as DIAGPATH
//            a code of pdMkdirInternal or pdDiagpathVerify: the directory cannot be used; the next call tries again
// A DIAGPATH that is no absolute path, too long, or ends in an unknown pattern is reported, and the default directory
// (for an unknown pattern: the path before it) is taken instead.
VEK_EXPORT SqlzZrc sqltGetDiagPath(char* buffer, std::size_t bytes, bool alternate) noexcept;

// The alternate directory: sqltGetDiagPath with `alternate` set.
VEK_EXPORT SqlzZrc sqltGetAltDiagPath(char* buffer, std::size_t bytes) noexcept;

// The directory of the cluster caching facility; that of DIAGPATH when CF_DIAGPATH is empty. Results as above.
VEK_EXPORT SqlzZrc sqltGetCaDiagPath(char* buffer, std::size_t bytes) noexcept;

// The default directories, "diag" and "diag_alternate" in the directory of the instance, whatever is configured; made
// when they are missing. A path of at least PD_DIAGPATH_SHORTEST_KEPT characters is kept for the life of the process
// once it was found usable; otherwise the next call starts anew. Results as above.
VEK_EXPORT SqlzZrc sqltGetDefaultDiagPath(char* buffer, std::size_t bytes) noexcept;
VEK_EXPORT SqlzZrc sqltGetDefaultAltDiagPath(char* buffer, std::size_t bytes) noexcept;

// The path of a kind (PD_DIAGPATH_...). Results as above; SQLO_INV_PARM as well for a kind that there is not.
VEK_EXPORT SqlzZrc pdGetDiagPath(std::uint32_t kind, char* buffer, std::size_t bytes) noexcept;

// Makes the alternate directory the one this process writes to, for the rest of its life; children made by fork
// inherit it. The library does so itself when writing to the diagnostic directory fails.
//
//   Result   0: it is in use now, or was already. Otherwise nothing changes: codes as of sqltGetAltDiagPath
VEK_EXPORT SqlzZrc pdSwitchToAltDiagPath() noexcept;

// ---- split values -----------------------------------------------------------------------------------------------

// By what a value is split: PD_DIAGPATH_PLAIN, a combination of the bits above, or PD_DIAGPATH_UNKNOWN. A null value is
// plain.
VEK_EXPORT std::uint32_t pdDiagpathType(const char* value) noexcept;

// Whether a value ends in a split pattern that is known.
VEK_EXPORT bool pdIsDiagpathSplit(const char* value) noexcept;

// The directory that a value names for this process's own host and member. Nothing is made or checked on disk.
//
//   Result   0; a value without a pattern gives its plain path
//            SQLO_INV_PARM: no value or no buffer; SQLO_PATH_NOT_ABSOLUTE; SQLO_PATH_TOO_LONG
//            SQLT_DIAGPATH_PATTERN_UNKNOWN: the pattern is unknown
//            SQLT_DIAGPATH_SPLIT_MISSING: the hosts and members of the instance could not be read, or do not know this
//            one
// With one of the last two the buffer holds the plain path, and the reason is reported.
VEK_EXPORT SqlzZrc pdDiagpathSplitGet(const char* value, char* buffer, std::size_t bytes) noexcept;

// The same for another host or member.
//
//   host   its name as the node configuration has it; null or empty: the host of the member given, or this one
//   node   its number; PD_DIAGPATH_NO_NODE: the first one on the host given, or this process's
// A host or member that the instance does not have, and one that is given for a value that is not split by it, is
// reported; the buffer holds the plain path then and the answer is SQLT_DIAGPATH_SPLIT_MISSING.
VEK_EXPORT SqlzZrc pdDiagpathSplitGetByNode(const char* value, const char* host, std::int16_t node, char* buffer,
                                            std::size_t bytes) noexcept;

// ---- directories ------------------------------------------------------------------------------------------------

// Whether diagnostic files may be kept in a directory.
//
//   Result   0
//            SQLO_INV_PARM: null or empty; SQLO_PATH_NOT_ABSOLUTE; SQLO_PATH_TOO_LONG; SQLO_PATH_NOT_EXIST
//            SQLO_PATH_NOT_DIRECTORY; SQLO_PATH_IS_SYMLINK: it is a link that a third user placed
//            SQLT_DIAGPATH_NOT_TRUSTED: it belongs to a third user, or others than its owner may write in it
//            SQLO_PATH_NOT_WRITABLE: this process may not make files in it (SQLO_FILE_READ_ONLY: nobody may, the file
//            system is read-only)
//            another code for an error of the operating system (sqloMapUnexpectedFileSystemErrorToZRC)
VEK_EXPORT SqlzZrc pdDiagpathVerify(const char* path) noexcept;

// Makes a directory and its missing parents, mode 0700 whatever the process's mask. One that is there already is
// success, also when another process makes it at the same time.
//
//   Result   0; SQLO_INV_PARM: null or empty; SQLO_PATH_NOT_ABSOLUTE; SQLO_PATH_TOO_LONG; SQLO_PATH_NOT_DIRECTORY;
//            another code for an error of the operating system
VEK_EXPORT SqlzZrc pdMkdirInternal(const char* path) noexcept;

}  // extern "C"
