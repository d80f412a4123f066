#include <algorithm>
#include <cstring>

#include "interface/mmal/mmal_events.h"
#include "mmal/Call.h"
#include "mmal/Component.h"
#include "mmal/Text.h"

// The component's worker thread, and how clients and worker wait for each other.

namespace mmal {

using tessera_platform::CompletionFault;
namespace hooks = tessera_platform::hooks;

namespace {

/// The component whose worker this thread is.
thread_local const Component* workerOf = nullptr;

constexpr std::uint32_t eventBytes = 512;

const char* completionName(const Port& port) {
  if (port.wrapper != nullptr) return "wrapper";
  if (port.isInput()) return "input";
  return port.isOutput() ? "output" : "control";
}

hooks::Completion judge(Port& port, Header& header) {
  header.judged = true;
  return hooks::completion(completionName(port),
                           [&] { return nameOf(&port) + ", " + text::payload(header); });
}

}  // namespace

bool Component::onOwnWorker() const {
  return workerOf == this;
}

void Component::recall(Lock& held, Port& target) {
  const unsigned ticket = ++target.recalls;
  // The worker itself serves the request as soon as the callback that it is in returns.
  if (onOwnWorker()) return;
  bell_.ring(held);
  held.lock();
  changed_.wait(held, [&] { return static_cast<int>(target.recallsServed - ticket) >= 0; });
}

void Component::letGo(Header& header) {
  Lock held(mutex_);
  if (!onOwnWorker()) changed_.wait(held, [this] { return !working_; });
  for (Port* each : ports_) {
    if (!each->remove(header)) continue;
    header.holder = nullptr;
    header.move(Place::Port, Place::Client);
  }
}

void Component::settle() {
  if (onOwnWorker()) return;
  Lock held(mutex_);
  changed_.wait_for(held, std::chrono::seconds(1), [this] { return bell_.asleep() && !busy(); });
}

bool Component::busy() const {
  for (const Port* each : ports_)
    if (each->recalled() || !each->finished.empty()) return true;
  return is_enabled != 0 && workDue_;
}

// Unlike for busy(), a callback that a fault delays is nothing to do until it is due.
bool Component::atRest() {
  const Lock held(mutex_);
  for (const Port* each : ports_)
    if (each->recalled()) return false;
  const bool workDue = is_enabled != 0 && workDue_;
  return bell_.asleep() && !stopping_ && !workDue && nextDue() > Clock::now();
}

void Component::run() {
  workerOf = this;
  becomeWorkerThread();
  Lock held(mutex_);
  for (;;) {
    if (serveRecalls(held) || deliverDue(held)) continue;
    if (stopping_) break;
    if (is_enabled == 0 || !workDue_) {
      sleep(held);
      continue;
    }
    workDue_ = false;
    working_ = true;
    held.unlock();
    const bool more = tryWork();
    held.lock();
    working_ = false;
    workDue_ = workDue_ || more;
    changed_.notify_all();
  }
  held.unlock();
  if (!orphaned_) return;
  worker_.detach();
  delete this;
}

bool Component::tryWork() try { return work(); } catch (const std::exception&) {
  lose();
  raiseError(MMAL_ENOMEM);
  return true;
}

void Component::lose() {
  if (front(*inputPort_) != nullptr) giveBack(*inputPort_);
}

Component::Clock::time_point Component::nextDue() const {
  Clock::time_point next = is_enabled != 0 ? alarm_ : never;
  for (const Port* each : ports_) {
    const Header* const first = each->finished.front();
    if (first != nullptr) next = std::min(next, first->due);
  }
  return next;
}

void Component::sleep(Lock& held) {
  changed_.notify_all();
  hooks::wentToRest();
  bell_.sleep(held, nextDue());
  if (alarm_ > Clock::now()) return;
  alarm_ = never;
  workDue_ = true;
}

bool Component::serveRecalls(Lock& held) {
  bool any = false;
  for (Port* each : ports_) {
    if (!each->recalled()) continue;
    giveBackAll(held, *each);
    any = true;
  }
  return any;
}

void Component::giveBackAll(Lock& held, Port& target) {
  const unsigned ticket = target.recalls;
  discard(target);
  target.returning.splice(target.finished);
  target.returning.splice(target.withheld);
  target.returning.splice(target.pending);
  while (Header* const header = target.returning.popFront()) giveBackUnused(held, target, *header);
  target.recallsServed = ticket;
  if (target.is_enabled == 0 && target.recalls == ticket) target.callback = nullptr;
  workDue_ = true;
  changed_.notify_all();
}

bool Component::deliverDue(Lock& held) {
  for (Port* each : ports_) {
    Header* const header = each->finished.front();
    if (header == nullptr || (header->judged && header->due > Clock::now())) continue;
    each->finished.popFront();
    if (header->judged)
      deliver(held, *each, *header);
    else
      giveBack(held, *each, *header);
    return true;
  }
  return false;
}

// Asks what is to become of the callback, and lets it come.
void Component::giveBack(Lock& held, Port& target, Header& header) {
  const hooks::Completion verdict = judge(target, header);
  if (verdict.is(CompletionFault::Drop)) {
    target.withheld.pushBack(header);
  } else if (verdict.is(CompletionFault::Delay)) {
    header.due = Clock::now() + std::chrono::milliseconds(verdict.fault.delayMs);
    target.finished.pushFront(header);
  } else if (verdict.is(CompletionFault::ErrorEvent)) {
    target.withheld.pushBack(header);
    deliverError(held, target, verdict.fault.code);
  } else {
    if (verdict.is(CompletionFault::ZeroLength)) header.length = 0;
    deliver(held, target, header, verdict.is(CompletionFault::Double));
  }
}

// A flush or disable keeps nothing back, whatever is injected.
void Component::giveBackUnused(Lock& held, Port& target, Header& header) {
  if (header.judged) return deliver(held, target, header);
  const hooks::Completion verdict = judge(target, header);
  if (verdict.is(CompletionFault::ErrorEvent)) deliverError(held, target, verdict.fault.code);
  if (verdict.is(CompletionFault::ZeroLength)) header.length = 0;
  deliver(held, target, header, verdict.is(CompletionFault::Double));
}

void Component::deliver(Lock& held, Port& target, Header& header, bool twice) {
  const MMAL_PORT_BH_CB_T callback = target.callback;
  const bool wasWorking = working_;
  working_ = true;
  delivering_ = &header;
  header.holder = nullptr;
  header.move(Place::Port, Place::Client);
  held.unlock();
  callback(&target, &header);
  if (twice) {
    const SecondCallback second(header);
    callback(&target, &header);
  }
  held.lock();
  working_ = wasWorking;
  delivering_ = nullptr;
  changed_.notify_all();
}

void Component::deliverError(Lock& held, Port& target, std::uint32_t status) {
  Header* const event = eventHeader(MMAL_EVENT_ERROR);
  if (event == nullptr) return;
  std::memcpy(event->data, &status, sizeof(status));
  event->length = sizeof(status);
  deliver(held, target, *event);
}

Header* Component::front(Port& target) {
  const Lock held(mutex_);
  return target.open() ? target.pending.front() : nullptr;
}

void Component::giveBack(Port& target) {
  Lock held(mutex_);
  Header* const header = target.pending.popFront();
  if (header == nullptr) return;
  giveBackInTurn(held, target, *header);
}

// Behind one that is late.
void Component::giveBackInTurn(Lock& held, Port& target, Header& header) {
  if (target.finished.empty())
    giveBack(held, target, header);
  else
    target.finished.pushBack(header);
}

void Component::tryAgainAt(Clock::time_point time) {
  const Lock held(mutex_);
  alarm_ = time;
}

void Component::raise(Port& target, Header& event) {
  Lock held(mutex_);
  if (!target.open()) {
    held.unlock();
    event.release();
    return;
  }
  event.move(Place::Client, Place::Port);
  event.judged = false;
  event.holder = this;
  giveBackInTurn(held, target, event);
}

void Component::raiseError(MMAL_STATUS_T status) {
  Lock held(mutex_);
  if (controlPort_->open()) deliverError(held, *controlPort_, static_cast<std::uint32_t>(status));
}

Header* Component::eventHeader(std::uint32_t command) try {
  Header* event = freeEvents_.get();
  if (event == nullptr) {
    Payload payload(eventBytes);
    if (payload.data() == nullptr) return nullptr;
    events_.push_back(std::make_unique<Header>(*this, std::move(payload)));
    event = events_.back().get();
  }
  event->cmd = command;
  return event;
} catch (const std::bad_alloc&) {
  return nullptr;
}

void Component::takeBack(Header& header) {
  freeEvents_.put(header);
}

}  // namespace mmal
