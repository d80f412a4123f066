#include "codec/kernel/M2mDecoder.h"

#include <linux/v4l2-controls.h>

#include <algorithm>
#include <cstring>

#include "codec/kernel/Patience.h"
#include "codec/kernel/RawFrame.h"

namespace codec::kernel {

namespace {

constexpr unsigned inputBuffers = 4;
constexpr unsigned spareOutputs = 2;
/// No stream reorders its pictures further: what is older than this many units shows nothing.
constexpr std::uint64_t mostReordered = 16;
/// A device may want to see the next unit before it looks at this one.
constexpr unsigned holdBackMs = 1000;

}  // namespace

bool M2mDecoder::fail(const char* why) {
  error_ = device_.path() + ": " + why;
  return false;
}

bool M2mDecoder::open(const std::string& path, const Setup& setup) {
  error_.clear();
  unanswered_.clear();
  lag_ = 0;
  lastBack_ = none;
  changing_ = used_ = false;
  Format coded;
  coded.fourcc = setup.coded;
  coded.width = setup.width;
  coded.height = setup.height;
  coded.sizeImage[0] = static_cast<std::uint32_t>(setup.unitSize);
  if (!device_.open(path)) return false;
  if (device_.setFormat(Side::In, coded) && device_.subscribe() &&
      device_.allocate(Side::In, inputBuffers) && device_.start(Side::In))
    return true;
  device_.close();
  return false;
}

bool M2mDecoder::send(const std::uint8_t* data, std::size_t size, std::uint64_t serial,
                      bool shows) {
  if (!device_.isOpen()) return false;
  used_ = true;
  while (size > 0) {
    Buffer* const buffer = inputBuffer();
    if (buffer == nullptr) return false;
    const std::size_t part = std::min(size, buffer->capacity[0]);
    std::memcpy(buffer->data[0], data, part);
    buffer->used[0] = part;
    buffer->serial = serial;
    if (!device_.enqueue(Side::In, *buffer)) return false;
    data += part;
    size -= part;
  }
  if (!shows) return true;
  while (!unanswered_.empty() && unanswered_.front() + mostReordered < serial)
    unanswered_.pop_front();
  unanswered_.push_back(serial);
  return awaitFrame(serial);
}

Buffer* M2mDecoder::inputBuffer() {
  for (;;) {
    Buffer* const idle = device_.idle(Side::In);
    if (idle != nullptr) return idle;
    const Step step = this->step(patienceMs);
    if (step == Step::Failed) return nullptr;
    if (step == Step::Nothing) {
      fail("does not take any more data");
      return nullptr;
    }
  }
}

bool M2mDecoder::awaitFrame(std::uint64_t serial) {
  for (;;) {
    const bool hurried = unanswered_.size() <= lag_;
    const bool back = lastBack_ == serial;
    const Step step = this->step(hurried ? 0 : back ? graceMs : holdBackMs);
    if (step == Step::Failed) return false;
    if (step != Step::Nothing) continue;
    lag_ = std::max(lag_, unanswered_.size());
    return true;
  }
}

/// Takes the next thing that happens.
M2mDecoder::Step M2mDecoder::step(unsigned milliseconds) {
  Buffer* buffer = nullptr;
  switch (device_.wait(milliseconds, buffer)) {
    case M2mDevice::Happened::InputBack:
      lastBack_ = buffer->serial;
      // What the device could not read will show nothing.
      if (buffer->error) forget(buffer->serial);
      return Step::InputBack;
    case M2mDevice::Happened::Output: {
      const bool last = buffer->last;
      deliver(*buffer);
      if (last && !changing_) return Step::Ended;
      if (last) return setUpOutput() ? Step::Frame : Step::Failed;
      return device_.enqueue(Side::Out, *buffer) ? Step::Frame : Step::Failed;
    }
    case M2mDevice::Happened::FormatChange:
      changing_ = true;
      if (device_.isStreaming(Side::Out)) return Step::Other;
      return setUpOutput() ? Step::Other : Step::Failed;
    case M2mDevice::Happened::Ended:
      if (!changing_) return Step::Ended;
      return setUpOutput() ? Step::Other : Step::Failed;
    case M2mDevice::Happened::Failed:
      return Step::Failed;
    case M2mDevice::Happened::Nothing:
      break;
  }
  return Step::Nothing;
}

void M2mDecoder::forget(std::uint64_t serial) {
  const auto found = std::find(unanswered_.begin(), unanswered_.end(), serial);
  if (found != unanswered_.end()) unanswered_.erase(found);
}

void M2mDecoder::deliver(const Buffer& buffer) {
  if (buffer.used[0] > 0 || buffer.error) forget(buffer.serial);
  if (buffer.used[0] == 0) return;
  sink_({output_, visible_, buffer});
}

/// Buffers for the format that the stream has now.
bool M2mDecoder::setUpOutput() {
  changing_ = false;
  if (!device_.stop(Side::Out)) return false;
  device_.release(Side::Out);
  if (!device_.getFormat(Side::Out, output_)) return false;
  if (planarFormat({output_.fourcc}) == 0) {
    output_.fourcc = planarFormat(device_.formats(Side::Out));
    if (output_.fourcc == 0) return fail("gives no planar 4:2:0 pictures");
    if (!device_.setFormat(Side::Out, output_)) return false;
  }
  visible_ = device_.visible();
  const std::int64_t least = device_.control(V4L2_CID_MIN_BUFFERS_FOR_CAPTURE, 1);
  const auto count = static_cast<unsigned>(std::clamp<std::int64_t>(least, 1, 24)) + spareOutputs;
  return device_.allocate(Side::Out, count) && device_.enqueueAll(Side::Out) &&
         device_.start(Side::Out);
}

bool M2mDecoder::drain() {
  if (!device_.isOpen()) return false;
  used_ = true;
  // Without a format there was no picture; what is still inside may bring one.
  while (!device_.isStreaming(Side::Out)) {
    const Step step = this->step(unanswered_.empty() ? 0 : graceMs);
    if (step == Step::Failed) return false;
    if (step == Step::Nothing) return true;
  }
  if (!device_.beginDrain(false)) return false;
  for (;;) {
    const Step step = this->step(patienceMs);
    if (step == Step::Ended) return true;
    if (step == Step::Failed) return false;
    if (step == Step::Nothing) return fail("does not end the stream");
  }
}

bool M2mDecoder::reset() {
  if (!device_.isOpen()) return false;
  unanswered_.clear();
  lag_ = 0;
  lastBack_ = none;
  if (!used_) return true;
  used_ = false;
  const bool shown = device_.isStreaming(Side::Out);
  if (!device_.stop(Side::In) || !device_.stop(Side::Out) || !device_.start(Side::In)) return false;
  if (changing_) return setUpOutput();
  return !shown || (device_.enqueueAll(Side::Out) && device_.start(Side::Out));
}

}  // namespace codec::kernel
