#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <ostream>

#include "Shell.h"
#include "support/JpegOracle.h"

namespace {

using testing::HasSubstr;

/// A command that is refused: its exit status, and what the message must tell.
struct Refusal {
  std::string name;
  int status;
  std::string tells;
  std::string command;  ///< writes to out.y4m, out.jpg or out.h264 if it should succeed

  friend void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.command; }
};

/// Those of a file with two lines for each: name, status and message, then the command.
std::vector<Refusal> refusals() {
  std::vector<Refusal> all;
  std::ifstream file(TESSERA_REFUSALS);
  for (Refusal one; file >> one.name >> one.status >> std::ws; all.push_back(one)) {
    std::getline(file, one.tells);
    std::getline(file.ignore(2), one.command);
  }
  return all;
}

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
  EXPECT_THAT(result.err, HasSubstr(GetParam().tells));
  EXPECT_THAT(result.err, HasSubstr("tessera: "));
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(files(), before);
}

INSTANTIATE_TEST_SUITE_P(Refusals, UsageTest, testing::ValuesIn(refusals()),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(ToolTest, HelpAndVersionGoToStandardOutput) {
  for (const char* command :
       {"", "jpeg-encode", "jpeg-decode", "h264-encode", "h264-decode", "info"}) {
    const Result result = run(std::string("tessera ") + command + " --help");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, HasSubstr(command));
  }
  EXPECT_THAT(run("tessera --version").out, testing::StartsWith("tessera "));
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
  EXPECT_THAT(run("tessera info").out,
              HasSubstr("platform: " + report["platform"].get<std::string>()));
}

}  // namespace
