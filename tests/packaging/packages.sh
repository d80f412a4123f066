# Makes the Debian packages, lets apt unpack them with all they depend on into an empty root, and runs
# the tool there on the root's own loader and libraries.
. "$(dirname "$0")/common.sh"

for program in dpkg-scanpackages apt-get; do
  command -v $program >/dev/null || {
    echo "SKIPPED: $program is not installed"
    exit 77
  }
done
arch=$("$CXX" -dumpmachine | sed -e 's/arm-linux-gnueabihf/armhf/' -e 's/aarch64.*/arm64/' -e 's/x86_64.*/amd64/')

quietly cpack --config "$BUILD/CPackConfig.cmake" -B "$SCRATCH/packages"
cd "$SCRATCH/packages"
for package in libtessera libtessera-dev tessera-platform tessera-tool; do
  [ "$(dpkg-deb -f "$package"_*_"$arch".deb Architecture 2>/dev/null)" = "$arch" ] ||
    fail "no $package for $arch"
done

if command -v lintian >/dev/null; then
  quietly lintian --allow-root --fail-on error ./*_"$arch".deb
fi

# apt looks the packages up in a repository of their own, beside Debian's.
dpkg-scanpackages -m . >Packages 2>"$SCRATCH/log" || fail "dpkg-scanpackages"
root=$SCRATCH/root
TESSERA_APT_SOURCE="deb [trusted=yes] copy:$PWD ./" quietly "$SOURCE/scripts/unpack" "$arch" "$root" \
  tessera-tool libtessera-dev

if [ -n "$EMULATOR" ]; then
  start="${EMULATOR%% *} -L $root"
else
  start="$(echo "$root"/lib64/ld-linux-*) --inhibit-cache --library-path"
  start="$start $root/usr/lib:$(echo "$root"/usr/lib/*-linux-gnu):$(echo "$root"/lib/*-linux-gnu)"
fi
tessera="$start $root/usr/bin/tessera"
$tessera info >"$SCRATCH/info" || fail "tessera info does not run"
head -c 4096 /dev/zero >"$SCRATCH/frame.yuyv"
quietly $tessera jpeg-encode --size 64x32 --format yuyv "$SCRATCH/frame.yuyv" -o "$SCRATCH/out.jpg"
[ "$(od -An -tx1 -N3 "$SCRATCH/out.jpg")" = " ff d8 ff" ] || fail "out.jpg is no JPEG"
head -c 3072 /dev/zero >"$SCRATCH/frame.i420"
quietly $tessera h264-encode --size 64x32 --format i420 --rate 30/1 "$SCRATCH/frame.i420" -o "$SCRATCH/out.h264"
quietly $tessera h264-decode "$SCRATCH/out.h264" -o "$SCRATCH/back.i420"
[ "$(wc -c <"$SCRATCH/back.i420")" -eq 3072 ] || fail "the picture did not come back whole"
echo "four packages for $arch work in an empty root"
