#!/usr/bin/env bash
# Compares what the shared library exports with the list, or writes the list anew.
# usage: exports.sh compare|update LIBRARY
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
readonly LIST=cmake/check/exports.txt

# Names of defined dynamic symbols. Inline functions of the standard library that the compiler kept are not ours.
exported() {
  nm --dynamic --defined-only --format=posix "$1" | cut -d' ' -f1 | grep -Ev '^_Z[A-Z]*(St|NSt|NKSt|9__gnu_cxx)' |
    LC_ALL=C sort
}

case $1 in
  update) exported "$2" >"$LIST" && echo "$(wc -l <"$LIST") names in ${LIST##*/}" ;;
  compare)
    if ! difference=$(diff <(exported "$2") "$LIST"); then
      sed -n -e 's/^< /exported, not in the list: /p' -e 's/^> /in the list, not exported: /p' <<<"$difference"
      exit 1
    fi
    echo "$(wc -l <"$LIST") names, as listed"
    ;;
  *) echo "usage: exports.sh compare|update LIBRARY" >&2 && exit 2 ;;
esac
