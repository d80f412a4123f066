#include "mmal/Header.h"

#include "mmal/Call.h"

namespace mmal {

namespace {
thread_local const Header* inSecondCallback = nullptr;
}

SecondCallback::SecondCallback(const Header& header) {
  inSecondCallback = &header;
}
SecondCallback::~SecondCallback() {
  inSecondCallback = nullptr;
}
bool SecondCallback::concerns(const Header& header) {
  return inSecondCallback == &header;
}

Header::Header(Home& itsHome, Payload&& itsPayload)
    : MMAL_BUFFER_HEADER_T{}, home_(itsHome), payload_(std::move(itsPayload)) {
  data = payload_.data();
  alloc_size = payload_.size();
  type = &specific_;
  reset();
}

Header::~Header() {
  detach();
}

// The holder may let go of it, to another one, while this waits for the holder's lock.
void Header::detach() {
  for (;;) {
    Holder* const has = holder;
    if (place() == Place::Client || place() == Place::Returning) return;
    if (has != nullptr) has->letGo(*this);
  }
}

void Header::reset() {
  cmd = 0;
  length = 0;
  offset = 0;
  flags = 0;
  pts = MMAL_TIME_UNKNOWN;
  dts = MMAL_TIME_UNKNOWN;
}

bool Header::move(Place from, Place to) {
  std::uint32_t now = state_.load();
  while ((now & placeMask) == static_cast<std::uint32_t>(from)) {
    const std::uint32_t then = (now & ~placeMask) | static_cast<std::uint32_t>(to);
    if (state_.compare_exchange_weak(now, then)) return true;
  }
  return false;
}

void Header::acquire() {
  state_ += oneReference;
}

void Header::release() {
  if (SecondCallback::concerns(*this)) return;
  std::uint32_t now = state_.load();
  for (;;) {
    const std::uint32_t references = now / oneReference;
    if (references == 0) return;
    const bool last = references == 1;
    if (last && (now & placeMask) != static_cast<std::uint32_t>(Place::Client)) return;
    const std::uint32_t then =
        last ? static_cast<std::uint32_t>(Place::Returning) : now - oneReference;
    if (!state_.compare_exchange_weak(now, then)) continue;
    if (!last) return;
    break;
  }
  goHome();
}

void Header::goHome() {
  reset();
  // A header at home carries the reference of whoever gets it next.
  state_ = oneReference | static_cast<std::uint32_t>(Place::Client);
  home_.takeBack(*this);
}

void HeaderList::pushBack(Header& header) {
  header.next = nullptr;
  if (tail_ != nullptr)
    tail_->next = &header;
  else
    head_ = &header;
  tail_ = &header;
  ++size_;
}

void HeaderList::pushFront(Header& header) {
  header.next = head_;
  head_ = &header;
  if (tail_ == nullptr) tail_ = &header;
  ++size_;
}

Header* HeaderList::popFront() {
  Header* const first = head_;
  if (first != nullptr) remove(*first);
  return first;
}

bool HeaderList::remove(Header& header) {
  Header* before = nullptr;
  for (Header* each = head_; each != nullptr; before = each, each = headerOf(each->next)) {
    if (each != &header) continue;
    Header* const after = headerOf(header.next);
    if (before == nullptr)
      head_ = after;
    else
      before->next = after;
    if (tail_ == &header) tail_ = before;
    header.next = nullptr;
    --size_;
    return true;
  }
  return false;
}

void HeaderList::splice(HeaderList& other) {
  while (Header* const header = other.popFront()) pushBack(*header);
}

}  // namespace mmal

using mmal::Call;
using mmal::headerOf;

namespace {

void onHeader(const char* entry, MMAL_BUFFER_HEADER_T* header, void (mmal::Header::*work)()) {
  const Call call(entry);
  if (!call.stopped() && header != nullptr) (headerOf(header)->*work)();
  call.done();
}

}  // namespace

void mmal_buffer_header_acquire(MMAL_BUFFER_HEADER_T* header) {
  onHeader(__func__, header, &mmal::Header::acquire);
}

void mmal_buffer_header_reset(MMAL_BUFFER_HEADER_T* header) {
  onHeader(__func__, header, &mmal::Header::reset);
}

void mmal_buffer_header_release(MMAL_BUFFER_HEADER_T* header) {
  onHeader(__func__, header, &mmal::Header::release);
}

MMAL_STATUS_T mmal_buffer_header_mem_lock(MMAL_BUFFER_HEADER_T* header) {
  Call call("mmal_buffer_header_mem_lock");
  if (call.stopped()) return call.refuse();
  return call.leave(header != nullptr ? MMAL_SUCCESS : MMAL_EINVAL);
}

void mmal_buffer_header_mem_unlock(MMAL_BUFFER_HEADER_T*) {
  Call call("mmal_buffer_header_mem_unlock");
  call.done();
}
