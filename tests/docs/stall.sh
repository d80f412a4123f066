# Runs the README's H.264 programs on a platform that holds one of its answers back: no picture may be
# lost, and few waits may end in a time-out: those that the late answer accounts for, some that a loaded
# machine adds, but not one for each of the 30 frames.
#
#   stall.sh ENCODER DECODER
set -eu
log=$(mktemp)
trap 'rm -f "$log" "$log.h264"' EXIT

# run STALL PROGRAM
run() {
  TESSERA_TEST_STALL=$1 "$2" "$log.h264" >"$log" || { cat "$log"; echo "FAILED: $2, stall $1"; exit 1; }
  grep -Eq "^1?[0-9] time-outs, $([ -z "$1" ] && echo 0 || echo 1) stalls" "$log" || { cat "$log"; echo "FAILED: $2, $1"; exit 1; }
}

decode() {
  run "$1" "$decoder"
  grep -q "^30 of 30 pictures" "$log"
}

encoder=$1
decoder=$2
for stall in "" output:1:150 output:9:150 output:31:150 input:3:1100; do
  run "$stall" "$encoder"
  decode ""
done
for stall in output:1:150 output:9:150 output:30:150 input:3:1100; do
  decode "$stall"
done
