#!/usr/bin/env bash
# Other people's programs on the stand-in devices: what passes there behaves like a device of the
# kernel's.   judges.sh STANDIN FOLDER
set -euo pipefail
standin=$1
cd "$2"
command -v v4l2-compliance >/dev/null && command -v ffmpeg >/dev/null || exit 77
export LC_ALL=C

on_devices() { LD_PRELOAD=$standin timeout 100 "$@"; }
pictures() { grep -v '^#' "$1" | awk '{ print $NF }'; }

# A decoder is streamed with what v4l2-ctl recorded of the encoder.
on_devices v4l2-ctl -d /dev/video50 --stream-mmap --stream-out-mmap --stream-to-hdr=judge.hdr \
  --stream-count=100 >judge.log 2>&1
for number in 50 51 52 53; do
  options=(-d "/dev/video$number" -s)
  [ $number != 51 ] || options+=(--stream-from-hdr=H264="$PWD/judge.hdr")
  on_devices v4l2-compliance "${options[@]}" >judge.log 2>&1 || { cat judge.log; exit 1; }
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
quality=$(ffmpeg -i judge.h264 -i judge.y4m -lavfi psnr -f null - 2>&1 | sed -n 's/.*average:\([0-9]*\).*/\1/p')
echo "ffmpeg: 30 pictures there and back, $quality dB"
[ "$quality" -ge 28 ]
