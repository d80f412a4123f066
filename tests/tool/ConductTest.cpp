#include <tessera/Basics.h>

#include <nlohmann/json.hpp>

#include "Shell.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace {

using support::Bytes;

class ConductTest : public ToolTest {
 protected:
  ConductTest() {
    save("in.yuyv", frames(3, [](int t) { return toYuyv(support::scene(64, 48, t)); }));
    save("in.264", support::encodeH264({}).stream);
  }

  static constexpr const char* encode = "tessera jpeg-encode --size 64x48 --format yuyv ";
};

TEST_F(ConductTest, StandardOutputHasNothingButData) {
  succeed(std::string(encode) + "in.yuyv -o out.jpg");
  const Result result = run(std::string(encode) + "in.yuyv -o -");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(Bytes(result.out.begin(), result.out.end()), load("out.jpg"));
  // /dev/stdout is standard output too, not what the library's lines go to.
  EXPECT_EQ(run(std::string(encode) + "-q in.yuyv -o /dev/stdout").out, result.out);
}

TEST_F(ConductTest, TheLastLineSumsUpUnlessQuiet) {
  const std::string told = succeed(std::string(encode) + "in.yuyv -o out.jpg");
  EXPECT_EQ(told.rfind("3 frames of 64x48, 18.4 kB in, ", 0), 0u) << told;
  EXPECT_EQ(succeed(std::string(encode) + "-q in.yuyv -o out.jpg"), "");
  const auto summary =
      nlohmann::json::parse(succeed(std::string(encode) + "-q --json in.yuyv -o out.jpg"));
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
  std::size_t lines = 0, at = 0;
  for (std::size_t end; (end = result.out.find("\033[K", at)) != std::string::npos; at = end + 3) {
    const std::size_t start = result.out.rfind('\r', end);
    if (start == std::string::npos || end - start < 2) continue;
    EXPECT_LE(end - start - 1, 11u) << result.out;
    ++lines;
  }
  EXPECT_GE(lines, 1u) << result.out;
}

TEST_F(ConductTest, ABrokenPipeEndsItQuietly) {
  for (const std::string& command :
       {std::string(encode) + "/dev/zero -o -", std::string("yes | ") + encode + "- -o -",
        std::string("tessera h264-decode in.264 -o -")}) {
    const Result result = run("set -o pipefail; " + command + " | head -c 100 >/dev/null");
    EXPECT_EQ(result.err, "") << command;
    EXPECT_TRUE(result.status == 0 || result.status == 141) << result.status;  // 141: yes
  }
}

TEST_F(ConductTest, AFailedWriteLeavesWhatWasThere) {
  save("out.jpg", {1, 2, 3});
  const auto before = files();
  EXPECT_EQ(run("ulimit -f 1; trap '' XFSZ; cat in.yuyv in.yuyv in.yuyv | " + std::string(encode) +
                "- -o out.jpg")
                .status,
            1);
  EXPECT_EQ(files(), before);
  EXPECT_EQ(load("out.jpg"), (Bytes{1, 2, 3}));
}

TEST_F(ConductTest, AnInputThatEndsInTheMiddleKeepsWhatCameBefore) {
  const Result result = run("head -c 15000 in.yuyv | " + std::string(encode) + "- -o out.jpg");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("ends in the middle of frame 3: 2712 bytes of the 6144"),
            std::string::npos)
      << result.err;
  EXPECT_NE(result.err.find("out.jpg holds the 2 frames"), std::string::npos) << result.err;
  succeed("tessera jpeg-decode out.jpg -o out.y4m");
  EXPECT_EQ(fromY4m(load("out.y4m")).pictures.size(), 2u);
}

/// The signal, and the ending of the recording that it ends.
using Recording = std::tuple<const char*, const char*>;
class RecordingTest : public ConductTest, public testing::WithParamInterface<Recording> {};

TEST_P(RecordingTest, EndedByASignalCanBePlayed) {
  const auto [signal, ending] = GetParam();
  const bool killed = signal == std::string("KILL");
  // Three frames, then a pause that only the signal ends.
  const std::string script =
      "mkfifo feed; (cat in.yuyv; exec sleep 30) >feed & feeder=$!; "
      "env --default-signal=INT ./.tool h264-encode --size 64x48 --format yuyv --rate 1 feed -o "
      "out" +
      std::string(ending) +
      " & tool=$!; "
      "until [ $(cat out.part-* 2>/dev/null | wc -c) -ge 900 ]; do sleep 0.02; done; "
      "kill -" +
      signal +
      " $tool; wait $tool; status=$?; kill $feeder; rm feed; "
      "mv out.part-*" +
      ending + " out" + ending + " 2>/dev/null && echo part; exit $status";
  const Result result = run(script);
  EXPECT_EQ(result.status, signal == std::string("INT") ? 130 : killed ? 137 : 143) << result.err;
  EXPECT_EQ(result.out, killed ? "part\n" : "");
  if (!killed) {
    EXPECT_NE(result.err.find("interrupted; out" + std::string(ending) + " holds the "),
              std::string::npos)
        << result.err;
  }
  succeed("tessera h264-decode out" + std::string(ending) + " -o out.y4m");
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
  const std::string line = "DecoderPool::DecodeJpeg - ";
  EXPECT_NE(run("tessera jpeg-decode -q bad.jpg -o out.y4m").err.find(line), std::string::npos);
  const std::string good = std::string(encode) + "-q in.yuyv -o out.jpg && tessera jpeg-decode -q ";
  EXPECT_EQ(succeed(good + "out.jpg -o out.y4m"), "");
  EXPECT_NE(succeed(good + "-v out.jpg -o out.y4m"), "");
}

TEST_F(ConductTest, NoFrameWaitsForTheNextOne) {
  // A frame is fed once the one before has come out.
  succeed(
      "(head -c 6144 in.yuyv; until [ -s out.h264 ]; do sleep 0.01; done; tail -c 12288 in.yuyv) |"
      " tessera h264-encode --size 64x48 --format yuyv - -o - >out.h264");
  const std::size_t end =
      tessera::AccessUnitEnd(load("out.h264").data(), load("out.h264").size(), 0);
  succeed("(head -c " + std::to_string(end) +
          " out.h264; "
          "until [ $(wc -c <out.y4m) -gt 4608 ]; do sleep 0.01; done; "
          "tail -c +" +
          std::to_string(end + 1) + " out.h264) | tessera h264-decode - -o - >out.y4m");
  EXPECT_EQ(fromY4m(load("out.y4m")).pictures.size(), 3u);
}

TEST_F(ConductTest, LinksAreFollowedAndModesKept) {
  const Result result =
      run("touch real.jpg; chmod 640 real.jpg; ln -s real.jpg link.jpg; umask 027; " +
          std::string(encode) + "-q in.yuyv -o link.jpg && " + encode +
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
  support::H264Options options;
  options.frames = 60;
  options.bFrames = 3;
  save("long.264", support::encodeH264(options).stream);
  // Two seconds without reading: longer than the decoder's limit for its input.
  EXPECT_EQ(succeed("tessera h264-decode long.264 -q -o - | (sleep 2; cat) >copy.y4m"), "");
  EXPECT_EQ(fromY4m(load("copy.y4m")).pictures.size(), 60u);
}

}  // namespace
