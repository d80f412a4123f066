#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>

#include "Shell.h"
#include "support/JpegOracle.h"

namespace {

/// A command that is refused: its status, and what the message must tell.
struct Refusal {
  const char* name;
  const char* command;  ///< writes to out.y4m, out.jpg or out.h264 if it should succeed
  int status;
  const char* tells;

  friend void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.command; }
};

class UsageTest : public ToolTest, public testing::WithParamInterface<Refusal> {
 protected:
  UsageTest() {
    save("frame.raw", support::Bytes(64 * 48 * 2, 100));
    save("empty", {});
    save("text", support::Bytes(3000, 'x'));
    save("y4m422", toY4m(support::scenes(1, 32, 16), " F25:1 C422"));
    support::Bytes cut = toY4m(support::scenes(1, 32, 16), " F25:1");
    cut.resize(cut.size() - 5);
    save("cut.y4m", cut);
    save("claims.jpg",
         {0xFF, 0xD8, 0xFF, 0xC0, 0, 11, 8, 0xFF, 0, 0xFF, 0, 1, 1, 0x11, 0, 0xFF, 0xD9});
    save("large", support::Bytes(2048 * 1152 * 3 / 2, 100));
    save("scans.jpg",
         support::encodeJpeg(support::scene(64, 48), support::Sampling::Yuv420, 90, true));
    std::filesystem::create_directory(directory_ + "/folder");
  }
};

TEST_P(UsageTest, IsToldWhatIsWrongAndLeavesNothingBehind) {
  const auto before = files();
  const Result result = run(GetParam().command);
  EXPECT_EQ(result.status, GetParam().status) << result.err;
  EXPECT_NE(result.err.find(GetParam().tells), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("tessera: "), std::string::npos) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(files(), before);
}

