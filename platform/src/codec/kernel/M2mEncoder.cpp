#include "codec/kernel/M2mEncoder.h"

#include <algorithm>

#include "codec/kernel/Patience.h"
#include "codec/kernel/RawFrame.h"

namespace codec::kernel {

namespace {

constexpr unsigned inputBuffers = 2;
constexpr unsigned outputBuffers = 4;

}  // namespace

bool M2mEncoder::fail(const std::string& why) {
  error_ = device_.path() + ": " + why;
  return false;
}

bool M2mEncoder::open(const std::string& path, const Setup& setup) {
  error_.clear();
  held_ = nullptr;
  unanswered_.clear();
  serial_ = lastBack_ = 0;
  lag_ = 0;
  draining_ = false;
  if (!device_.open(path)) return false;
  if (chooseFormats(setup)) return true;
  device_.close();
  return false;
}

/// The coded format comes first: it decides about the raw ones.
bool M2mEncoder::chooseFormats(const Setup& setup) {
  Format coded;
  coded.fourcc = setup.coded;
  coded.width = setup.width;
  coded.height = setup.height;
  coded.sizeImage[0] = static_cast<std::uint32_t>(setup.codedSize);
  if (!device_.setFormat(Side::Out, coded)) return false;
  input_ = Format();
  input_.fourcc = setup.raw != 0 ? setup.raw : planarFormat(device_.formats(Side::In));
  if (input_.fourcc == 0) return fail("takes no planar 4:2:0 pictures");
  input_.width = setup.width;
  input_.height = setup.height;
  if (!device_.setFormat(Side::In, input_)) return false;
  if (input_.width < setup.width || input_.height < setup.height)
    return fail("takes pictures up to " + std::to_string(input_.width) + "x" +
                std::to_string(input_.height) + " only");
  const bool exact = input_.width == setup.width && input_.height == setup.height;
  if (!device_.setCrop({0, 0, setup.width, setup.height}) && !exact && !setup.mayPad) return false;
  // A rate that the device does not take costs accuracy of its rate control, no more.
  if (setup.rateNum != 0) device_.setFrameInterval(setup.rateDen, setup.rateNum);
  return true;
}

bool M2mEncoder::start() {
  return device_.allocate(Side::In, inputBuffers) && device_.allocate(Side::Out, outputBuffers) &&
         device_.enqueueAll(Side::Out) && device_.start(Side::In) && device_.start(Side::Out);
}

bool M2mEncoder::restart() {
  held_ = nullptr;
  unanswered_.clear();
  draining_ = false;
  return device_.stop(Side::In) && device_.stop(Side::Out) && device_.enqueueAll(Side::Out) &&
         device_.start(Side::In) && device_.start(Side::Out);
}

Buffer* M2mEncoder::inputBuffer() {
  if (draining_ ? !restart() : !giveBack()) return nullptr;
  Buffer* idle = device_.idle(Side::In);
  while (idle == nullptr) {
    Buffer* buffer = nullptr;
    switch (device_.wait(patienceMs, buffer)) {
      case M2mDevice::Happened::InputBack:
        lastBack_ = buffer->serial;
        idle = buffer;
        break;
      case M2mDevice::Happened::Output:
        // Nobody asked for it: the frame counted as dropped.
        forget(buffer->serial);
        if (!device_.enqueue(Side::Out, *buffer)) return nullptr;
        break;
      case M2mDevice::Happened::Failed:
        return nullptr;
      case M2mDevice::Happened::Nothing:
        fail("does not give a frame back");
        return nullptr;
      default:
        break;
    }
  }
  return idle;
}

bool M2mEncoder::submit(Buffer& buffer) {
  buffer.serial = ++serial_;
  if (!device_.enqueue(Side::In, buffer)) return false;
  unanswered_.push_back(serial_);
  return true;
}

bool M2mEncoder::giveBack() {
  Buffer* const buffer = held_;
  held_ = nullptr;
  return buffer == nullptr || device_.enqueue(Side::Out, *buffer);
}

M2mEncoder::Outcome M2mEncoder::collect() {
  if (!giveBack()) return Outcome::Failed;
  bool returned = false;
  for (;;) {
    const bool hurried = unanswered_.size() <= lag_;
    Buffer* buffer = nullptr;
    switch (device_.wait(returned && !draining_  ? graceMs
                         : hurried && !draining_ ? 0
                                                 : patienceMs,
                         buffer)) {
      case M2mDevice::Happened::InputBack:
        returned = true;
        if (buffer->error) forget(buffer->serial);
        if (unanswered_.empty() && !draining_) return Outcome::Dropped;
        break;
      case M2mDevice::Happened::Output:
        if (buffer->used[0] > 0 && !buffer->error) return take(*buffer);
        forget(buffer->serial);
        if (buffer->last) return Outcome::Dropped;
        if (!device_.enqueue(Side::Out, *buffer)) return Outcome::Failed;
        if (unanswered_.empty() && !draining_) return Outcome::Dropped;
        break;
      case M2mDevice::Happened::Ended:
        return Outcome::Dropped;
      case M2mDevice::Happened::Failed:
        return Outcome::Failed;
      case M2mDevice::Happened::FormatChange:
        break;
      case M2mDevice::Happened::Nothing:
        if (!returned && !hurried) {
          fail("does not answer");
          return Outcome::Failed;
        }
        lag_ = std::max(lag_, unanswered_.size());
        return Outcome::Dropped;
    }
  }
}

/// An answer to a frame is none to those before it any more.
M2mEncoder::Outcome M2mEncoder::take(Buffer& buffer) {
  held_ = &buffer;
  if (isUnanswered(buffer.serial))
    while (unanswered_.front() < buffer.serial) unanswered_.pop_front();
  if (!unanswered_.empty()) unanswered_.pop_front();
  lag_ = std::min(lag_, unanswered_.size());
  return Outcome::Data;
}

bool M2mEncoder::isUnanswered(std::uint64_t serial) const {
  return std::find(unanswered_.begin(), unanswered_.end(), serial) != unanswered_.end();
}

void M2mEncoder::forget(std::uint64_t serial) {
  const auto found = std::find(unanswered_.begin(), unanswered_.end(), serial);
  if (found != unanswered_.end()) unanswered_.erase(found);
}

M2mEncoder::Outcome M2mEncoder::drain() {
  if (!draining_ && !device_.beginDrain(true)) return Outcome::Failed;
  draining_ = true;
  return collect();
}

}  // namespace codec::kernel
