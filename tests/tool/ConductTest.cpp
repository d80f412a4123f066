#include <tessera/Basics.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Shell.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace {

using support::Bytes;
using testing::HasSubstr;

class ConductTest : public ToolTest {
 protected:
  ConductTest() {
    save("in.yuyv", frames(3, [](int t) { return toYuyv(support::scene(64, 48, t)); }));
    save("in.264", support::encodeH264({}).stream);
  }

  const std::string encode = "tessera jpeg-encode --size 64x48 --format yuyv ";
};

TEST_F(ConductTest, StandardOutputHasNothingButData) {
  succeed(encode + "in.yuyv -o out.jpg");
  const Result result = run(encode + "in.yuyv -o -");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(Bytes(result.out.begin(), result.out.end()), load("out.jpg"));
  // /dev/stdout is standard output too, not what the library's lines go to.
  EXPECT_EQ(run(encode + "-q in.yuyv -o /dev/stdout").out, result.out);
}

TEST_F(ConductTest, TheLastLineSumsUpUnlessQuiet) {
  EXPECT_THAT(succeed(encode + "in.yuyv -o out.jpg"),
              testing::StartsWith("3 frames of 64x48, 18.4 kB in, "));
  EXPECT_EQ(succeed(encode + "-q in.yuyv -o out.jpg"), "");
  const auto summary = nlohmann::json::parse(succeed(encode + "-q --json in.yuyv -o out.jpg"));
  EXPECT_EQ(summary["frames"], 3);
  EXPECT_EQ(summary["width"], 64);
  EXPECT_EQ(summary["bytes_in"], 3 * 64 * 48 * 2);
  EXPECT_EQ(summary["bytes_out"], load("out.jpg").size());
}

TEST_F(ConductTest, ProgressFitsANarrowTerminal) {
  const std::string slow =
      "sh -c \"(head -c 6144 in.yuyv; sleep 0.3; tail -c 12288 in.yuyv) | ./.tool jpeg-encode "
      "--size 64x48 --format yuyv - -o out.jpg\"";
  const Result result = run("script -qec 'stty cols 12; " + slow + "' /dev/null </dev/null");
  ASSERT_EQ(result.status, 0) << result.out;
  std::istringstream output(result.out);
  int lines = 0;
  for (std::string line; std::getline(output, line, '\r');) {
    const std::size_t width = line.find("\033[K");
    if (width == std::string::npos) continue;
    EXPECT_LE(width, 11u) << result.out;
    lines += width > 0;
  }
  EXPECT_GE(lines, 1) << result.out;
}

TEST_F(ConductTest, ABrokenPipeEndsItQuietly) {
  for (const std::string& command :
       {encode + "/dev/zero -o -", std::string("yes | ") + encode + "- -o -",
        std::string("tessera h264-decode in.264 -o -")}) {
    const Result result = run("set -o pipefail; " + command + " | head -c 100 >/dev/null");
    EXPECT_EQ(result.err, "") << command;
    EXPECT_TRUE(result.status == 0 || result.status == 141) << result.status;  // 141: yes
  }
}

TEST_F(ConductTest, AFailedWriteLeavesWhatWasThere) {
  save("out.jpg", {1, 2, 3});
  const auto before = files();
  const Result result =
      run("ulimit -f 1; trap '' XFSZ; cat in.yuyv in.yuyv in.yuyv | " + encode + "- -o out.jpg");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(files(), before);
  EXPECT_EQ(load("out.jpg"), (Bytes{1, 2, 3}));
}

TEST_F(ConductTest, AnInputThatEndsInTheMiddleKeepsWhatCameBefore) {
  const Result result = run("head -c 15000 in.yuyv | " + encode + "- -o out.jpg");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("ends in the middle of frame 3: 2712 bytes of the 6144"));
  EXPECT_THAT(result.err, HasSubstr("out.jpg holds the 2 frames"));
  succeed("tessera jpeg-decode out.jpg -o out.y4m");
  EXPECT_EQ(fromY4m(load("out.y4m")).pictures.size(), 2u);
}

/// The signal, and the ending of the recording that it ends.
using Recording = std::tuple<const char*, const char*>;
class RecordingTest : public ConductTest, public testing::WithParamInterface<Recording> {};

