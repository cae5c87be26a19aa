#!/usr/bin/env bash
# Checks the protocol models in verify/. Every model must hold, and must stop holding with each fault it knows how to
# make (BROKEN_... in its text): a model that cannot fail proves nothing.
# usage: verify.sh [NAME]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
readonly MODELS=$PWD/verify WORK=$PWD/build/verify

# outcome MODEL [FAULT]: explores every state; answers "holds", "fails", or "cut short".
outcome() {
  local folder=$WORK/${1##*/}${2:+.$2}
  mkdir -p "$folder" && cd "$folder"
  spin ${2:+-D"$2"} -a "$1" >spin.log
  cc -O2 -w -DCOLLAPSE -DMEMLIM=2048 -o pan pan.c
  ./pan -m1000000 >pan.log 2>&1
  if ! grep -q 'errors: 0$' pan.log; then
    echo fails
  elif grep -q 'Search not completed' pan.log; then
    echo "cut short"
  else
    echo holds
  fi
}

# expect OUTCOME NAME MODEL [FAULT]
expect() {
  local found
  found=$(outcome "${@:3}")
  [[ $found == "$1" ]] && { echo "ok      $2 $found" && return; }
  echo "FAILED  $2 $found; it should have: $1. See $WORK/${3##*/}${4:+.$4}/pan.log"
  return 1
}

result=0
for model in "$MODELS"/*"${1:-}"*.pml; do
  [[ -e $model ]] || continue
  name=$(basename "$model" .pml)
  expect holds "$name" "$model" || result=1
  while read -r fault; do
    expect fails "$name with $fault" "$model" "$fault" || result=1
  done < <(grep -o 'BROKEN_[A-Z_]*' "$model" | sort -u)
done
exit "$result"
