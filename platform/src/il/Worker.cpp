// The worker's half of a component: commands, events, callbacks, and the loop around them.

#include <algorithm>
#include <new>

#include "il/Component.h"
#include "il/Text.h"

namespace il {
namespace {

namespace hooks = tessera_platform::hooks;
using tessera_platform::CompletionFault;

constexpr Clock::time_point never = tessera_platform::Doorbell::never;
constexpr std::chrono::seconds settleLimit{1};

Clock::time_point dueOf(const CompletionFault& fault) {
  return fault.action == CompletionFault::Delay
             ? Clock::now() + std::chrono::milliseconds(fault.delayMs)
             : never;
}

bool allowed(OMX_STATETYPE from, OMX_STATETYPE to) {
  switch (from) {
    case OMX_StateLoaded:
      return to == OMX_StateIdle || to == OMX_StateWaitForResources;
    case OMX_StateWaitForResources:
      return to == OMX_StateIdle || to == OMX_StateLoaded;
    case OMX_StateIdle:
      return to == OMX_StateLoaded || to == OMX_StateExecuting || to == OMX_StatePause;
    case OMX_StateExecuting:
      return to == OMX_StateIdle || to == OMX_StatePause;
    case OMX_StatePause:
      return to == OMX_StateIdle || to == OMX_StateExecuting;
    default:
      return false;
  }
}

}  // namespace

// ------------------------------------------------------------------------------------- loop

void Component::start() {
  worker_ = std::thread([this] {
    const hooks::Counted thread(hooks::Kind::Thread);
    hooks::onWorker = true;
    run();
  });
}

void Component::stop() {
  {
    Lock lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
    bell_.ring(lock);
  }
  if (worker_.joinable()) worker_.join();
}

/// At the end of a client's call: wakes the worker if it can do something about it. A disable, say,
/// is carried out all at once when the buffers are freed.
void Component::callWorker(Lock& lock) {
  if (!bell_.asleep() || canGoOn()) bell_.ring(lock);
}

void Component::run() {
  Lock lock(mutex_);
  for (;;) {
    if (announceNext(lock)) continue;
    if (stopping_) return;
    if (advance(lock) || deliverDue(lock)) continue;
    if (state_ == OMX_StateExecuting && tryWork(lock)) continue;
    sleep(lock);
  }
}

/// One piece of work. The memory or thread that a codec lacks ends that, not the process.
bool Component::tryWork(Lock& lock) {
  try {
    return work(lock);
  } catch (const std::exception&) {
    raiseError(OMX_ErrorInsufficientResources, 0);
    return true;
  }
}

/// Sleeps until something happens, or something that a fault holds back is due.
void Component::sleep(Lock& lock) {
  changed_.notify_all();
  hooks::wentToRest();
  // Commands come in rows, before each picture or after it, or hardly ever. In step it is not ever
  // soon, nor does the clock that counts the microseconds move.
  const bool soon = filledSinceCommand_ <= 1 && !hooks::stepped;
  bell_.sleep(lock, nextDue(), soon);
}

/// Whether the worker, which sleeps, has something to do.
bool Component::canGoOn() {
  if (!events_.empty() || (state_ == OMX_StateExecuting && hasWork())) return true;
  for (std::size_t i = 0; i < commands_.size(); ++i)
    if (commands_[i].begun ? isComplete(commands_[i]) : !blocked(i) && !awaitsClient(commands_[i]))
      return true;
  return false;
}

/// Whether a command that is not begun has no effect before the client frees a buffer.
bool Component::awaitsClient(const Command& command) const {
  if (command.kind != OMX_CommandPortDisable) return false;
  const auto& buffers = find(command.parameter)->buffers;
  return !buffers.empty() && std::all_of(buffers.begin(), buffers.end(), [](const auto& buffer) {
    return buffer->place == Buffer::Place::Client;
  });
}

bool Component::atRest() const {
  const Lock lock(mutex_);
  return bell_.asleep() && nextDue() > Clock::now();
}

Clock::time_point Component::nextDue() const {
  Clock::time_point due = never;
  for (const Event& event : lateEvents_) due = std::min(due, event.due);
  for (const Port& port : ports_)
    for (const auto& buffer : port.buffers)
      if (buffer->place == Buffer::Place::Withheld) due = std::min(due, buffer->due);
  return due;
}

bool Component::deliverDue(Lock& lock) {
  const Clock::time_point now = Clock::now();
  for (std::size_t i = 0; i < lateEvents_.size(); ++i) {
    if (lateEvents_[i].due > now) continue;
    const Event event = lateEvents_[i];
    lateEvents_.erase(lateEvents_.begin() + static_cast<std::ptrdiff_t>(i));
    announce(lock, event);
    return true;
  }
  for (Port& port : ports_)
    for (const auto& buffer : port.buffers)
      if (buffer->place == Buffer::Place::Withheld && buffer->due <= now) {
        deliver(lock, port, *buffer, false);
        return true;
      }
  return false;
}

void Component::settle() {
  if (onWorker()) return;
  Lock lock(mutex_);
  changed_.wait_for(lock, settleLimit, [this] { return bell_.asleep() || stopping_; });
}

// --------------------------------------------------------------------------------- commands

bool Component::advance(Lock& lock) {
  bool moved = false;
  for (std::size_t i = 0; i < commands_.size();) {
    if (!commands_[i].begun && !blocked(i)) {
      begin(lock, i);
      moved = true;
    }
    if (!isComplete(commands_[i])) {
      ++i;
      continue;
    }
    complete(commands_[i]);
    commands_.erase(commands_.begin() + static_cast<std::ptrdiff_t>(i));
    // What waited before it may now be complete.
    i = 0;
    moved = true;
  }
  if (moved) changed_.notify_all();
  return moved;
}

/// A command waits for an earlier one of the same port, or of the state.
bool Component::blocked(std::size_t position) const {
  const Command& command = commands_[position];
  if (command.kind == OMX_CommandFlush) return false;
  for (std::size_t i = 0; i < position; ++i) {
    const Command& earlier = commands_[i];
    const bool sameKind =
        (earlier.kind == OMX_CommandStateSet) == (command.kind == OMX_CommandStateSet);
    if (sameKind && earlier.kind != OMX_CommandFlush &&
        (command.kind == OMX_CommandStateSet || earlier.parameter == command.parameter))
      return true;
  }
  return false;
}

void Component::begin(Lock& lock, std::size_t position) {
  commands_[position].begun = true;
  // Callbacks may send further commands: the vector grows at its end only.
  const Command command = commands_[position];
  if (command.kind == OMX_CommandStateSet)
    beginStateSet(lock, position);
  else if (command.kind != OMX_CommandPortEnable)
    giveBackAll(lock, *find(command.parameter), command.kind);
}

void Component::beginStateSet(Lock& lock, std::size_t position) {
  const auto target = static_cast<OMX_STATETYPE>(commands_[position].parameter);
  if (target == OMX_StateInvalid) {
    state_ = OMX_StateInvalid;
    commands_[position].error = OMX_ErrorInvalidState;
  } else if (target == state_) {
    commands_[position].error = OMX_ErrorSameState;
  } else if (!allowed(state_, target)) {
    commands_[position].error = OMX_ErrorIncorrectStateTransition;
  } else if (target == OMX_StateIdle && !loaded()) {
    for (Port& port : ports_) giveBackAll(lock, port, OMX_CommandStateSet);
  }
}

bool Component::isComplete(const Command& command) const {
  if (!command.begun) return false;
  if (command.error != OMX_ErrorNone) return true;
  const auto populated = [](const Port& port) { return !port.enabled() || port.populated(); };
  const auto empty = [](const Port& port) { return port.buffers.empty(); };
  switch (command.kind) {
    case OMX_CommandPortDisable:
      return empty(*find(command.parameter));
    case OMX_CommandPortEnable:
      return loaded() || find(command.parameter)->populated();
    case OMX_CommandStateSet:
      if (loaded() && command.parameter == OMX_StateIdle)
        return std::all_of(ports_.begin(), ports_.end(), populated);
      if (!loaded() && command.parameter == OMX_StateLoaded)
        return std::all_of(ports_.begin(), ports_.end(), empty);
      return true;
    default:
      return true;
  }
}

void Component::complete(const Command& command) {
  if (command.error != OMX_ErrorNone) {
    raiseError(command.error, 0);
    return;
  }
  if (command.kind == OMX_CommandStateSet) {
    state_ = static_cast<OMX_STATETYPE>(command.parameter);
    if (loaded())
      for (Port& port : ports_) port.spare = Memory();
  }
  raise(OMX_EventCmdComplete, static_cast<OMX_U32>(command.kind), command.parameter);
  filledSinceCommand_ = 0;
}

// ----------------------------------------------------------------------------------- events

/// Within the room that sendCommand() keeps: the worker's own events find it without an allocation.
void Component::raise(OMX_EVENTTYPE event, OMX_U32 data1, OMX_U32 data2) {
  events_.push_back({event, data1, data2});
}

void Component::raiseError(OMX_ERRORTYPE error, OMX_U32 port) {
  raise(OMX_EventError, static_cast<OMX_U32>(error), port);
}

bool Component::announceNext(Lock& lock) {
  if (events_.empty()) return false;
  Event event = events_.front();
  events_.erase(events_.begin());
  const hooks::Completion verdict =
      hooks::completion("EventHandler", [&] { return describe(event); });
  if (verdict.is(CompletionFault::Drop)) return true;
  if (verdict.is(CompletionFault::Delay)) {
    event.due = dueOf(verdict.fault);
    if (keepLate(event)) return true;
  }
  if (verdict.is(CompletionFault::ErrorEvent)) event = {OMX_EventError, verdict.fault.code, 0};
  announce(lock, event);
  if (verdict.is(CompletionFault::Double)) announce(lock, event);
  return true;
}

/// @return false without memory: then the event is not late
bool Component::keepLate(const Event& event) try {
  lateEvents_.push_back(event);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void Component::announce(Lock& lock, const Event& event) {
  const OMX_CALLBACKTYPE callbacks = callbacks_;
  const OMX_PTR appData = table_.pApplicationPrivate;
  if (callbacks.EventHandler == nullptr) return;
  const Unlocked unlocked(lock);
  callbacks.EventHandler(&table_, appData, event.event, event.data1, event.data2, nullptr);
}

std::string Component::describe(const Event& event) const {
  return name() + ", " + text::event(event.event, event.data1, event.data2);
}

// ---------------------------------------------------------------------------------- buffers

std::string Component::describe(const Port& port, const Buffer& buffer) const {
  std::string text = name(port.definition.nPortIndex);
  if (port.isInput()) return text;
  return text + ", " + std::to_string(buffer.header.nFilledLen) + " bytes" +
         text::flags(buffer.header.nFlags);
}

void Component::giveBack(Lock& lock, Port& port, Buffer& buffer) {
  const hooks::Completion verdict =
      hooks::completion(port.isInput() ? "EmptyBufferDone" : "FillBufferDone",
                        [&] { return describe(port, buffer); });
  if (verdict.is(CompletionFault::Drop) || verdict.is(CompletionFault::Delay) ||
      verdict.is(CompletionFault::ErrorEvent)) {
    buffer.place = Buffer::Place::Withheld;
    buffer.due = dueOf(verdict.fault);
    if (verdict.is(CompletionFault::ErrorEvent))
      raiseError(static_cast<OMX_ERRORTYPE>(verdict.fault.code), port.definition.nPortIndex);
    return;
  }
  if (verdict.is(CompletionFault::ZeroLength)) buffer.header.nFilledLen = 0;
  deliver(lock, port, buffer, verdict.is(CompletionFault::Double));
}

void Component::deliver(Lock& lock, Port& port, Buffer& buffer, bool twice) {
  const OMX_CALLBACKTYPE callbacks = callbacks_;
  const OMX_PTR appData = table_.pApplicationPrivate;
  OMX_BUFFERHEADERTYPE* const header = &buffer.header;
  const auto done = port.isInput() ? callbacks.EmptyBufferDone : callbacks.FillBufferDone;
  buffer.place = Buffer::Place::Client;
  if (!port.isInput()) ++filledSinceCommand_;
  delivering_ = &buffer;
  // From here on the client may refill and resubmit the buffer, even before its callback.
  if (port.isInput()) __atomic_store_n(&header->nFilledLen, 0u, __ATOMIC_RELEASE);
  for (int time = 0; done != nullptr && time < (twice ? 2 : 1); ++time) {
    if (port.find(header) == nullptr) break;  // freed by its own callback
    const Unlocked unlocked(lock);
    done(&table_, appData, header);
  }
  delivering_ = nullptr;
  changed_.notify_all();
}

/// Hands back everything that a port holds: what is being worked on, what waits, and what a fault
/// holds back. A callback may free or submit buffers: what leaves is marked before the first of
/// them, and looked up again each time.
void Component::giveBackAll(Lock& lock, Port& port, OMX_COMMANDTYPE reason) {
  discard(lock, port, reason);
  for (const auto& buffer : port.buffers) buffer->leaving = buffer->place != Buffer::Place::Client;
  while (Buffer* const buffer = port.nextLeaving()) {
    buffer->leaving = false;
    // A buffer that a fault has kept back so far meets no second one.
    if (buffer->place == Buffer::Place::Withheld) {
      deliver(lock, port, *buffer, false);
      continue;
    }
    port.unqueue(*buffer);
    if (!port.isInput()) buffer->prepare();
    giveBack(lock, port, *buffer);
  }
}

}  // namespace il