TEST_P(RecordingTest, EndedByASignalCanBePlayed) {
  const std::string signal = std::get<0>(GetParam()), ending = std::get<1>(GetParam());
  const bool killed = signal == "KILL";
  // Three frames, then a pause that only the signal ends.
  const Result result = run("signal=" + signal + " ending=" + ending + R"(
      mkfifo feed
      (cat in.yuyv; exec sleep 30) >feed & feeder=$!
      env --default-signal=INT ./.tool h264-encode --size 64x48 \
        --format yuyv --rate 1 feed -o out$ending & tool=$!
      until [ $(cat out.part-* 2>/dev/null | wc -c) -ge 900 ]; do sleep 0.02; done
      kill -$signal $tool; wait $tool; status=$?
      kill $feeder; rm feed
      mv out.part-*$ending out$ending 2>/dev/null && echo part
      exit $status)");
  EXPECT_EQ(result.status, signal == "INT" ? 130 : killed ? 137 : 143) << result.err;
  EXPECT_EQ(result.out, killed ? "part\n" : "");
  EXPECT_THAT(result.err, HasSubstr(killed ? "" : "interrupted; out" + ending + " holds the "));
  succeed("tessera h264-decode out" + ending + " -o out.y4m");
  const std::size_t kept = fromY4m(load("out.y4m")).pictures.size();
  EXPECT_GE(kept, 1u);
  EXPECT_LE(kept, 3u);
}

INSTANTIATE_TEST_SUITE_P(Endings, RecordingTest,
                         testing::Values(Recording{"INT", ".mp4"}, Recording{"TERM", ".mkv"},
                                         Recording{"TERM", ".h264"}, Recording{"KILL", ".h264"},
                                         Recording{"KILL", ".mkv"}, Recording{"KILL", ".ts"}));

TEST_F(ConductTest, TheLibrarysLinesShowWhereSomethingFails) {
  save("bad.jpg", {0xFF, 0xD8, 0xFF, 0xC0, 0, 11, 8, 0, 8, 0, 8, 1, 1, 0x11, 0, 0xFF, 0xD9});
  EXPECT_THAT(run("tessera jpeg-decode -q bad.jpg -o out.y4m").err,
              HasSubstr("DecoderPool::DecodeJpeg - "));
  const std::string good = encode + "-q in.yuyv -o out.jpg && tessera jpeg-decode -q ";
  EXPECT_EQ(succeed(good + "out.jpg -o out.y4m"), "");
  EXPECT_NE(succeed(good + "-v out.jpg -o out.y4m"), "");
}

TEST_F(ConductTest, NoFrameWaitsForTheNextOne) {
  // A frame is fed once the one before has come out.
  succeed(
      "(head -c 6144 in.yuyv; until [ -s out.h264 ]; do sleep 0.01; done; tail -c 12288 in.yuyv) |"
      " tessera h264-encode --size 64x48 --format yuyv - -o - >out.h264");
  const Bytes stream = load("out.h264");
  const std::size_t end = tessera::AccessUnitEnd(stream.data(), stream.size(), 0);
  save("first", {stream.data(), stream.data() + end});
  save("rest", {stream.data() + end, stream.data() + stream.size()});
  succeed(
      "(cat first; until [ $(wc -c <out.y4m) -gt 4608 ]; do sleep 0.01; done; cat rest) | "
      "tessera h264-decode - -o - >out.y4m");
  EXPECT_EQ(fromY4m(load("out.y4m")).pictures.size(), 3u);
}

TEST_F(ConductTest, LinksAreFollowedAndModesKept) {
  const Result result =
      run("touch real.jpg; chmod 640 real.jpg; ln -s real.jpg link.jpg; umask 027; " + encode +
          "-q in.yuyv -o link.jpg && " + encode +
          "-q in.yuyv -o new.jpg && stat -c '%F %a' link.jpg real.jpg new.jpg");
  EXPECT_EQ(result.out, "symbolic link 777\nregular file 640\nregular file 640\n") << result.err;
}

TEST_F(ConductTest, AFifoAndADeviceAreWrittenDirectly) {
  succeed(
      "mkfifo pipe.y4m; cat pipe.y4m >copy.y4m & "
      "tessera h264-decode -q in.264 -o pipe.y4m && wait && "
      "tessera h264-decode -q in.264 -o /dev/null");
  EXPECT_EQ(fromY4m(load("copy.y4m")).pictures.size(), 10u);
}

TEST_F(ConductTest, ASlowReaderLosesNothing) {
  save("long.264", support::encodeH264({320, 240, 60, 3}).stream);
  // Two seconds without reading: longer than the decoder's limit for its input.
  EXPECT_EQ(succeed("tessera h264-decode long.264 -q -o - | (sleep 2; cat) >copy.y4m"), "");
  EXPECT_EQ(fromY4m(load("copy.y4m")).pictures.size(), 60u);
}

}  // namespace
