#include "support/FaultTest.h"

#include <dlfcn.h>
#include <tessera_platform/control.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "PoolFixture.h"
#include "support/FaultTable.h"

namespace {

OMX_U32 toldPorts = 0;  ///< that an image component says to have, if not 0
std::atomic<decltype(OMX_COMPONENTTYPE::GetParameter)> getParameter{};  // several pools at once

OMX_ERRORTYPE tellPorts(OMX_HANDLETYPE component, OMX_INDEXTYPE index, OMX_PTR answer) {
  const OMX_ERRORTYPE error = getParameter.load()(component, index, answer);
  if (toldPorts != 0 && index == OMX_IndexParamImageInit)
    static_cast<OMX_PORT_PARAM_TYPE*>(answer)->nPorts = toldPorts;
  return error;
}

}  // namespace

OMX_ERRORTYPE OMX_GetHandle(OMX_HANDLETYPE* handle, OMX_STRING name, OMX_PTR appData,
                            OMX_CALLBACKTYPE* callbacks) {
  static auto* const system =
      reinterpret_cast<decltype(&OMX_GetHandle)>(dlsym(RTLD_NEXT, "OMX_GetHandle"));
  const OMX_ERRORTYPE error = system(handle, name, appData, callbacks);
  if (*handle != nullptr)
    getParameter = std::exchange(static_cast<OMX_COMPONENTTYPE*>(*handle)->GetParameter, tellPorts);
  return error;
}

