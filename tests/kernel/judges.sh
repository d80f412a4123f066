#!/usr/bin/env bash
# Other people's programs on the stand-in devices: what passes there behaves like a device of the
# kernel's.   judges.sh STANDIN FOLDER
set -euo pipefail
standin=$1
cd "$2"
for judge in v4l2-compliance ffmpeg gst-launch-1.0 umockdev-run; do
  command -v $judge >/dev/null || exit 77
done
export LC_ALL=C

on_devices() { LD_PRELOAD=$standin timeout 100 "$@"; }
pictures() { grep -v '^#' "$1" | awk '{ print $NF }'; }

# A decoder is streamed with what v4l2-ctl recorded of the encoder.
on_devices v4l2-ctl -d /dev/video50 --stream-mmap --stream-out-mmap --stream-to-hdr=judge.hdr \
  --stream-count=100 >judge.log 2>&1
for number in 50 51 52 53; do
  options=(-d "/dev/video$number" -s)
  [ $number != 51 ] || options+=(--stream-from-hdr=H264="$PWD/judge.hdr")
  # It gives threads of its own fixed times to begin and to end, which a busy machine overruns: it
  # aborts where one has not begun, and fails or cancels one that has not ended.
  for attempt in 1 2 3; do
    status=0
    on_devices v4l2-compliance "${options[@]}" >judge.log 2>&1 || status=$?
    [ $status = 134 ] || grep -q 'fail:.*thread_.*done' judge.log || break
  done
  [ $status = 0 ] || { cat judge.log; exit 1; }
  tail -n 2 judge.log
done

# ffmpeg encodes through one device and decodes through the other as it does on the CPU. Its encoder
# does not look how long the rows of a device are: a width that is a multiple of 32 bytes.
ffmpeg -v error -y -f lavfi -i testsrc2=size=320x240:rate=25 -frames:v 30 -pix_fmt yuv420p judge.y4m
on_devices ffmpeg -v error -y -i judge.y4m -c:v h264_v4l2m2m -b:v 2M judge.h264
on_devices ffmpeg -v error -y -c:v h264_v4l2m2m -i judge.h264 -fps_mode passthrough -f framemd5 judge.device
ffmpeg -v error -y -i judge.h264 -fps_mode passthrough -f framemd5 judge.cpu
[ "$(pictures judge.cpu | wc -l)" = 30 ]
diff <(pictures judge.cpu) <(pictures judge.device)
quality() { # of what came out, beside what went in
  ffmpeg "$@" -lavfi psnr -f null - 2>&1 | sed -n 's/.*average:\([0-9]*\).*/\1/p'
}
decibels=$(quality -i judge.h264 -i judge.y4m)
echo "ffmpeg: 30 pictures there and back, $decibels dB"
[ "$decibels" -ge 28 ]

# GStreamer finds devices by what udev tells, which is made up for it.
for number in 50 51; do
  printf '%s\n' "P: /devices/video$number" "N: video$number" "E: DEVNAME=/dev/video$number" \
    "E: SUBSYSTEM=video4linux" "A: dev=81:$number" ""
done >judge.udev
rm -f judge.registry
GST_REGISTRY=judge.registry GST_REGISTRY_FORK=no timeout 100 umockdev-run -d judge.udev -- \
  env LD_PRELOAD="$standin:libumockdev-preload.so.0" gst-launch-1.0 -q videotestsrc num-buffers=30 ! \
  video/x-raw,format=I420,width=320,height=240,framerate=25/1 ! tee name=in ! queue ! \
  filesink location=judge.in in. ! queue ! v4l2h264enc ! 'video/x-h264,level=(string)4' ! tee name=coded ! \
  queue ! filesink location=judge.h264 coded. ! queue ! v4l2h264dec ! video/x-raw,format=I420 ! \
  filesink location=judge.out
ffmpeg -v error -y -i judge.h264 -fps_mode passthrough -f rawvideo -pix_fmt yuv420p judge.cpu
cmp judge.cpu judge.out
[ "$(stat -c %s judge.out)" = $((30 * 320 * 240 * 3 / 2)) ]
raw=(-f rawvideo -s 320x240 -pix_fmt yuv420p)
decibels=$(quality "${raw[@]}" -i judge.out "${raw[@]}" -i judge.in)
echo "GStreamer: 30 pictures there and back, $decibels dB"
[ "$decibels" -ge 28 ]
