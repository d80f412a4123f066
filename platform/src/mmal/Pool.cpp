#include "mmal/Pool.h"

#include <new>
#include <utility>

#include "interface/mmal/util/mmal_util.h"
#include "mmal/Component.h"
#include "mmal/Journal.h"

namespace mmal {

std::unique_ptr<Pool> Pool::create(unsigned headers, std::uint32_t payloadSize,
                                   const Payload::Allocator& allocator) try {
  auto pool = std::make_unique<Pool>(allocator);
  if (pool->resize(headers, payloadSize) != MMAL_SUCCESS) return nullptr;
  return pool;
} catch (const std::bad_alloc&) {
  return nullptr;
}

Pool::Pool(const Payload::Allocator& allocator) : MMAL_POOL_T{}, allocator_(allocator) {
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

bool Pool::make(Headers& made, std::vector<MMAL_BUFFER_HEADER_T*>& pointers, unsigned headers,
                std::uint32_t payloadSize) try {
  made.reserve(headers);
  pointers.reserve(headers);
  for (unsigned i = 0; i < headers; ++i) {
    Payload payload(payloadSize, allocator_);
    if (payloadSize != 0 && payload.data() == nullptr) return false;
    made.push_back(std::make_unique<Header>(*this, std::move(payload)));
    pointers.push_back(made.back().get());
  }
  return true;
} catch (const std::exception&) {
  return false;
}

void Pool::adopt(Headers&& made, std::vector<MMAL_BUFFER_HEADER_T*>&& pointers) {
  headers_ = std::move(made);
  pointers_ = std::move(pointers);
  header = pointers_.data();
  headers_num = static_cast<std::uint32_t>(headers_.size());
  for (const auto& each : headers_) {
    each->preRelease = preRelease_;
    each->preReleaseData = preReleaseData_;
    free_.put(*each);
  }
}

MMAL_STATUS_T Pool::resize(unsigned headers, std::uint32_t payloadSize) {
  if (free_.length() != headers_.size()) return MMAL_EINVAL;
  Headers made;
  std::vector<MMAL_BUFFER_HEADER_T*> pointers;
  if (!make(made, pointers, headers, payloadSize)) return MMAL_ENOMEM;
  headers_.clear();
  adopt(std::move(made), std::move(pointers));
  return MMAL_SUCCESS;
}

void Pool::setCallback(MMAL_POOL_BH_CB_T callback, void* userData) {
  const std::lock_guard<std::mutex> lock(mutex_);
  callback_ = callback;
  callbackData_ = userData;
}

void Pool::setPreRelease(MMAL_BH_PRE_RELEASE_CB_T callback, void* userData) {
  preRelease_ = callback;
  preReleaseData_ = userData;
  for (const auto& each : headers_) {
    each->preRelease = callback;
    each->preReleaseData = userData;
  }
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

MMAL_POOL_T* createPool(const char* entry, unsigned headers, uint32_t payloadSize,
                        const mmal::Payload::Allocator& allocator) {
  Call call(entry);
  MMAL_POOL_T* const pool =
      call.stopped() ? nullptr : Pool::create(headers, payloadSize, allocator).release();
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
  return createPool("mmal_pool_create", headers, payload_size, {});
}

MMAL_POOL_T* mmal_pool_create_with_allocator(unsigned int headers, uint32_t payload_size,
                                             void* allocator_context,
                                             mmal_pool_allocator_alloc_t allocator_alloc,
                                             mmal_pool_allocator_free_t allocator_free) {
  return createPool("mmal_pool_create_with_allocator", headers, payload_size,
                    {allocator_context, allocator_alloc, allocator_free});
}

MMAL_POOL_T* mmal_port_pool_create(MMAL_PORT_T*, unsigned int headers, uint32_t payload_size) {
  return createPool("mmal_port_pool_create", headers, payload_size, {});
}

void mmal_pool_destroy(MMAL_POOL_T* pool) {
  destroyPool("mmal_pool_destroy", pool);
}

void mmal_port_pool_destroy(MMAL_PORT_T*, MMAL_POOL_T* pool) {
  destroyPool("mmal_port_pool_destroy", pool);
}

MMAL_STATUS_T mmal_pool_resize(MMAL_POOL_T* pool, unsigned int headers, uint32_t payload_size) {
  Call call("mmal_pool_resize");
  const auto args = [&] {
    return mmal::nameOf(pool) + ", " + std::to_string(headers) + " x " +
           std::to_string(payload_size);
  };
  if (call.stopped()) return call.refuse(args);
  if (pool == nullptr) return call.leave(MMAL_EINVAL, args);
  return call.leave(static_cast<Pool*>(pool)->resize(headers, payload_size), args);
}

void mmal_pool_callback_set(MMAL_POOL_T* pool, MMAL_POOL_BH_CB_T cb, void* userdata) {
  Call call("mmal_pool_callback_set");
  if (!call.stopped() && pool != nullptr) static_cast<Pool*>(pool)->setCallback(cb, userdata);
  call.done([&] { return mmal::nameOf(pool); });
}

void mmal_pool_pre_release_callback_set(MMAL_POOL_T* pool, MMAL_BH_PRE_RELEASE_CB_T cb,
                                        void* userdata) {
  Call call("mmal_pool_pre_release_callback_set");
  if (!call.stopped() && pool != nullptr) static_cast<Pool*>(pool)->setPreRelease(cb, userdata);
  call.done([&] { return mmal::nameOf(pool); });
}
