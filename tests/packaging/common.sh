# What the packaging tests share. Their CMakeLists.txt sets in the environment: SOURCE, BUILD,
# SCRATCH, CXX, CXX_FLAGS, TOOLCHAIN (empty when native), EMULATOR, READELF, LAUNCHER.
set -eu

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# A failing command's output is all that anybody wants to read.
quietly() {
  "$@" >"$SCRATCH/log" 2>&1 || {
    cat "$SCRATCH/log" >&2
    fail "$@"
  }
}

# configure SOURCE-DIRECTORY BUILD-DIRECTORY ARGUMENT...
configure() {
  from=$1
  to=$2
  shift 2
  cmake -S "$from" -B "$to" -G Ninja ${TOOLCHAIN:+--toolchain "$TOOLCHAIN"} \
    -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_COMPILER_LAUNCHER="${LAUNCHER:-}" "$@"
}

# The way from here to a library's dependencies of the same directory, for linkers that need it.
compile_consumer() {
  output=$1
  shift
  quietly $CXX $CXX_FLAGS -std=c++17 -o "$output" "$SOURCE/tests/packaging/consumer/main.cpp" "$@"
}

# runs WHAT PROGRAM: it ends well, and what it says is shown.
runs() {
  said=$($EMULATOR "$2") || fail "$1: $2 ended with $?"
  echo "$1: $said"
}

rm -rf "$SCRATCH"
mkdir -p "$SCRATCH"
