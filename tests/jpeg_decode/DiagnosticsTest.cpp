#include <gtest/gtest.h>
#include <tessera/Diagnostics.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "PoolFixture.h"

namespace {

using Counts = std::vector<int>;

OMX_ERRORTYPE error(OMX_U32 code) {
  return static_cast<OMX_ERRORTYPE>(static_cast<OMX_S32>(code));
}

struct EventCase {
  OMX_EVENTTYPE event;
  OMX_U32 data1, data2;
  std::string line;
  int commandsDone = 0, sizesChanged = 0;  ///< posts
};
const OMX_U32 negative = 0xFFFFFFFE;
const auto done = OMX_EventCmdComplete;
const std::string changed = "State changed to: ";
const EventCase events[] = {
    {done, 0, 0, changed + "OMX_StateInvalid\n", 1},
    {done, 0, 3, changed + "OMX_StateExecuting\n", 1},
    {done, 0, 4, changed + "OMX_StatePause\n", 1},
    {done, 0, 5, changed + "OMX_StateWaitForResources\n", 1},
    {done, 0, 6, changed + "command [6] \n", 1},
    {done, 1, 321, "", 1},
    {done, 4, 0, "", 1},
    {OMX_EventPortSettingsChanged, 99, 0, "", 0, 1},
    {OMX_EventBufferFlag, 1, 1, ""},
    {OMX_EventMark, negative, 7, "unhandled event, param1 = -2, param2 = 7"}};

TEST(Callbacks, EventsPrintAndPost) {
  EXPECT_EQ(videodeccallbacks.FillBufferDone(nullptr, nullptr, nullptr), OMX_ErrorNone);
  for (const EventCase& tested : events) {
    SCOPED_TRACE(testing::Message() << tested.event << ", " << tested.data1 << tested.line);
    support::Capture capture;
    DecoderPool pool;
    const std::size_t before = capture.out().size();
    const auto handle = [&](DecoderPool* object) {
      return EventHandler(nullptr, object, tested.event, tested.data1, tested.data2, nullptr);
    };
    EXPECT_EQ(handle(nullptr), OMX_ErrorNone);
    EXPECT_EQ(TesseraTestAccess::counts(pool), (Counts{0, 0, 0})) << "no application data, no post";
    EXPECT_EQ(handle(&pool), OMX_ErrorNone);
    EXPECT_EQ(capture.out().substr(before), tested.line);
    EXPECT_EQ(TesseraTestAccess::counts(pool),
              (Counts{tested.commandsDone, 0, tested.sizesChanged}));
  }
}

using DiagnosticsDeathTest = testing::Test;

TEST(DiagnosticsDeathTest, AnErrorEventEndsTheProcess) {
  const auto die = [](OMX_U32 code) {
    static DecoderPool pool;  // destroyed on the way out
    dup2(STDERR_FILENO, STDOUT_FILENO);
    EventHandler(nullptr, &pool, OMX_EventError, code, 0, nullptr);
  };
  EXPECT_EXIT(die(0x80001001), testing::ExitedWithCode(1),
              "unrecoverable error: The cause of the error could not be determined .0x80001001. "
              "\n");
  EXPECT_EXIT(die(0x90000001), testing::ExitedWithCode(1),
              "unrecoverable error: Unknown error .0x90000001. \n");
}

TEST(Descriptions, CoverTheStandardsCodesAndNoOthers) {
  EXPECT_STREQ(OmxErrorDescription(OMX_ErrorNone), "None");
  EXPECT_STREQ(OmxErrorDescription(OMX_ErrorInsufficientResources),
               "There were insufficient resources to perform the requested operation");
  EXPECT_STREQ(OmxErrorDescription(error(0x80001018)),
               "Attempting a command that is not allowed during the present state");
  EXPECT_STREQ(OmxErrorDescription(error(0x80001024)), "Tunneling is unsupported by the component");
  std::set<std::string> texts;
  for (OMX_U32 code = 0x80001000; code <= 0x80001024; ++code)
    texts.insert(OmxErrorDescription(error(code)));
  EXPECT_EQ(texts.size(), 37u) << "each code has a text of its own";
  EXPECT_EQ(texts.count("Unknown error"), 0u);
  for (const OMX_U32 code : {1u, 0x80000FFFu, 0x80001025u, 0x90000001u})
    EXPECT_STREQ(OmxErrorDescription(error(code)), "Unknown error") << std::hex << code;
}

TEST(Descriptions, PrintOmxErrorWritesOneLine) {
  const std::pair<OMX_U32, const char*> table[] = {
      {0, "0x00000000:success"},
      {0x80001005, "0x80001005:one or more parameters were not valid"},
      {0x80001009, "0x80001009:the hardware failed to respond as expected"},
      {0x8000100B, "0x8000100b:stream is found to be corrupt"},
      {0x80001012, "0x80001012:the same state"},
      {0x80001018, "0x80001018:invalid state while trying to perform command."},
      {0x8000101B, "0x8000101b:the port index supplied is incorrect."},
      {0x80001017, "0x80001017:attempting a state transtion that is not allowed"},
      {0x80001001, "0x80001001:(no description)."},
      {0x8000101C, "0x8000101c:(no description)."}};
  for (const auto& [code, text] : table) {
    support::Capture capture;
    PrintOmxError("Class::Call", error(code));
    EXPECT_EQ(capture.err(), std::string("Class::Call - ") + text + "\n");
    EXPECT_EQ(capture.out(), "");
  }
}

/// A component that does nothing but answer its state.
OMX_STATETYPE shownState;
OMX_ERRORTYPE answerState(OMX_HANDLETYPE, OMX_STATETYPE* state) {
  *state = shownState;
  return shownState == OMX_StateMax ? OMX_ErrorInvalidComponent : OMX_ErrorNone;
}

TEST(DiagnosticsDeathTest, PrintStateNamesTheStateOrEndsTheProcess) {
  OMX_COMPONENTTYPE component{};
  component.GetState = answerState;
  const char* const names[] = {"State unknown", "StateLoaded", "StateIdle",    "StateExecuting",
                               "StatePause",    "StateWiat",   "State unknown"};
  for (int i = 0; i < 7; ++i) {
    support::Capture capture;
    shownState = static_cast<OMX_STATETYPE>(i);
    printState(&component);
    EXPECT_EQ(capture.out(), std::string(names[i]) + "\n");
  }
  shownState = OMX_StateMax;
  EXPECT_EXIT(printState(&component), testing::ExitedWithCode(1), "Error on getting state\n");
}

TEST(Diagnostics, DumpPortDefsPrintsNumbersAsTheyAreReadThere) {
  OMX_PARAM_PORTDEFINITIONTYPE port{};
  OMX_IMAGE_PORTDEFINITIONTYPE& image = port.format.image;
  OMX_U32 next = 101;
  for (void* const field : std::initializer_list<void*>{
           &port.nSize, &port.nVersion, &port.nPortIndex, &port.nBufferCountActual,
           &port.nBufferCountMin, &port.nBufferSize, &port.bEnabled, &port.bPopulated,
           &port.eDomain, &image.bFlagErrorConcealment, &image.nFrameWidth, &image.nFrameHeight,
           &image.nStride, &image.nSliceHeight, &image.eCompressionFormat, &image.eColorFormat,
           &port.bBuffersContiguous, &port.nBufferAlignment})
    std::memcpy(field, &next, sizeof next), ++next;
  port.nBufferSize = 0xFFFFFFFF;
  char mime[] = "image/jpeg";
  image.cMIMEType = mime;
  support::Capture capture;
  const int count = DumpPortDefs(&port);
  const std::string text = capture.out();
  EXPECT_EQ(static_cast<std::size_t>(count), text.size());
  std::string values;
  for (std::size_t at = 0; (at = text.find('[', at)) != std::string::npos; ++at)
    values += text.substr(at + 1, text.find(']', at) - at - 1) + ' ';
  EXPECT_EQ(values,
            "101 66 103 104 105 -1 107 108 109 image/jpeg 0 110 0 111 112 113 114 73 74 117 118 ");
  EXPECT_NE(text.find(" format.nSlieHeight[114] \n compression[73] \n"), std::string::npos);
}

}  // namespace
