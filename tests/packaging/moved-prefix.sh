# Installs the build, moves the tree elsewhere, and builds and runs an application against it, once
# through pkg-config and once through find_package. Nothing may remember where it was first.
. "$(dirname "$0")/common.sh"

quietly cmake --install "$BUILD" --prefix "$SCRATCH/first"
prefix=$SCRATCH/moved
mv "$SCRATCH/first" "$prefix"
pc=$(find "$prefix" -name tessera.pc)
lib=$(dirname "$(dirname "$pc")")

if grep -rlF -e "$SCRATCH/first" -e "$BUILD" "$prefix/include" "$lib/pkgconfig" "$lib/cmake"; then
  fail "files above name a directory of the build"
fi

export PKG_CONFIG_LIBDIR="$lib/pkgconfig"
unset PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR
compile_consumer "$SCRATCH/by-pkg-config" $(pkg-config --cflags --libs tessera) \
  -Wl,-rpath-link,"$lib" -Wl,-rpath,"$lib"
runs pkg-config "$SCRATCH/by-pkg-config"

quietly configure "$SOURCE/tests/packaging/consumer" "$SCRATCH/consumer" \
  -Dtessera_DIR="$lib/cmake/tessera"
quietly cmake --build "$SCRATCH/consumer"
runs find_package "$SCRATCH/consumer/consumer"

if [ -e "$prefix/bin/tessera" ]; then
  $EMULATOR "$prefix/bin/tessera" info >"$SCRATCH/info" || fail "the installed tool does not run"
  for file in share/man/man1/tessera.1.gz share/bash-completion/completions/tessera; do
    [ -s "$prefix/$file" ] || fail "$file is not installed"
  done
fi
[ -s "$prefix/share/doc/tessera/LICENSE" ] || fail "the licence is not installed"
