#ifndef TESSERA_PLATFORM_SRC_CONTROL_HOOKS_H
#define TESSERA_PLATFORM_SRC_CONTROL_HOOKS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "tessera_platform/control.h"

/// What the platform's own sources call so that journal, faults and census see everything.
/// Recording and faults cost one relaxed load each while they are off.
namespace tessera_platform::hooks {

extern std::atomic<bool> recording;
extern std::atomic<bool> faultsArmed;
extern std::atomic<bool> stepped;

/// Out of line halves; use CallScope and completion().
void recordCall(const char* entry, const std::string& arguments, const std::string& result);
void recordCompletion(const char* name, const std::string& arguments);
bool matchCall(const char* entry, CallFault& fault);
bool matchCompletion(const char* name, CompletionFault& fault);

/// One call of an entry point, from its first line to its return:
///
///   CallScope call("mmal_port_flush");
///   if (call.failed()) return call.leave(call.status<MMAL_STATUS_T>(), args);
///   ...
///   return call.leave(result, args);
///
/// `args` is any callable that returns the telling arguments as text; it runs only while recording.
class CallScope {
 public:
  explicit CallScope(const char* entry) : entry_(entry) {
    if (stepped.load(std::memory_order_relaxed)) awaitQuiet();
    if (faultsArmed.load(std::memory_order_relaxed)) met_ = matchCall(entry, fault_);
  }

  /// The work must not be done: answer status(), or null.
  bool failed() const { return met_ && fault_.action == CallFault::Fail; }
  /// The work must not be done: answer success with a null result.
  bool nullResult() const { return met_ && fault_.action == CallFault::NullResult; }
  /// Return only when everything this call starts has been called back (give up after a second).
  bool finishFirst() const { return met_ && fault_.action == CallFault::FinishFirst; }

  template <typename Status>
  Status status() const {
    return static_cast<Status>(fault_.status);
  }

  /// Journals the call with its result and returns the result. `resultText` names the result.
  template <typename Result, typename Args, typename ResultText>
  Result leave(Result result, Args&& args, ResultText&& resultText) const {
    if (recording.load(std::memory_order_relaxed)) recordCall(entry_, args(), resultText(result));
    return result;
  }
  template <typename Args>
  void leaveVoid(Args&& args) const {
    if (recording.load(std::memory_order_relaxed)) recordCall(entry_, args(), "void");
  }

 private:
  const char* entry_;
  CallFault fault_;
  bool met_ = false;
};

/// What becomes of one callback. `met` false: deliver it.
struct Completion {
  bool met = false;
  CompletionFault fault;
  bool is(CompletionFault::Action action) const { return met && fault.action == action; }
};

/// Asked once for each callback, just before it is made; journals it unless it is dropped.
template <typename Args>
Completion completion(const char* name, Args&& args) {
  Completion verdict;
  if (faultsArmed.load(std::memory_order_relaxed))
    verdict.met = matchCompletion(name, verdict.fault);
  if (recording.load(std::memory_order_relaxed) && !verdict.is(CompletionFault::Drop))
    recordCompletion(name, args());
  return verdict;
}

/// Names an object for the journal: "video_encode#2". The same object keeps its name until
/// forget(); a start of the journal renumbers from 1.
std::string nameOf(const void* object, const char* kind);
void forget(const void* object);

/// Census counters, by kind.
enum class Kind { CoreInit, Handle, Component, Wrapper, EnabledPort, Pool, Queue, Buffer, Thread };
void count(Kind kind, int change);

/// Counts its owner for as long as it lives.
class Counted {
 public:
  explicit Counted(Kind kind) : kind_(kind) { count(kind_, 1); }
  ~Counted() { count(kind_, -1); }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  Kind kind_;
};

/// Set on the components' own threads.
inline thread_local bool onWorker = false;

/// A component's worker, as quiet() sees it for as long as this lives. `atRest` tells, on any
/// thread, whether the worker sleeps and nothing waits for it that is due; it takes the component's
/// lock, so this is made and destroyed without that.
class Watched {
 public:
  explicit Watched(std::function<bool()> atRest);
  ~Watched();
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  bool atRest() const { return atRest_(); }

 private:
  const std::function<bool()> atRest_;
};

/// A worker goes to sleep: whoever awaits quiet looks again. Any lock may be held.
void wentToRest();

}  // namespace tessera_platform::hooks

#endif  // TESSERA_PLATFORM_SRC_CONTROL_HOOKS_H
