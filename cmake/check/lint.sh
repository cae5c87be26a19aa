#!/usr/bin/env bash
# Runs clang-tidy over the sources of a build, or over those whose path contains one of the given names.
# usage: lint.sh BUILD [NAME...]
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.." || exit
BUILD=$1
shift

sources() {
  sed -n 's/^ *"file": "\(.*\)",\?$/\1/p' "$BUILD/compile_commands.json" | sort -u | grep -F -e "${1:-/}" "${@/#/-e}"
}

# A source that the tool itself does not survive is a finding, too.
export BUILD
# shellcheck disable=SC2016
readonly LINT_ONE='clang-tidy-14 --quiet --use-color=false -p "$BUILD" "$0" 2>/dev/null && exit 0
result=$?
((result < 128)) || echo "$0: clang-tidy ended with signal $((result - 128))"
exit 1'
findings=$(sources "$@" | xargs -P "$(nproc)" -n 1 bash -c "$LINT_ONE") && result=0 || result=1
if ((result != 0)); then
  awk '!seen[$0]++' <<<"$findings" # a header is read once per source that includes it
  exit 1
fi
echo "Nothing to complain about."
