#ifndef TESSERA_PLATFORM_SRC_MMAL_CALL_H
#define TESSERA_PLATFORM_SRC_MMAL_CALL_H

#include <optional>
#include <string>

#include "control/Hooks.h"
#include "interface/mmal/util/mmal_util.h"

namespace mmal {

/// True on a component's worker thread, which runs nothing of the client's but port callbacks.
bool onWorkerThread();
/// Makes the calling thread such a one.
void becomeWorkerThread();

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
    return scope_ && status != MMAL_EAGAIN ? scope_->leave(status, args, mmal_status_to_string)
                                           : status;
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

#endif  // TESSERA_PLATFORM_SRC_MMAL_CALL_H
