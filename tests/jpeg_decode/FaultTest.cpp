#include <gtest/gtest.h>
#include <tessera_platform/control.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "PoolFixture.h"
#include "support/Interpose.h"

namespace {

namespace control = tessera_platform;
using control::CallFault;
using control::CompletionFault;
using support::Bytes;
using support::Sampling;

constexpr OMX_S32 noResources = OMX_ErrorInsufficientResources;

Bytes jpegOf(int width, int height, int t = 0) {
  return support::encodeJpeg(support::scene(width, height, t), Sampling::Yuv420, 85);
}

/// Waits of ten seconds take a tenth of one.
class Faults : public testing::Test {
 protected:
  void SetUp() override { support::interpose::hurry = 100; }
  void TearDown() override {
    control::clearFaults();
    support::interpose::reset();
    EXPECT_EQ(control::describe(control::census()), "nothing");
  }

  static CallFault refuse(const char* call, unsigned nth = 1) {
    return {call, nth, false, CallFault::Fail, noResources};
  }
};

// ------------------------------------------------------------------------------------ setup

/// Names a row of a table.
template <typename Case>
std::string nameOf(const testing::TestParamInfo<Case>& tested) {
  return tested.param.name;
}

struct SetupCase {
  const char* name;
  const char* call;
  unsigned nth;
  CallFault::Action action;
  std::string out;  ///< the last line of the setup
  std::string err;
};

class Setup : public Faults, public testing::WithParamInterface<SetupCase> {};

TEST_P(Setup, EndsWithItsMessageAndTheReleaseIsSafe) {
  control::inject(
      CallFault{GetParam().call, GetParam().nth, false, GetParam().action, noResources});
  std::string out, err;
  {
    support::Capture capture;
    DecoderPool* const pool = GetDecoderPool();
    out = capture.out();
    err = capture.err();
    EXPECT_EQ(TesseraLayout::lastError(*pool) == OMX_ErrorNone,
              GetParam().action == CallFault::NullResult || !err.empty() ||
                  GetParam().out == "at least 2 ports expected!\n");
    int width = 64, height = 48;
    char data[100] = {};
    EXPECT_EQ(pool->DecodeJpeg(data, sizeof data, width, height), nullptr);
    EXPECT_EQ(ReleaseDecoderPool(pool), 1);
  }
  EXPECT_EQ(control::faultsHit(), 1u);
  EXPECT_EQ(out, GetParam().out);
  EXPECT_EQ(err, GetParam().err);
}

const std::string noResourcesText =
    "There were insufficient resources to perform the requested operation";
const std::string noMemory = ": Cannot allocate memory\n";
const std::string idle = "State changed to: OMX_StateIdle\n";
constexpr CallFault::Action fail = CallFault::Fail, nothing = CallFault::NullResult;

const SetupCase setupCases[] = {
    {"init", "OMX_Init", 1, fail, "error [80001000] \n", ""},
    {"handle", "OMX_GetHandle", 1, fail, "failed to get handle\n", ""},
    {"null_handle", "OMX_GetHandle", 1, nothing, "failed to get handle\n", ""},
    {"ports", "OMX_GetParameter", 1, fail, "at least 2 ports expected!\n", ""},
    {"idle", "OMX_SendCommand", 1, fail, "OMX_SendCommand failed\n", ""},
    {"input_format", "OMX_SetParameter", 1, fail, "OMX_SetParameter [" + noResourcesText + "] \n",
     ""},
    {"read_input", "OMX_GetParameter", 2, fail, "OMX_GetParameter [" + noResourcesText + "] \n",
     ""},
    {"write_input", "OMX_SetParameter", 2, fail, "OMX_SetParameter [" + noResourcesText + "] \n",
     ""},
    {"input_buffer", "OMX_AllocateBuffer", 2, fail, "", "Allocate decode buffer" + noMemory},
    {"null_input_buffer", "OMX_AllocateBuffer", 1, nothing, "",
     "Allocate decode buffer" + noMemory},
    {"output_format", "OMX_SetParameter", 3, fail,
     "OMX_SetParameter error = [" + noResourcesText + "] \n", ""},
    {"read_output", "OMX_GetParameter", 3, fail,
     idle + "Error OMX_GetParameter " + noResourcesText + " \n", ""},
    {"write_output", "OMX_SetParameter", 4, fail,
     idle + "Error OMX_SetParameter " + noResourcesText + " \n", ""},
    {"executing", "OMX_SendCommand", 6, fail,
     idle + "Error switching to State Executing " + noResourcesText + " \n", ""}};
INSTANTIATE_TEST_SUITE_P(Steps, Setup, testing::ValuesIn(setupCases), nameOf<SetupCase>);

// ------------------------------------------------------------------------------- decode cycle

struct DecodeCase {
  const char* name;
  bool newSize;  ///< the faulty picture has another size than the one before
  const char* call;
  unsigned nth;
  CallFault::Action action;
  std::string out;
  std::string err;
  bool picture = false;  ///< comes out all the same
};

class DecodeFaults : public Faults, public testing::WithParamInterface<DecodeCase> {};

TEST_P(DecodeFaults, GiveTheirLineAndTheNextPictureIsRight) {
  const DecodeCase& tested = GetParam();
  QuietPool pool;
  const Bytes first = jpegOf(64, 48), same = jpegOf(64, 48, 1), other = jpegOf(96, 80, 2);
  ASSERT_EQ(difference(decode(*pool, first), first), "");
  const Bytes& jpeg = tested.newSize ? other : same;
  control::inject(CallFault{tested.call, tested.nth, false, tested.action, noResources});
  const Decoded seen = decode(*pool, jpeg);
  EXPECT_EQ(control::faultsHit(), 1u);
  EXPECT_EQ(seen.lines, tested.out);
  EXPECT_EQ(seen.errors, tested.err);
  if (tested.picture)
    EXPECT_EQ(difference(seen, jpeg), "");
  else
    EXPECT_EQ(seen.data, nullptr);
  control::clearFaults();
  for (const Bytes& next : {jpeg, same, other})
    EXPECT_EQ(difference(decode(*pool, next), next), "");
  EXPECT_EQ(TesseraLayout::counts(*pool), (std::vector<int>{0, 0, 0}));
}

const std::string noAnswer = "DecoderPool::DecodeJpeg - no answer to OMX_FillThisBuffer\n";
const DecodeCase decodeCases[] = {
    {"fill", false, "OMX_FillThisBuffer", 1, fail,
     "Filling output buffer error " + noResourcesText + " \n", ""},
    {"fill_after_a_change", true, "OMX_FillThisBuffer", 1, fail,
     "Filling output buffer error " + noResourcesText + " \n", ""},
    {"empty", false, "OMX_EmptyThisBuffer", 1, fail,
     "error during empty - " + noResourcesText + " \n" + noAnswer, ""},
    {"empty_of_another_size", true, "OMX_EmptyThisBuffer", 1, fail,
     "error during empty - " + noResourcesText + " \n" + noAnswer, ""},
    {"read_port", true, "OMX_GetParameter", 1, fail, "", "", true},
    {"disable", true, "OMX_SendCommand", 1, fail,
     "DecoderPool::DecodeJpeg - the ports cannot be disabled\n", ""},
    {"free", true, "OMX_FreeBuffer", 1, fail, "error freeing buffer!\n", ""},
    {"enable", true, "OMX_SendCommand", 2, fail,
     "DecoderPool::DecodeJpeg - the ports cannot be enabled\n", ""},
    {"allocate", true, "OMX_AllocateBuffer", 1, fail, "", "Eror allocating buffer" + noMemory},
    {"null_buffer", true, "OMX_AllocateBuffer", 1, nothing, "",
     "Eror allocating buffer" + noMemory}};
INSTANTIATE_TEST_SUITE_P(Calls, DecodeFaults, testing::ValuesIn(decodeCases), nameOf<DecodeCase>);

TEST_F(Faults, ARebuildThatFailsAgainGivesNullAgain) {
  QuietPool pool;
  const Bytes jpeg = jpegOf(96, 80);
  for (const char* call : {"OMX_FreeBuffer", "OMX_AllocateBuffer", "OMX_SendCommand"}) {
    control::inject(CallFault{call, 1, true, fail, noResources});
    for (int i = 0; i < 3; ++i) EXPECT_EQ(decode(*pool, jpeg).data, nullptr) << call;
    control::clearFaults();
    EXPECT_EQ(difference(decode(*pool, jpeg), jpeg), "") << call;
    EXPECT_EQ(difference(decode(*pool, jpegOf(64, 48)), jpegOf(64, 48)), "") << call;
  }
}

// -------------------------------------------------------------------------------- completions

struct Completion {
  const char* name;
  bool newSize;
  const char* completion;
  unsigned nth;
  CompletionFault::Action action;
  unsigned delayMs;
};

class Completions : public Faults, public testing::WithParamInterface<Completion> {};

/// Whatever happens to a completion: null with a line and in time, or the right picture, and no
/// later picture is another one's. The tenth second comes after a tenth of one.
TEST_P(Completions, NeverGiveAStalePicture) {
  using Clock = std::chrono::steady_clock;
  QuietPool pool;
  const Bytes first = jpegOf(64, 48),
              jpeg = GetParam().newSize ? jpegOf(96, 80) : jpegOf(64, 48, 1);
  ASSERT_EQ(difference(decode(*pool, first), first), "");
  const Completion& tested = GetParam();
  control::inject(
      CompletionFault{tested.completion, tested.nth, false, tested.action, tested.delayMs, 0});
  const Clock::time_point start = Clock::now();
  Decoded seen = decode(*pool, jpeg);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(control::faultsHit(), 1u);
  int pictures = 0;
  for (int i = 0; i < 12; ++i) {
    if (seen.data == nullptr) {
      EXPECT_EQ(std::count(seen.lines.begin(), seen.lines.end(), '\n'), 1) << seen.lines;
    }
    const Bytes next = i % 2 == 0 ? jpegOf(64, 48, i) : jpegOf(96, 80, i);
    seen = decode(*pool, next);
    if (seen.data == nullptr) continue;
    ++pictures;
    EXPECT_EQ(difference(seen, next), "") << "picture " << i;
  }
  EXPECT_GE(pictures, 5);
}

constexpr auto drop = CompletionFault::Drop, late = CompletionFault::Delay,
               twice = CompletionFault::Double, empty = CompletionFault::ZeroLength;
const Completion completions[] = {{"fill_lost", false, "FillBufferDone", 1, drop, 0},
                                  {"fill_late", false, "FillBufferDone", 1, late, 20},
                                  {"fill_too_late", false, "FillBufferDone", 1, late, 500},
                                  {"fill_twice", false, "FillBufferDone", 1, twice, 0},
                                  {"fill_empty", false, "FillBufferDone", 1, empty, 0},
                                  {"fill_lost_at_new_size", true, "FillBufferDone", 1, drop, 0},
                                  {"input_lost", false, "EmptyBufferDone", 1, drop, 0},
                                  {"new_size_lost", true, "EventHandler", 1, drop, 0},
                                  {"new_size_late", true, "EventHandler", 1, late, 20},
                                  {"new_size_too_late", true, "EventHandler", 1, late, 500},
                                  {"new_size_twice", true, "EventHandler", 1, twice, 0},
                                  {"disabled_lost", true, "EventHandler", 2, drop, 0},
                                  {"disabled_too_late", true, "EventHandler", 2, late, 500},
                                  {"disabled_twice", true, "EventHandler", 2, twice, 0},
                                  {"enabled_lost", true, "EventHandler", 3, drop, 0},
                                  {"enabled_too_late", true, "EventHandler", 3, late, 500}};
INSTANTIATE_TEST_SUITE_P(Kinds, Completions, testing::ValuesIn(completions), nameOf<Completion>);

TEST(FaultsDeathTest, AnErrorEventWhileAPictureIsWaitedForEndsTheProcess) {
  const auto die = [] {
    DecoderPool pool;
    Bytes jpeg = jpegOf(64, 48);
    control::inject(CompletionFault{"FillBufferDone", 1, false, CompletionFault::ErrorEvent, 0,
                                    static_cast<OMX_U32>(OMX_ErrorStreamCorrupt)});
    dup2(STDERR_FILENO, STDOUT_FILENO);
    int width = 0, height = 0;
    pool.DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), static_cast<unsigned int>(jpeg.size()),
                    width, height);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(die(), testing::ExitedWithCode(1),
              "unrecoverable error: Stream is found to be corrupt .0x8000100b. \n");
}