constexpr Refusal refusals[] = {
    {"NoCommand", "tessera", 2, "subcommand"},
    {"NoOutput", "tessera jpeg-decode frame.raw", 2, "--output"},
    {"NoSize", "tessera jpeg-encode --format yuyv frame.raw -o out.jpg", 2, "--size WxH"},
    {"BadSize", "tessera jpeg-encode --size 64 --format yuyv frame.raw -o out.jpg", 2, "1280x720"},
    {"ZeroSize", "tessera jpeg-encode --size 0x48 --format yuyv frame.raw -o out.jpg", 2, "0x48"},
    {"HugeSize", "tessera jpeg-encode --size 65535x65535 --format rgb32 frame.raw -o out.jpg", 2,
     "too large"},
    {"BadFormat", "tessera jpeg-encode --size 64x48 --format bgr frame.raw -o out.jpg", 2,
     "rgb16|rgb24|rgb32|yuyv"},
    {"BadBitrate", "tessera h264-encode --bitrate 4Q frame.raw -o out.h264", 2, "4M"},
    {"Missing", "tessera jpeg-decode nowhere.jpg -o out.y4m", 1, "nowhere.jpg: No such file"},
    {"Directory", "tessera jpeg-decode folder -o out.y4m", 1, "folder is a directory"},
    {"Empty", "tessera h264-decode empty -o out.y4m", 1, "empty is empty"},
    {"EmptyPipe", "tessera jpeg-encode --size 64x48 --format yuyv - -o out.jpg </dev/null", 1,
     "standard input is empty"},
    {"WrongLength", "tessera jpeg-encode --size 60x48 --format yuyv frame.raw -o out.jpg", 1,
     "6144 bytes, which is no whole number of 60x48 yuyv frames of 5760 bytes"},
    {"OtherFormat", "tessera jpeg-encode --size 128x32 --format rgb24 frame.raw -o out.jpg", 1,
     "it would hold 1 frame of 128x32 i420"},
    {"CutPipe", "head -c 900 /dev/zero | tessera jpeg-encode --size 64x48 --format yuyv - -o o", 1,
     "ends in the middle of frame 1: 900 bytes of the 6144"},
    {"EmptyJpegPipe", "tessera jpeg-decode - -o out.y4m </dev/null", 1, "standard input is empty"},
    {"EmptyStreamPipe", "tessera h264-decode - -o out.y4m </dev/null", 1, "input is empty"},
    {"UnknownOption", "tessera jpeg-decode --colour frame.raw -o out.y4m", 2,
     "unknown option --colour"},
    {"SmallBitrate", "tessera h264-encode --bitrate 5 frame.raw -o out.h264", 2, "from 1000 to"},
    {"ClosedOutput", "tessera jpeg-encode --size 64x48 --format yuyv frame.raw -o - >&-", 1,
     "standard output: it is closed"},
    {"BeyondTheLimit", "tessera jpeg-decode claims.jpg -o out.y4m", 1, "67108864 altogether"},
    {"TooLargeForABoard",
     "TESSERA_BOARD_LIMITS=1 tessera h264-encode --size 2048x1152 --format i420 large -o out.h264",
     1, "does not take 2048x1152"},
    {"TooFastForABoard",
     "TESSERA_BOARD_LIMITS=1 tessera h264-encode --size 1536x1536 --format i420 --via omx "
     "--rate 60 large -o out.h264",
     1, "does not take 1536x1536"},
    {"ProgressiveOnABoard", "TESSERA_BOARD_LIMITS=1 tessera jpeg-decode scans.jpg -o out.y4m", 1,
     "cannot be decoded"},
    {"NoJpeg", "tessera jpeg-decode text -o out.y4m", 1, "text holds no JPEG"},
    {"RawWithoutSize", "tessera h264-encode frame.raw -o out.h264", 2, "not Y4M"},
    {"Y4mOf422", "tessera h264-encode y4m422 -o out.h264", 1, "-pix_fmt yuv420p"},
    {"CutY4m", "tessera h264-encode cut.y4m -o out.h264", 1, "ends in the middle of frame 1"},
    {"OutputEnding", "tessera jpeg-decode frame.raw -o out.png", 2, ".i420 or .yuv"},
    {"OutputNowhere", "tessera jpeg-decode text -o nowhere/out.y4m", 1,
     "cannot create nowhere/out.y4m: No such"},
    {"OutputDirectory", "tessera jpeg-encode --size 64x48 --format yuyv frame.raw -o folder", 1,
     "folder is a directory"},
    {"SameFile", "tessera jpeg-encode --size 64x48 --format yuyv frame.raw -o ./frame.raw", 2,
     "same file"},
    {"FullDisk", "tessera jpeg-encode --size 64x48 --format yuyv frame.raw -o /dev/full", 1,
     "cannot write /dev/full: No space left"},
    {"FullPipe", "tessera jpeg-encode --size 64x48 --format yuyv frame.raw -o - >/dev/full", 1,
     "cannot write standard output: No space left"},
};

INSTANTIATE_TEST_SUITE_P(Refusals, UsageTest, testing::ValuesIn(refusals),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(ToolTest, HelpAndVersionGoToStandardOutput) {
  for (const char* command :
       {"", "jpeg-encode", "jpeg-decode", "h264-encode", "h264-decode", "info"}) {
    const Result result = run(std::string("tessera ") + command + " --help");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find(command), std::string::npos);
  }
  const Result version = run("tessera --version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("tessera ", 0), 0u) << version.out;
}

TEST_F(ToolTest, InfoTellsThatEveryClassWorks) {
  const Result result = run("tessera info --json");
  ASSERT_EQ(result.status, 0) << result.err << result.out;
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["classes"].size(), 6u);
  if (report["platform"] == "software") {
    EXPECT_NE(report["why_not_board"].get<std::string>(), "");
    EXPECT_GE(report["board_refuses"].size(), 4u);
  }
  for (const auto& entry : report["classes"]) EXPECT_TRUE(entry["works"].get<bool>()) << entry;
  EXPECT_NE(run("tessera info").out.find("platform: " + report["platform"].get<std::string>()),
            std::string::npos);
}

}  // namespace
