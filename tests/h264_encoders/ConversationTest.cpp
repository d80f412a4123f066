#include <algorithm>
#include <optional>
#include <thread>

#include "H264Encoders.h"

namespace {

namespace control = tessera_platform;
using Conversation = support::FaultTest;

/// Waits until the journal has that many output buffers delivered.
void awaitOutputs(int count) {
  for (int i = 0; i < 5000; ++i) {
    const auto names = control::journalNames(control::Lines::Completions);
    if (std::count(names.begin(), names.end(), "output") >= count) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  FAIL() << "the component delivers nothing";
}

std::string named(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

/// E stands for the encoder; W and B for the pools of a Create.
TEST_F(Conversation, OfTheMmalClass) {
  control::startJournal();
  {
    H264Encoder encoder(mmalH264());
    encoder.create({i420, 100, 50});
    encoder.feed();
    awaitOutputs(2);
    for (int buffer = 0; buffer < 2; ++buffer) encoder.take();
    encoder.create({i420, 64, 48});
  }
  control::stopJournal();
  const std::string common = " rate 30/1 aspect 1/1";
  const auto format = [&](const std::string& size, bool again) {
    return "component_acquire(E);" + std::string(again ? "port_disable(E:in0);" : "") +
           "port_format_commit(E:in0, I420 " + size + common + ");" +
           (again ? "port_disable(E:out0);" : "") + "format_copy(I420 " + size + common +
           "); port_format_commit(E:out0, H264 " + size + common +
           " 500000 bit/s); port_parameter_set(E:out0, PROFILE 28 32);"
           "port_parameter_set_uint32(E:out0, INTRAPERIOD 30);";
  };
  const auto start = [&](const std::string& bytes, const std::string& in, const std::string& out) {
    const std::string sent = "queue_get(B) = buffer; port_send_buffer(E:out0, empty);";
    return named(named("port_enable(E:in0, 1 x " + bytes + "); pool_create(1 x " + bytes +
                           ") = W; port_enable(E:out0, 2 x 65536); pool_create(2 x 65536) = B;"
                           "component_enable(E);" +
                           sent + sent + "queue_get(B) = null; component_release(E);",
                       "W", in),
                 "B", out);
  };
  const std::string output =
      "component_acquire(E); queue_get(queue#1) = buffer; buffer_header_release(); "
      "queue_get(pool#2)"
      " = buffer; port_send_buffer(E:out0, empty); queue_get(pool#2) = null; component_release(E);";
  const std::string expected =
      "bcm_host_init(); queue_create() = queue#1; component_create(vc.ril.video_encode);" +
      format("128x64 crop 0,0 100x50", false) + start("12288", "pool#1", "pool#2") +
      "component_acquire(E); queue_get(pool#1) = buffer; port_send_buffer(E:in0, 12288 bytes "
      "FRAME_START|FRAME_END); component_release(E);" +
      output + output + format("64x48 crop 0,0 64x48", true) +
      "queue_get(queue#1) = buffer; buffer_header_release(); queue_get(queue#1) = buffer;"
      "buffer_header_release(); queue_get(queue#1) = null; pool_destroy(pool#1);"
      "pool_destroy(pool#2);" +
      start("4608", "pool#3", "pool#4") +
      "port_disable(E:in0); port_flush(E:out0); port_disable(E:out0); component_disable(E);"
      "component_destroy(E); queue_destroy(queue#1); pool_destroy(pool#3); pool_destroy(pool#4);";
  EXPECT_EQ(named(support::calls(), "video_encode#1", "E"), support::listed(expected));
}

TEST_F(Conversation, OfTheOmxClass) {
  const auto conversation = [] {
    const std::string text = named(support::calls(), "video_encode#1", "E");
    control::startJournal();
    return text;
  };
  control::startJournal();
  std::optional<H264Encoder> encoder(omxH264());
  EXPECT_EQ(conversation(),
            support::listed("bcm_host_init(); Init(); GetHandle(OMX.broadcom.video_encode -> E);"
                            "GetParameter(E, AudioInit); GetParameter(E, VideoInit);"
                            "SendCommand(E, PortDisable 200); SendCommand(E, PortDisable 201);"
                            "GetParameter(E, ImageInit); GetParameter(E, OtherInit);"));
  ASSERT_TRUE(encoder->create({yuyv, 1280, 720, 30, 1, 1, 1, 1000000}));
  ASSERT_EQ(encoder->feed(), CodecOk);
  ASSERT_EQ(encoder->take().status, CodecOk);
  EXPECT_EQ(
      conversation(),
      support::listed(
          "GetParameter(E, PortDefinition 200); SetParameter(E, PortDefinition 200: 1280x720 "
          "stride 1280 slice 720 YUV420PackedPlanar rate 0x1e0000 size 921600);"
          "GetParameter(E, PortDefinition 200); GetParameter(E, PortDefinition 200);"
          "SetParameter(E, PortDefinition 201: 1280x720 stride 1280 slice 720 AVC size 1382400);"
          "SetParameter(E, VideoBitrate 201: mode 1, 1000000);"
          "SetParameter(E, VideoPortFormat 201: AVC); GetParameter(E, VideoAvc 201);"
          "SetParameter(E, VideoAvc 201: profile 0x8, level 0x800); SendCommand(E, StateSet Idle);"
          "SendCommand(E, PortEnable 200); GetParameter(E, PortDefinition 200);"
          "AllocateBuffer(E:200, 1382400 bytes); SendCommand(E, PortEnable 201);"
          "GetParameter(E, PortDefinition 201); AllocateBuffer(E:201, 1382400 bytes);"
          "SendCommand(E, StateSet Executing); FillThisBuffer(E:201);"
          "EmptyThisBuffer(E:200, 1382400 bytes EOS STARTTIME); FillThisBuffer(E:201);"));
  {
    const support::Capture quiet;
    encoder.reset();
  }
  EXPECT_EQ(conversation(),
            support::listed("FreeBuffer(E:200); FreeBuffer(E:201); FreeHandle(E); Deinit();"));
  control::stopJournal();
}

}  // namespace
