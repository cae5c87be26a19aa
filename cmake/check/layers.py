#!/usr/bin/env python3
"""Checks that includes point down the floors only.

The build keeps a floor from seeing another one's headers; this check covers what an include path cannot: the direction
between all folders, paths with "..", and which folders may talk to the operating system."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Folder -> the folders it may include from, besides its own and the exported headers. The longest folder name counts.
FLOORS = {
    "include/veksys": [],
    "platform": [],
    "diag/base": ["platform"],
    "sync": ["platform", "diag/base"],
    "memory": ["platform", "diag/base", "sync"],
    "values": ["platform", "diag/base", "sync"],
    "compose": ["platform", "diag/base", "sync", "memory", "values"],
    "tools": [],
    "examples": [],
    "cmake/gen": [],
    "tests": ["platform", "diag/base", "sync", "memory", "values", "compose", "tools", "examples", "fuzz"],
    "bench": ["platform", "diag/base", "sync", "memory", "values"],
    "fuzz": ["platform", "diag/base", "sync", "values", "tools"],
}

# Folders that talk to the operating system themselves.
OUTSIDE = ("platform", "tools", "examples", "tests", "bench", "fuzz", "cmake/gen")
SYSTEM_HEADERS = re.compile(
    r"(?:sys|arpa|net|netinet|linux|asm|bits)/.*"
    r"|(?:aio|dirent|dlfcn|execinfo|fcntl|fnmatch|ftw|getopt|glob|grp|link|mqueue|netdb|poll|pthread|pwd|regex|sched"
    r"|search|semaphore|shadow|spawn|syslog|termios|ucontext|unistd|utime|wordexp)\.h"
)
GENERATED = {"veksys_functions.h", "zrc_map.inc", "ecf_tables.inc", "sqlstates.inc", "latch_types.inc", "territories.inc"}
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^>"]+)[>"]', re.MULTILINE)


def floor_of(path):
    found = [floor for floor in FLOORS if path == floor or path.startswith(floor + "/")]
    return max(found, key=len, default=None)


def complaint(file, floor, bracket, name):
    """Why a file of this floor may not include this name, or None."""
    if ".." in pathlib.PurePath(name).parts:
        return "climbs with '..'; name the file from the root of the tree"
    if bracket == "<" and SYSTEM_HEADERS.fullmatch(name):
        return None if floor.startswith(OUTSIDE) else "system headers stand under platform/ only; platform/osse.h offers their services"
    if name.startswith("veksys/") or name in GENERATED:
        return None
    if bracket == "<" and "/" not in name:  # <memory> is the standard library's
        return None
    target = floor_of(name) or (floor if (file.parent / name).exists() else None)
    if target is None or target == floor or target in FLOORS[floor]:
        return None
    below = ", ".join(["include/veksys"] + FLOORS[floor])
    return f"{floor} stands on {below} only"


def faults_of(file):
    path = file.relative_to(ROOT)
    floor = floor_of(path.as_posix())
    text = file.read_text()
    for match in INCLUDE.finditer(text):
        reason = complaint(file, floor, *match.groups())
        if reason:
            line = text.count("\n", 0, match.start()) + 1
            yield f"{path}:{line}: {match.group(0).strip()}: {reason}"


def main():
    files = [f for floor in FLOORS for f in (ROOT / floor).rglob("*") if f.suffix in (".h", ".cpp", ".c", ".def")]
    faults = [fault for file in sorted(set(files)) for fault in faults_of(file)]
    print("\n".join(faults) if faults else f"{len(set(files))} files include downward only")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
