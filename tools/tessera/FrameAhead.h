#ifndef TESSERA_TOOLS_FRAMEAHEAD_H
#define TESSERA_TOOLS_FRAMEAHEAD_H

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "FrameSource.h"
#include "InputFile.h"

namespace tool {

/// Reads the next frame while the one before is worked on. In a thread of its own, so that the work
/// on a frame never waits for the next one to come.
class FrameAhead {
 public:
  FrameAhead(FrameSource& source, FrameSource::Layout layout, InputFile& input);
  ~FrameAhead();
  FrameAhead(const FrameAhead&) = delete;
  FrameAhead& operator=(const FrameAhead&) = delete;

  /// Exchanges `frame` for the next one. @return false at the end; a failure is thrown in its place
  bool next(std::vector<std::uint8_t>& frame);

 private:
  void readAll();

  FrameSource& source_;
  const FrameSource::Layout layout_;
  InputFile& input_;

  std::mutex mutex_;  ///< guards all below
  std::condition_variable changed_;
  std::vector<std::uint8_t> ahead_;
  bool there_ = false;  ///< ahead_ is a frame
  bool ended_ = false;
  bool stopped_ = false;
  std::exception_ptr failure_;
  std::thread reader_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_FRAMEAHEAD_H
