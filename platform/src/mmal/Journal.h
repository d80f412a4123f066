#ifndef TESSERA_PLATFORM_SRC_MMAL_JOURNAL_H
#define TESSERA_PLATFORM_SRC_MMAL_JOURNAL_H

#include <optional>
#include <string>

#include "control/Hooks.h"
#include "interface/mmal/mmal.h"

namespace mmal {

class Component;
class Port;

// How things read in the journal.
const char* statusName(MMAL_STATUS_T status);
std::string fourccText(std::uint32_t code);
std::string nameOf(const Component& component);
std::string nameOf(const Port& port);
std::string nameOf(MMAL_QUEUE_T* queue);
std::string nameOf(const MMAL_POOL_T* pool);
/// "I420 640x480 crop 640x480 at 30/1", "H264 2000000 bit/s".
std::string formatText(const MMAL_ES_FORMAT_T& format);
std::string payloadText(const MMAL_BUFFER_HEADER_T& buffer);
std::string parameterText(const MMAL_PARAMETER_HEADER_T& parameter);

/// True on a component's worker thread, which runs nothing but port callbacks of the client's.
bool onWorkerThread();

/// One call of an entry point. Calls that the client makes from inside its callbacks race with
/// those of its own thread; they are neither journaled nor counted for faults, so that both stay
/// the same from run to run.
class Call {
 public:
  explicit Call(const char* entry) {
    if (!onWorkerThread()) scope_.emplace(entry);
  }

  /// The work must not be done: leave with refuse().
  bool stopped() const { return scope_ && (scope_->failed() || scope_->nullResult()); }
  bool finishFirst() const { return scope_ && scope_->finishFirst(); }

  template <typename Args>
  MMAL_STATUS_T leave(MMAL_STATUS_T status, Args&& args) const {
    return scope_ && status != MMAL_EAGAIN ? scope_->leave(status, args, statusName) : status;
  }
  MMAL_STATUS_T leave(MMAL_STATUS_T status) const { return leave(status, noText); }

  template <typename Args>
  MMAL_STATUS_T refuse(Args&& args) const {
    return leave(scope_->failed() ? scope_->status<MMAL_STATUS_T>() : MMAL_SUCCESS, args);
  }
  MMAL_STATUS_T refuse() const { return refuse(noText); }

  /// For calls that answer something else, which `resultText` names.
  template <typename Result, typename Args, typename ResultText>
  Result answer(Result result, Args&& args, ResultText&& resultText) const {
    return scope_ ? scope_->leave(result, args, resultText) : result;
  }
  template <typename Args>
  void done(Args&& args) const {
    if (scope_) scope_->leaveVoid(args);
  }
  void done() const { done(noText); }

 private:
  static std::string noText() { return {}; }

  std::optional<tessera_platform::hooks::CallScope> scope_;
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_JOURNAL_H
