#include "FrameAhead.h"

#include <utility>

namespace tool {

FrameAhead::FrameAhead(FrameSource& source, FrameSource::Layout layout, InputFile& input)
    : source_(source), layout_(layout), input_(input), reader_([this] { readAll(); }) {}

FrameAhead::~FrameAhead() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
  input_.cancel();
  reader_.join();
}

void FrameAhead::readAll() {
  std::vector<std::uint8_t> frame;
  std::exception_ptr failure;
  try {
    while (source_.next(frame, layout_)) {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return !there_ || stopped_; });
      if (stopped_) return;
      frame.swap(ahead_);
      there_ = true;
      changed_.notify_all();
    }
  } catch (...) {
    failure = std::current_exception();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  failure_ = failure;
  ended_ = true;
  changed_.notify_all();
}

bool FrameAhead::next(std::vector<std::uint8_t>& frame) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return there_ || ended_; });
  if (there_) {
    frame.swap(ahead_);
    there_ = false;
    changed_.notify_all();
    return true;
  }
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  return false;
}

}  // namespace tool
