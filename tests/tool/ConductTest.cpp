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

TEST_F(ConductTest, AFailureOrASignalHalfWayLeavesWhatWasThere) {
  save("out.jpg", {1, 2, 3});
  const auto before = files();
  const std::string half = "head -c 15000 in.yuyv | " + std::string(encode) + "- -o out.jpg";
  const std::string killed =
      "mkfifo feed; sleep 30 >feed & sleeper=$!; "
      "./.tool jpeg-encode --size 64x48 --format yuyv feed -o out.jpg & tool=$!; "
      "until ls .out.jpg.* 2>/dev/null; do :; done; "
      "kill -TERM $tool; wait $tool; status=$?; kill $sleeper; rm feed; exit $status";
  for (const auto& [script, status] : {std::pair(half, 1), std::pair(killed, 128 + 15)}) {
    EXPECT_EQ(run(script).status, status);
    EXPECT_EQ(files(), before);
    EXPECT_EQ(load("out.jpg"), (Bytes{1, 2, 3}));
  }
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