namespace {

using namespace support;

using Faults = TimedFaultTest;

const std::string noResources =
    "There were insufficient resources to perform the requested operation";
const std::string idle = "State changed to: OMX_StateIdle\n", call = "DecoderPool::DecodeJpeg - ",
                  noAnswer = call + "no answer to ", noFill = noAnswer + "OMX_FillThisBuffer\n";

TEST_F(Faults, HaveTheirLinesAndNeverAStalePicture) {
  expectFaults("DecoderPool");
}

/// What setup read of the output port was that it is disabled.
TEST_F(Faults, TheFirstNewSizeComesThoughItsQueryIsRefused) {
  for (const bool late : {false, true}) {
    QuietPool tested;
    const Bytes jpeg = jpegOf(640, 480);
    inject(refuse("OMX_GetParameter"));
    if (late) inject(delay("EventHandler", 1, 3000));  // announced after a second
    for (int i = 0; i < 3; ++i) EXPECT_EQ(difference(decode(*tested, jpeg), jpeg), "") << late;
    EXPECT_GE(control::faultsHit(), 1u);
    control::clearFaults();
  }
}

/// A size told wrong: another one than the pool's is announced by nobody, the pool's own by the
/// component while the picture is waited for, here twice; that is looked for every 200 ms.
TEST_F(Faults, ASizeToldWrongCostsASecondAtMost) {
  QuietPool tested;
  const Bytes jpeg = encodeJpeg(scene(96, 80), Sampling::Yuv444, 85, true);
  for (const auto& [width, tookMs] : {std::pair(1280, 500), std::pair(640, 1000)}) {
    inject(mangle("EventHandler", control::CompletionFault::Double));
    inject(delay("FillBufferDone", 2, 300));
    expectAnswer<bool>(
        [&, width = width] { return difference(decode(*tested, jpeg, width, 720), jpeg).empty(); },
        true, "", "", tookMs);
    control::clearFaults();
  }
}

TEST_F(Faults, TwoPortsAreNeededAndMoreDoNoHarm) {
  for (const OMX_U32 ports : {1u, 3u}) {
    toldPorts = ports;
    Capture capture;
    DecoderPool* const tested = GetDecoderPool();
    toldPorts = 0;
    const Bytes jpeg = jpegOf(64, 48);
    EXPECT_EQ(capture.out().find("at least 2 ports") == 0, ports == 1) << capture.out();
    EXPECT_EQ(difference(decode(*tested, jpeg), jpeg).empty(), ports == 3);
    ReleaseDecoderPool(tested);
  }
}

TEST_F(Faults, APieceThatCannotBePassedOnIsTold) {
  char data[8] = {};
  const auto pass = [&](DecoderPool& to, char* jpeg, int size, bool expected, const char* line) {
    expectAnswer<bool>([&] { return to.PassJpegToDecoder(jpeg, size); }, expected, line, "");
  };
  const char* const noData = "DecoderPool::PassJpegToDecoder - no data\n";
  const char* const noBuffers = "DecoderPool::PassJpegToDecoder - no input buffers\n";
  {
    QuietPool tested;
    pass(*tested, nullptr, 8, false, noData);
    pass(*tested, nullptr, 0, true, "");
    inject(refuse("OMX_EmptyThisBuffer"));
    pass(*tested, data, 8, true, ("error during empty - " + noResources + " \n").c_str());
    control::clearFaults();
    // The component takes three pieces and never gives them back; the fourth waits in vain.
    inject(control::CallFault{"OMX_EmptyThisBuffer", 1, true, control::CallFault::NullResult, 0});
    control::startJournal();
    for (int i = 0; i < 3; ++i) pass(*tested, data, 8, true, "");
    control::stopJournal();
    const std::string passed = "EmptyThisBuffer(image_decode#1:320, 8 bytes EOS)\n";
    EXPECT_EQ(calls(), passed + passed + passed);
    const std::string notBack = " DecoderPool::DecodeJpeg - the input buffers do not come back\n";
    std::string busy;
    for (int waitedMs = 0; waitedMs < 9950; waitedMs += 10) busy += "pBufHeader->nFilledLen != 0";
    pass(*tested, data, 8, true, (busy + notBack).c_str());
    const Bytes jpeg = jpegOf(64, 48);
    EXPECT_EQ(decode(*tested, jpeg).lines, busy + notBack);
    control::clearFaults();
    TesseraTestAccess::freeInputs(*tested);
    EXPECT_EQ(difference(decode(*tested, jpeg), jpeg), "");
  }
  for (const AnyFault& fault : {refuse("OMX_AllocateBuffer", 2), refuse("OMX_GetHandle")}) {
    inject(fault);
    QuietPool tested;
    control::clearFaults();
    for (int i = 0; i < 4; ++i) pass(*tested, data, 8, false, noBuffers);
  }
}

/// A call that gave up half way leaves a flush to the next one, and that may fail as well.
TEST_F(Faults, CatchingUpMayFailToo) {
  QuietPool tested;
  const Bytes jpeg = jpegOf(64, 48);
  for (const auto& [fault, line] :
       {std::pair(refuse("OMX_SendCommand"), call + "the ports cannot be flushed\n"),
        std::pair(lose("EventHandler"), noAnswer + "OMX_CommandFlush\n")}) {
    ASSERT_EQ(difference(decode(*tested, jpeg), jpeg), "");
    inject(lose("FillBufferDone"));
    EXPECT_EQ(decode(*tested, jpeg).lines, noFill);
    control::clearFaults();
    inject(fault);
    EXPECT_EQ(decode(*tested, jpeg).lines, line);
    control::clearFaults();
    decode(*tested, jpeg);  // an answer that was lost is written off
  }
  EXPECT_EQ(difference(decode(*tested, jpeg), jpeg), "");
}

TEST_F(Faults, WithoutInputBuffersThereIsNoSetup) {
  const auto make = [] {
    DecoderPool* const made = GetDecoderPool();
    EXPECT_EQ(decode(*made, jpegOf(64, 48)).lines,
              "DecoderPool::DecodeJpeg - the pool's setup failed\n");
    const Capture quiet;
    return ReleaseDecoderPool(made);
  };
  interpose::allocation.arm(2);  // the pool itself is the first
  expectAnswer<int>(make, 1, "no memory for the input buffers\n", "");
  inject(nullResult("OMX_GetParameter", 2));
  inject(nullResult("OMX_SetParameter", 2));
  expectAnswer<int>(make, 1, "unusable number of input buffers: 0\n", "");
}

TEST_F(Faults, PoolsDoNotDisturbEachOther) {
  expectIndependence("DecoderPool");
}

TEST_F(Faults, WaitsEndOnTimeWhateverDisturbsThem) {
  expectLimits("DecoderPool");
  // The size is never announced either: two waits share the limit.
  QuietPool tested;
  inject(lose("FillBufferDone", 1, true));
  inject(lose("EventHandler"));
  const auto fails = [&] { return decode(*tested, jpegOf(96, 48)).lines == noFill; };
  expectAnswer<bool>(fails, true, "", "", 9950);
  control::clearFaults();
}

using Teardown = Faults;

TEST_F(Teardown, GoesOnAfterARefusedCall) {
  EXPECT_EQ(ReleaseDecoderPool(nullptr), 0);
  const std::string start = "DecoderPool::~DecoderPool \nsem get is [0] \nSending command!\n",
                    end = "Finished waiting!\n",
                    loaded = idle + "State changed to: OMX_StateLoaded\n",
                    error = " port error: " + noResources + " !\n";
  const std::pair<AnyFault, std::string> table[] = {
      {refuse("OMX_FreeBuffer", 1), start + end + "OMX_FreeBuffer input" + error + loaded},
      {refuse("OMX_FreeBuffer", 4), "OMX_FreeBuffer output" + error},
      {refuse("OMX_SendCommand", 1), end + loaded},
      {refuse("OMX_SendCommand", 2), end + loaded},
      {refuse("OMX_SendCommand", 3), end + loaded}};
  for (const auto& [fault, lines] : table) {
    Capture capture;
    DecoderPool* const made = GetDecoderPool();
    const std::size_t before = capture.out().size();
    inject(fault);
    ReleaseDecoderPool(made);
    EXPECT_EQ(control::faultsHit(), 1u);
    control::clearFaults();
    EXPECT_EQ(control::describe(control::census()), "nothing");
    const std::string out = capture.out().substr(before);
    EXPECT_NE(out.find(lines), std::string::npos) << out;
  }
}

/// Whatever was refused, came late or is owed from before. Only who waits for it sees Loaded
/// reported.
void expectLoadedReported(const std::function<void()>& release) {
  const auto said = [](const char* text) { return printedText().find(text) != std::string::npos; };
  const bool inSetup = said("the pool's setup failed"),
             everIdle = control::census().handles > 0 && !said("at least 2 ports expected!\n") &&
                        !said("OMX_SendCommand failed\n");
  inject(delay("EventHandler", 1, 50, true));
  control::startJournal();
  release();
  control::stopJournal();
  control::clearFaults();
  EXPECT_EQ(said("State changed to: OMX_StateLoaded\n"), everIdle);
  EXPECT_FALSE(inSetup && calls().find("Flush") != std::string::npos) << "never asked for";
}

TEST_F(Teardown, FreesTheHandleOnlyOnceLoadedWasReported) {
  expectFaults("DecoderPool", [](std::unique_ptr<Driver> driver) {
    expectLoadedReported([&] { driver.reset(); });
  });
  // Two faults: the second flush is refused; an answer is written off, and comes later.
  for (const auto& [first, second] :
       {std::pair(refuse("OMX_FillThisBuffer"), refuse("OMX_SendCommand", 2)),
        std::pair(delay("EventHandler", 2, 20100), delay("FillBufferDone", 9, 1))}) {
    const Capture quiet;
    DecoderPool* const tested = GetDecoderPool();
    for (const AnyFault& fault : {first, second}) {
      inject(fault);
      decode(*tested, jpegOf(96, 80));
      control::clearFaults();
    }
    expectLoadedReported([&] { ReleaseDecoderPool(tested); });
  }
}

TEST_F(Teardown, EndsEarlyWhenTheStateIsRefused) {
  // What is left behind is left for good, so it happens elsewhere.
  const auto leave = [](unsigned nth) {
    DecoderPool* const made = GetDecoderPool();
    inject(refuse("OMX_SendCommand", nth));
    dup2(STDERR_FILENO, STDOUT_FILENO);
    ReleaseDecoderPool(made);
    std::printf("left: %s\n", control::describe(control::census()).c_str());
    std::fflush(stdout);
    _exit(0);
  };
  EXPECT_EXIT(leave(4), testing::ExitedWithCode(0),
              "OMX_SendCommand failed\nleft: .*handles 1.*threads 1");
  EXPECT_EXIT(leave(5), testing::ExitedWithCode(0),
              "OMX_StateIdle\nOMX_SendCommand failed\nleft: .*handles 1.*threads 1");
}

TEST_F(Faults, TheConversationReadsLikeThis) {
  Bytes jpeg = jpegOf(640, 480);
  jpeg.resize(200000);  // whatever TurboJPEG makes of it
  Capture capture;
  control::startJournal();
  DecoderPool* const tested = GetDecoderPool();
  EXPECT_EQ(capture.out(), idle + "State changed to: OMX_StateExecuting\n");
  // The same size the second time.
  for (int i = 0; i < 2; ++i) EXPECT_EQ(decode(*tested, jpeg).lines, "");
  const std::size_t printed = capture.out().size();
  ReleaseDecoderPool(tested);
  EXPECT_EQ(capture.out().substr(printed),
            "DecoderPool::~DecoderPool \nsem get is [0] \nSending command!\nFinished waiting!\n" +
                idle + "State changed to: OMX_StateLoaded\n");
  expectConversation("DecoderPool");
}

}  // namespace
