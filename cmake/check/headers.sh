#!/usr/bin/env bash
# Compiles every exported header as the only include of a program, with both compilers.
# usage: headers.sh GENERATED   the directory that holds the exported headers the build made
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.." || exit
readonly GENERATED=$1
readonly FLAGS=(-std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wold-style-cast
  -Iinclude "-I$GENERATED")

# alone COMPILER HEADER
alone() {
  printf '#include <%s>\nint main() {}\n' "$2" | "$1" -x c++ "${FLAGS[@]}" - ||
    { echo "$2 does not compile alone with $1" && return 1; }
}

headers=$({ (cd include && find veksys -name '*.h') && (cd "$GENERATED" && find veksys -name '*.h'); } | sort)
[[ $headers == *veksys/codes.h* ]] || { echo "veksys/codes.h is missing: run ./dev build first" && exit 1; }
result=0
for header in $headers; do
  for compiler in g++ clang++-14; do
    alone "$compiler" "$header" || result=1
  done
done
((result == 0)) && echo "$(wc -w <<<"$headers") headers compile alone with both compilers"
exit $result
