# The board build against a directory laid out like the board's, with the software platform's headers
# and library under the board's names: the library compiles, links and runs with nothing of platform/
# on any path, and so do the tests of what it needs of a platform.
. "$(dirname "$0")/common.sh"

# Only what the library and its tests are made of.
tree=$SCRATCH/tree
mkdir "$tree"
for part in include src cmake tests CMakeLists.txt LICENSE; do cp -r "$SOURCE/$part" "$tree"; done

board=$SCRATCH/vc
mkdir -p "$board/lib"
cp -r "$SOURCE/platform/include" "$board/include"
rm -r "$board/include/tessera_platform"
cp "$BUILD"/lib/libtessera_platform.so.1 "$board/lib"
for library in bcm_host openmaxil mmal mmal_core mmal_util mmal_vc_client vcos vchiq_arm; do
  ln -s libtessera_platform.so.1 "$board/lib/lib$library.so"
done

# What is there is picked without being asked for.
quietly configure "$tree" "$SCRATCH/build" -DCMAKE_BUILD_TYPE=Debug -DTESSERA_BOARD_ROOT="$board" \
  -DTESSERA_BUILD_TOOL=OFF -DTESSERA_BUILD_TESTS=ON -DTESSERA_TEST_FOLDERS="support;contract" \
  -DTESSERA_WERROR=ON -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
grep -q "Platform: board" "$SCRATCH/log" || fail "the board's libraries were not picked"
if grep -n "$SOURCE/platform" "$SCRATCH/build/compile_commands.json"; then
  fail "platform/ is on a path"
fi
quietly cmake --build "$SCRATCH/build" --target tessera
# Instead of /opt/vc/lib, which the run path names.
export LD_LIBRARY_PATH="$board/lib"
# The contract under emulation is a test of its own.
if [ -z "$EMULATOR" ]; then
  quietly cmake --build "$SCRATCH/build"
  quietly ctest --test-dir "$SCRATCH/build" --no-tests=error --output-on-failure -L contract
  echo "contract: $(grep -o '[0-9]*% tests passed.*' "$SCRATCH/log")"
fi
library=$SCRATCH/build/lib/libtessera.so
"$READELF" -d "$library" | grep -q 'R.*PATH.*\[/opt/vc/lib' || fail "the run path is not /opt/vc/lib"

compile_consumer "$SCRATCH/consumer" -I"$tree/include" -I"$board/include" -L"$SCRATCH/build/lib" \
  -ltessera -Wl,-rpath-link,"$board/lib" -Wl,-rpath,"$SCRATCH/build/lib"
runs "on the board's names" "$SCRATCH/consumer"
unset LD_LIBRARY_PATH

quietly cmake --install "$SCRATCH/build" --prefix "$SCRATCH/prefix"
grep -rqF -e "-I$board/include" "$SCRATCH/prefix" || fail "tessera.pc does not name the board's headers"
[ -z "$(find "$SCRATCH/prefix" -name '*platform*')" ] || fail "the software platform was installed"

# What is missing is named, all of it.
rm "$board/lib/libmmal.so" "$board/include/bcm_host.h"
if configure "$tree" "$SCRATCH/refused" -DTESSERA_PLATFORM=board -DTESSERA_BOARD_ROOT="$board" \
  >"$SCRATCH/log" 2>&1; then
  fail "a board without libmmal.so was accepted"
fi
for missing in lib/libmmal.so include/bcm_host.h; do
  grep -q "$board/$missing" "$SCRATCH/log" || fail "the message does not name $missing"
done
