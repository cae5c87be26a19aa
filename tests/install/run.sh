#!/usr/bin/env bash
# Installs a build into a directory that it was not configured for, moves that, and uses it as a stranger would: with
# find_package, with pkg-config, and from the command line.
# usage: run.sh [-v] BUILD
set -euo pipefail
[[ $1 != -v ]] || { shift && set -x; }
BUILD=$(realpath "$1")
HERE=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
WORK=$(mktemp -d)
readonly BUILD HERE WORK
trap 'rm -rf "$WORK"' EXIT
export VEK_SHM_DIR=$WORK/shm VEK_USER_DIR=$WORK/user VEK_SYSTEM_DIR=$WORK/system VEK_INSTANCE_DIR=$WORK/instance
export VEKINSTANCE=installed
unset VEK_MESSAGE_DIR VEKPATH VEK_SKIP_TRACE
mkdir "$VEK_SHM_DIR"

run() {
  local name=$1
  shift
  "$@" || { echo "$name: failed" && exit 1; }
  echo "ok  $name"
}

cmake --install "$BUILD" --prefix "$WORK/first" >"$WORK/log"
mv "$WORK/first" "$WORK/prefix"
PREFIX=$WORK/prefix
LIBDIR=$(dirname "$(find "$PREFIX" -name libveksys.a)")

cmake -S "$HERE" -B "$WORK/programs" -G Ninja -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_BUILD_TYPE=Release >"$WORK/log" ||
  { cat "$WORK/log" && exit 1; }
cmake --build "$WORK/programs" >"$WORK/log" || { cat "$WORK/log" && exit 1; }
readelf -rW "$WORK/programs/position_dependent" | grep -q '_COPY .* g_sqltCompTraceFlags' ||
  { echo "position_dependent has no copy of the trace words: it does not test what it should" && exit 1; }
for program in position_independent position_dependent static_library; do
  run "find_package, $program" "$WORK/programs/$program"
done
run "find_package, a library opened at run time" "$WORK/programs/opener" "$WORK/programs/libopened.so"

export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
readonly SOURCES=("$HERE"/{main,program,second}.cpp)
read -ra cflags <<<"$(pkg-config --cflags veksys)"
read -ra libs <<<"$(pkg-config --libs veksys)"
read -ra private <<<"$(pkg-config --static --libs-only-other veksys)"
g++ -std=c++20 "${SOURCES[@]}" "${cflags[@]}" "${libs[@]}" -Wl,-rpath,"$LIBDIR" -o "$WORK/shared"
run "pkg-config, shared" "$WORK/shared"
g++ -std=c++20 "${SOURCES[@]}" "${cflags[@]}" "$LIBDIR/libveksys.a" "${private[@]}" -o "$WORK/static"
run "pkg-config, static" "$WORK/static"

sed -n '/^```cpp$/,/^```$/p' "$HERE/../../README.md" | sed '/^```/d' >"$WORK/readme.cpp"
g++ -std=c++20 -Wall -Wextra -Werror "$WORK/readme.cpp" "${cflags[@]}" "${libs[@]}" -Wl,-rpath,"$LIBDIR" -o "$WORK/readme"
run "the program of the README" grep -q 'SQLO_FNEX "File not found."' <<<"$("$WORK/readme")"

explanation=$("$PREFIX/bin/veksys" rc SQLO_NOMEM)
run "the command finds its library" grep -q 0x8B0F0000 <<<"$explanation"
run "the command finds its messages" grep -q SQL1 <<<"$explanation"
run "the command has a manual page" test -s "$PREFIX/share/man/man1/veksys.1"
