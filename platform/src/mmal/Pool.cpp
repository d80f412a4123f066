#include "mmal/Pool.h"

#include <new>
#include <utility>

#include "interface/mmal/util/mmal_util.h"
#include "mmal/Call.h"
#include "mmal/Component.h"

namespace mmal {

std::unique_ptr<Pool> Pool::create(unsigned headers, std::uint32_t payloadSize) try {
  auto pool = std::make_unique<Pool>();
  return pool->fill(headers, payloadSize) ? std::move(pool) : nullptr;
} catch (const std::exception&) {
  return nullptr;
}

Pool::Pool() : MMAL_POOL_T{} {
  queue = &free_;
}

// A client whose port could not be disabled may destroy the pool of buffers that the component
// still holds. Headers go before the queue that may hold them.
Pool::~Pool() {
  for (const auto& each : headers_) {
    each->detach();
    Component::awaitDelivery(*each);
  }
  headers_.clear();
  tessera_platform::hooks::forget(static_cast<MMAL_POOL_T*>(this));
}

bool Pool::fill(unsigned headers, std::uint32_t payloadSize) {
  headers_.reserve(headers);
  pointers_.reserve(headers);
  for (unsigned i = 0; i < headers; ++i) {
    Payload payload(payloadSize);
    if (payloadSize != 0 && payload.data() == nullptr) return false;
    headers_.push_back(std::make_unique<Header>(*this, std::move(payload)));
    pointers_.push_back(headers_.back().get());
    free_.put(*headers_.back());
  }
  header = pointers_.data();
  headers_num = headers;
  return true;
}

void Pool::setCallback(MMAL_POOL_BH_CB_T callback, void* userData) {
  const std::lock_guard<std::mutex> lock(mutex_);
  callback_ = callback;
  callbackData_ = userData;
}

void Pool::takeBack(Header& returned) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto callback = callback_;
  void* const data = callbackData_;
  lock.unlock();
  if (callback == nullptr || callback(this, &returned, data) != MMAL_FALSE) free_.put(returned);
}

}  // namespace mmal

using mmal::Call;
using mmal::Pool;

namespace {

MMAL_POOL_T* createPool(const char* entry, unsigned headers, uint32_t payloadSize) {
  Call call(entry);
  MMAL_POOL_T* const pool = call.stopped() ? nullptr : Pool::create(headers, payloadSize).release();
  return call.answer(
      pool, [&] { return std::to_string(headers) + " x " + std::to_string(payloadSize); },
      [](MMAL_POOL_T* p) { return mmal::nameOf(p); });
}

void destroyPool(const char* entry, MMAL_POOL_T* pool) {
  Call call(entry);
  call.done([&] { return mmal::nameOf(pool); });
  if (call.stopped() || pool == nullptr) return;
  delete static_cast<Pool*>(pool);
}

}  // namespace

MMAL_POOL_T* mmal_pool_create(unsigned int headers, uint32_t payload_size) {
  return createPool("mmal_pool_create", headers, payload_size);
}

MMAL_POOL_T* mmal_port_pool_create(MMAL_PORT_T*, unsigned int headers, uint32_t payload_size) {
  return createPool("mmal_port_pool_create", headers, payload_size);
}

void mmal_pool_destroy(MMAL_POOL_T* pool) {
  destroyPool("mmal_pool_destroy", pool);
}

void mmal_port_pool_destroy(MMAL_PORT_T*, MMAL_POOL_T* pool) {
  destroyPool("mmal_port_pool_destroy", pool);
}

void mmal_pool_callback_set(MMAL_POOL_T* pool, MMAL_POOL_BH_CB_T cb, void* userdata) {
  Call call("mmal_pool_callback_set");
  if (!call.stopped() && pool != nullptr) static_cast<Pool*>(pool)->setCallback(cb, userdata);
  call.done([&] { return mmal::nameOf(pool); });
}
