#!/usr/bin/env bash
# Makes the reference pages of the exported interface. Fails on anything that is not documented, except what the comment
# of its record, its file or its base speaks for: fields, macros, copying and moving, overriding.
# usage: docs.sh BUILD
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
export VEKSYS_GENERATED=$1/generated/public VEKSYS_DOCS=$1/docs
mkdir -p "$VEKSYS_DOCS"
doxygen docs/Doxyfile
readonly SPOKEN_FOR='(\((variable|macro definition)\) of |Member (\w+\(\w+ &&?\)|operator=)|override \(function\)).* is not documented'
readonly NOT_OURS='scope for class std::.* not found'
faults=$(grep -Ev -e "$SPOKEN_FOR" -e "$NOT_OURS" "$VEKSYS_DOCS/warnings" || true)
if [[ -n $faults ]]; then
  printf '%s\n' "$faults"
  exit 1
fi
echo "Reference pages: $VEKSYS_DOCS/html/index.html"