// ----------------------------------------------------------------------------------- teardown

class Teardown : public Faults {
 protected:
  std::string release(const CallFault& fault) {
    DecoderPool* pool;
    {
      const support::Capture capture;
      pool = GetDecoderPool();
    }
    control::inject(fault);
    support::Capture capture;
    ReleaseDecoderPool(pool);
    EXPECT_EQ(control::faultsHit(), 1u);
    return capture.out();
  }
};

TEST_F(Teardown, GoesOnAfterARefusedFree) {
  EXPECT_EQ(release(refuse("OMX_FreeBuffer", 1)),
            "DecoderPool::~DecoderPool \nsem get is [0] \nSending command!\nFinished waiting!\n"
            "OMX_FreeBuffer input port error: " +
                noResourcesText + " !\n" + idle + "State changed to: OMX_StateLoaded\n");
  control::clearFaults();
  EXPECT_NE(release(refuse("OMX_FreeBuffer", 4))
                .find("OMX_FreeBuffer output port error: " + noResourcesText + " !\n"),
            std::string::npos);
}

TEST_F(Teardown, GoesOnAfterARefusedFlushOrDisable) {
  for (const unsigned nth : {1u, 2u, 3u}) {
    const std::string lines = release(refuse("OMX_SendCommand", nth));
    EXPECT_NE(lines.find("Finished waiting!\n" + idle + "State changed to: OMX_StateLoaded\n"),
              std::string::npos)
        << nth << ": " << lines;
    EXPECT_EQ(control::describe(control::census()), "nothing") << nth;
    control::clearFaults();
  }
}

TEST(TeardownDeathTest, EndsEarlyWhenTheStateIsRefused) {
  // What is left behind is left for good, so it happens elsewhere.
  const auto leave = [](unsigned nth) {
    DecoderPool* const pool = GetDecoderPool();
    control::inject(CallFault{"OMX_SendCommand", nth, false, fail, noResources});
    dup2(STDERR_FILENO, STDOUT_FILENO);
    ReleaseDecoderPool(pool);
    std::printf("left: %s\n", control::describe(control::census()).c_str());
    std::fflush(stdout);
    _exit(0);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(leave(4), testing::ExitedWithCode(0),
              "OMX_SendCommand failed\nleft: .*handles 1.*threads 1");
  EXPECT_EXIT(leave(5), testing::ExitedWithCode(0),
              "OMX_StateIdle\nOMX_SendCommand failed\nleft: .*handles 1.*threads 1");
}

}  // namespace
