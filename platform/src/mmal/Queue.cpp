#include "mmal/Queue.h"

#include <new>

#include "mmal/Call.h"

namespace mmal {

Queue::~Queue() {
  while (get() != nullptr) {
  }
}

void Queue::put(Header& header, bool atFront) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (SecondCallback::concerns(header) || !header.move(Place::Client, Place::Queue)) return;
  header.holder = this;
  if (atFront)
    headers_.pushFront(header);
  else
    headers_.pushBack(header);
  if (waiters_ > 0) filled_.notify_one();
}

// With the lock held.
Header* Queue::take() {
  Header* const header = headers_.popFront();
  if (header == nullptr) return nullptr;
  header->holder = nullptr;
  header->move(Place::Queue, Place::Client);
  return header;
}

Header* Queue::get() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return take();
}

Header* Queue::wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  ++waiters_;
  filled_.wait(lock, [this] { return !headers_.empty(); });
  --waiters_;
  return take();
}

Header* Queue::wait(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  ++waiters_;
  filled_.wait_for(lock, limit, [this] { return !headers_.empty(); });
  --waiters_;
  return take();
}

unsigned Queue::length() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return headers_.size();
}

void Queue::letGo(Header& header) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!headers_.remove(header)) return;
  header.holder = nullptr;
  header.move(Place::Queue, Place::Client);
}

std::string nameOf(MMAL_QUEUE_T* queue) {
  if (queue == nullptr) return "null";
  const MMAL_POOL_T* const pool = queueOf(queue).pool;
  return pool != nullptr ? nameOf(pool) : tessera_platform::hooks::nameOf(queue, "queue");
}

std::string nameOf(const MMAL_POOL_T* pool) {
  return tessera_platform::hooks::nameOf(pool, "pool");
}

}  // namespace mmal

using mmal::Call;
using mmal::headerOf;
using mmal::Queue;
using mmal::queueOf;

namespace {

void putInto(const char* entry, MMAL_QUEUE_T* queue, MMAL_BUFFER_HEADER_T* buffer, bool atFront) {
  const Call call(entry);
  if (!call.stopped() && queue != nullptr && buffer != nullptr)
    queueOf(queue).put(*headerOf(buffer), atFront);
  call.done([&] { return mmal::nameOf(queue); });
}

template <typename Take>
MMAL_BUFFER_HEADER_T* takeFrom(const char* entry, MMAL_QUEUE_T* queue, Take take,
                               const std::string& limit) {
  const Call call(entry);
  MMAL_BUFFER_HEADER_T* buffer = nullptr;
  if (!call.stopped() && queue != nullptr) buffer = take(queueOf(queue));
  return call.answer(
      buffer, [&] { return mmal::nameOf(queue) + limit; },
      [](const MMAL_BUFFER_HEADER_T* taken) { return taken != nullptr ? "buffer" : "null"; });
}

}  // namespace

MMAL_QUEUE_T* mmal_queue_create(void) {
  Call call("mmal_queue_create");
  MMAL_QUEUE_T* const queue = call.stopped() ? nullptr : new (std::nothrow) Queue;
  if (queue != nullptr) tessera_platform::hooks::count(tessera_platform::hooks::Kind::Queue, 1);
  return call.answer(
      queue, [] { return std::string(); }, [](MMAL_QUEUE_T* q) { return mmal::nameOf(q); });
}

void mmal_queue_put(MMAL_QUEUE_T* queue, MMAL_BUFFER_HEADER_T* buffer) {
  putInto(__func__, queue, buffer, false);
}

void mmal_queue_put_back(MMAL_QUEUE_T* queue, MMAL_BUFFER_HEADER_T* buffer) {
  putInto(__func__, queue, buffer, true);
}

MMAL_BUFFER_HEADER_T* mmal_queue_get(MMAL_QUEUE_T* queue) {
  return takeFrom(
      __func__, queue, [](Queue& q) { return q.get(); }, "");
}

MMAL_BUFFER_HEADER_T* mmal_queue_wait(MMAL_QUEUE_T* queue) {
  return takeFrom(
      __func__, queue, [](Queue& q) { return q.wait(); }, "");
}

MMAL_BUFFER_HEADER_T* mmal_queue_timedwait(MMAL_QUEUE_T* queue, VCOS_UNSIGNED timeout) {
  return takeFrom(
      __func__, queue, [&](Queue& q) { return q.wait(std::chrono::milliseconds(timeout)); },
      ", " + std::to_string(timeout) + " ms");
}

unsigned int mmal_queue_length(MMAL_QUEUE_T* queue) {
  Call call("mmal_queue_length");
  const unsigned length = call.stopped() || queue == nullptr ? 0 : queueOf(queue).length();
  return call.answer(
      length, [&] { return mmal::nameOf(queue); }, [](unsigned n) { return std::to_string(n); });
}

void mmal_queue_destroy(MMAL_QUEUE_T* queue) {
  Call call("mmal_queue_destroy");
  call.done([&] { return mmal::nameOf(queue); });
  if (call.stopped() || queue == nullptr) return;
  tessera_platform::hooks::forget(queue);
  tessera_platform::hooks::count(tessera_platform::hooks::Kind::Queue, -1);
  delete &queueOf(queue);
}
