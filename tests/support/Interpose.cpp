#include "support/Interpose.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <semaphore.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <new>

namespace support::interpose {

Failing semInit, semWait, clockGettime, allocation, elsewhere;
std::atomic<int> hurry{1};
std::atomic<long long> lateNanoseconds{0};
std::atomic<int> clockRate{1};

namespace {

std::atomic<std::size_t> allocations{0};
std::atomic<std::size_t> live{0};
std::atomic<pthread_t> armer{};  ///< of what was armed last

constexpr long long nanosecondsPerSecond = 1000000000LL;
constexpr long long sleptBeforeStep = 50000000LL;
std::atomic<long long> clockIsAhead{0};  ///< CLOCK_REALTIME, in nanoseconds
std::atomic<long long> clockToStep{0};   ///< in the next wait

long long nanoseconds(const timespec& time) {
  return time.tv_sec * nanosecondsPerSecond + time.tv_nsec;
}
timespec toTimespec(long long nanoseconds) {
  return {static_cast<std::time_t>(nanoseconds / nanosecondsPerSecond),
          static_cast<long>(nanoseconds % nanosecondsPerSecond)};
}

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
  static const Range library = findLibrary();
  const auto at = reinterpret_cast<std::uintptr_t>(caller);
  if (at < library.first || at >= library.last) return;
  ++allocations;
  if (allocation.hit()) throw std::bad_alloc();
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int realClock(clockid_t clock, timespec* now) {
  static auto* const function = real<int(clockid_t, timespec*)>("clock_gettime");
  return function(clock, now);
}

/// The same deadline, nearer by the factor `hurry`. A wait that goes on after a signal, with the
/// deadline that it had, has the same one again.
timespec hastened(const timespec& deadline) {
  thread_local timespec asked{}, given{};
  const int factor = hurry;
  timespec now{};
  if (factor <= 1 || realClock(CLOCK_REALTIME, &now) != 0) return deadline;
  if (asked.tv_sec == deadline.tv_sec && asked.tv_nsec == deadline.tv_nsec) return given;
  const long long left = nanoseconds(deadline) - nanoseconds(now);
  asked = deadline;
  given = toTimespec(nanoseconds(now) + (left > 0 ? left / factor : left));
  return given;
}

/// Sleeps until a moment of the clock as the program sees it, which may be set meanwhile.
template <typename Sleep>
int sleepUntil(const timespec& deadline, Sleep sleep) {
  timespec now{};
  const auto asSystem = [&] { return toTimespec(nanoseconds(deadline) - clockIsAhead); };
  if (clockToStep != 0 && realClock(CLOCK_REALTIME, &now) == 0) {
    const timespec step = toTimespec(nanoseconds(now) + sleptBeforeStep);
    if (nanoseconds(step) < nanoseconds(asSystem())) {
      if (sleep(step) == 0) return 0;
      if (errno != ETIMEDOUT) return -1;
      clockIsAhead += clockToStep.exchange(0);
    }
  }
  const timespec when = hastened(asSystem());
  const int result = sleep(when);
  if (result != 0 && errno == ETIMEDOUT && realClock(CLOCK_REALTIME, &now) == 0)
    lateNanoseconds += nanoseconds(now) - nanoseconds(when);
  return result;
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

std::size_t liveBlocks() {
  return live;
}
std::size_t allocationsOfLibrary() {
  return allocations;
}

void reset() {
  for (Failing* each : {&semInit, &semWait, &clockGettime, &allocation, &elsewhere}) each->disarm();
  hurry = clockRate = 1;
  clockIsAhead = clockToStep = 0;
}

void setClockDuringNextWait(std::chrono::nanoseconds by) {
  clockToStep = by.count();
}

}  // namespace support::interpose

namespace interpose = support::interpose;

extern "C" {

int sem_init(sem_t* semaphore, int shared, unsigned value) noexcept {
  static auto* const function = interpose::real<int(sem_t*, int, unsigned)>("sem_init");
  if (interpose::semInit.hit()) {
    errno = ENOSPC;
    return -1;
  }
  return function(semaphore, shared, value);
}

int sem_wait(sem_t* semaphore) {
  static auto* const function = interpose::real<int(sem_t*)>("sem_wait");
  if (interpose::semWait.hit()) {
    errno = EINVAL;
    return -1;
  }
  return function(semaphore);
}

int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
  static auto* const function = interpose::real<int(sem_t*, const timespec*)>("sem_timedwait");
  if (interpose::semWait.hit()) {
    errno = EINVAL;
    return -1;
  }
  return interpose::sleepUntil(*deadline,
                               [&](const timespec& when) { return function(semaphore, &when); });
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  using Start = void* (*)(void*);
  static auto* const function =
      interpose::real<int(pthread_t*, const pthread_attr_t*, Start, void*)>("pthread_create");
  if (interpose::deniedElsewhere()) return EAGAIN;
  return function(thread, attributes, start, argument);
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock == CLOCK_REALTIME) {
    if (interpose::clockGettime.hit()) {
      errno = EFAULT;
      return -1;
    }
  }
  const int result = interpose::realClock(clock, now);
  const long long at = interpose::nanoseconds(*now);
  if (clock == CLOCK_REALTIME && interpose::clockIsAhead != 0)
    *now = interpose::toTimespec(at + interpose::clockIsAhead);
  if (clock == CLOCK_MONOTONIC && interpose::clockRate != 1)
    *now = interpose::toTimespec(at * interpose::clockRate);
  return result;
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
