#include "support/Interpose.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <semaphore.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>

namespace support::interpose {

Failing semInit, semWait, clockGettime, allocation, elsewhere;
std::atomic<void (*)()> beforeAllocation{};
namespace {

std::atomic<std::size_t> allocations{0};
std::atomic<std::size_t> live{0};
std::atomic<int> semaphores{0};
std::atomic<pthread_t> armer{};  ///< of what was armed last

struct Range {
  std::uintptr_t first = 0;
  std::uintptr_t last = 0;
};

/// Where the code of libtessera.so is.
Range findLibrary() {
  Range range;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* found) {
        if (std::strstr(info->dlpi_name, "libtessera.so") == nullptr) return 0;
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const auto& part = info->dlpi_phdr[i];
          if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0)
            *static_cast<Range*>(found) = {info->dlpi_addr + part.p_vaddr,
                                           info->dlpi_addr + part.p_vaddr + part.p_memsz};
        }
        return 1;
      },
      &range);
  return range;
}

/// Whether what a thread asks for is to be denied to it, as one that did not arm the fault.
bool deniedElsewhere() {
  return pthread_equal(armer, pthread_self()) == 0 && elsewhere.hit();
}

/// Counts the library's calls of operator new, and fails the one that is to fail. Other code on the
/// same thread is left alone: a worker of the platform's may well allocate at the same moment.
void admit(const void* caller) {
  if (deniedElsewhere()) throw std::bad_alloc();
  if (!isLibrary(caller)) return;
  ++allocations;
  if (const auto run = beforeAllocation.load()) run();
  if (allocation.hit()) throw std::bad_alloc();
}

void* allocate(std::size_t size) {
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  ++live;
  return memory;
}

void* allocateQuietly(std::size_t size, const void* caller) noexcept {
  try {
    admit(caller);
    return allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void release(void* memory) {
  if (memory != nullptr) --live;
  std::free(memory);
}

}  // namespace

void Failing::arm(int nth, bool keep) {
  armer = pthread_self();
  met = 0;
  calls = 0;
  forGood = keep;
  in = nth;
}

void Failing::disarm() {
  in = 0;
  forGood = false;
}

bool Failing::hit() {
  ++calls;
  int left = in.load();
  if (left <= 0) return false;
  if (left == 1 && forGood) {
    ++met;
    return true;
  }
  if (in.fetch_sub(1) != 1) return false;
  ++met;
  return true;
}

bool isLibrary(const void* address) {
  static const Range library = findLibrary();
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  return at >= library.first && at < library.last;
}

std::size_t liveBlocks() {
  return live;
}
int liveSemaphores() {
  return semaphores;
}
std::size_t allocationsOfLibrary() {
  return allocations;
}

void reset() {
  for (Failing* each : {&semInit, &semWait, &clockGettime, &allocation, &elsewhere}) each->disarm();
}

}  // namespace support::interpose

namespace interpose = support::interpose;

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  static auto* const system =
      reinterpret_cast<decltype(&::pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (interpose::deniedElsewhere()) return EAGAIN;
  return system(thread, attributes, start, argument);
}

int sem_init(sem_t* semaphore, int shared, unsigned value) noexcept {
  static auto* const system =
      reinterpret_cast<int (*)(sem_t*, int, unsigned)>(dlsym(RTLD_NEXT, "sem_init"));
  if (interpose::semInit.hit()) {
    errno = ENOSPC;
    return -1;
  }
  ++interpose::semaphores;
  return system(semaphore, shared, value);
}

int sem_destroy(sem_t* semaphore) noexcept {
  static auto* const system = reinterpret_cast<int (*)(sem_t*)>(dlsym(RTLD_NEXT, "sem_destroy"));
  --interpose::semaphores;
  return system(semaphore);
}
}

void* operator new(std::size_t size) {
  interpose::admit(__builtin_return_address(0));
  return interpose::allocate(size);
}
void* operator new[](std::size_t size) {
  interpose::admit(__builtin_return_address(0));
  return interpose::allocate(size);
}
// A sanitizer's own would not go with the operator delete below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return interpose::allocateQuietly(size, __builtin_return_address(0));
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return interpose::allocateQuietly(size, __builtin_return_address(0));
}
void operator delete(void* memory) noexcept {
  interpose::release(memory);
}
void operator delete[](void* memory) noexcept {
  interpose::release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  interpose::release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  interpose::release(memory);
}
