#include "support/VirtualTime.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <tessera_platform/control.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <mutex>
#include <vector>

#include "support/Interpose.h"

namespace support {
namespace {

namespace control = tessera_platform;

constexpr long long nanosecondsPerSecond = 1000000000LL;
constexpr long long never = std::numeric_limits<long long>::max();
/// How long a client really sleeps that waits for other threads before it looks again; and how long
/// any other thread, which is woken when its time has come, should that have been missed.
constexpr long long clientSlice = 500000, otherSlice = 20000000;

long long nanoseconds(const timespec& time) {
  return time.tv_sec * nanosecondsPerSecond + time.tv_nsec;
}
timespec toTimespec(long long nanoseconds) {
  return {static_cast<std::time_t>(nanoseconds / nanosecondsPerSecond),
          static_cast<long>(nanoseconds % nanosecondsPerSecond)};
}

/// The system's own functions, past those of this program.
struct System {
  template <typename Function>
  static Function next(const char* name, Function /*of that type*/) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
  }
#define TESSERA_SYSTEM(function) decltype(&::function) function = next(#function, &::function)
  TESSERA_SYSTEM(clock_gettime);
  TESSERA_SYSTEM(sem_wait);
  TESSERA_SYSTEM(sem_trywait);
  TESSERA_SYSTEM(sem_timedwait);
  TESSERA_SYSTEM(sem_clockwait);
  TESSERA_SYSTEM(sem_getvalue);
  TESSERA_SYSTEM(nanosleep);
  TESSERA_SYSTEM(clock_nanosleep);
  TESSERA_SYSTEM(sched_yield);
  TESSERA_SYSTEM(pthread_cond_timedwait);
  TESSERA_SYSTEM(pthread_cond_clockwait);
#undef TESSERA_SYSTEM
};

const System& real() {
  static const System functions;
  return functions;
}

timespec realSlice(long long length) {
  timespec now{};
  real().clock_gettime(CLOCK_REALTIME, &now);
  return toTimespec(nanoseconds(now) + length);
}
void sleepReally() {
  const timespec slice = toTimespec(clientSlice);
  real().nanosleep(&slice, nullptr);
}

std::atomic<bool> on{false};
std::atomic<long long> monotonic{0};
std::atomic<long long> wallAhead{0};  ///< CLOCK_REALTIME less CLOCK_MONOTONIC
thread_local bool takesPart = false;

long long now(clockid_t clock) {
  return monotonic + (clock == CLOCK_REALTIME ? wallAhead.load() : 0);
}

/// A wait under way.
struct Wait {
  clockid_t clock;
  long long deadline;
  sem_t* semaphore = nullptr;               ///< that ends it, or null
  const std::atomic<bool>* over = nullptr;  ///< that ends it, or null
  pthread_cond_t* condition = nullptr;      ///< that wakes it, or null
  bool client = takesPart;
  mutable bool taken = false;
  /// Who waits for a condition judges it, and has done so when workers had gone to rest so often.
  std::uint64_t judgedAt = control::rests();

  long long left() const { return deadline == never ? never : deadline - now(clock); }
  /// Whether its thread is about to go on.
  bool ending() const {
    int count = 0;
    return taken || left() <= 0 || (over != nullptr && *over) ||
           (condition != nullptr && judgedAt != control::rests()) ||
           (semaphore != nullptr && real().sem_getvalue(semaphore, &count) == 0 && count > 0);
  }
};

std::mutex jumping;  ///< held before the platform's locks, which are held before `listed`
std::mutex listed;   ///< guards what follows; no lock is taken while it is held
std::vector<const Wait*> waits;
std::atomic<int> clients{0};
unsigned changes = 0;  ///< of the clients that wait
long long stepAt = never, stepBy = 0, signalAt = never;
std::atomic<bool> signalled{false};

class Listed {
 public:
  explicit Listed(const Wait& wait) : wait_(wait) {
    const std::lock_guard<std::mutex> lock(listed);
    waits.push_back(&wait_);
    ++changes;
  }
  ~Listed() {
    const std::lock_guard<std::mutex> lock(listed);
    waits.erase(std::find(waits.begin(), waits.end(), &wait_));
    ++changes;
  }
  Listed(const Listed&) = delete;
  Listed& operator=(const Listed&) = delete;

 private:
  const Wait& wait_;
};

/// Whether every client waits, and none of them is about to go on. With the list held.
bool allWait() {
  int waiting = 0;
  for (const Wait* wait : waits) {
    if (!wait->client) continue;
    if (wait->ending()) return false;
    ++waiting;
  }
  return waiting == clients;
}

[[noreturn]] void reportHang() {
  std::fflush(stdout);
  std::fputs(VirtualTime::hangLine, stderr);
  std::abort();
}

/// Has the clocks jump to the next moment that somebody waits for, unless somebody works.
bool jump() {
  const std::lock_guard<std::mutex> only(jumping);
  unsigned seen;
  {
    const std::lock_guard<std::mutex> lock(listed);
    if (!allWait()) return false;
    seen = changes;
  }
  // The platform stays quiet as long as no client does anything.
  if (!control::quiet()) return false;
  const std::lock_guard<std::mutex> lock(listed);
  if (changes != seen || !allWait()) return false;
  long long step = std::min(stepAt, signalAt);
  if (step != never) step -= monotonic;
  for (const Wait* wait : waits) step = std::min(step, wait->left());
  if (step == never) reportHang();
  monotonic += std::max(step, 0LL);
  if (monotonic >= stepAt) {
    wallAhead += stepBy;
    stepAt = never;
  }
  if (monotonic >= signalAt) {
    signalAt = never;
    signalled = true;
  }
  for (const Wait* wait : waits)
    if (wait->condition != nullptr && wait->left() <= 0) pthread_cond_broadcast(wait->condition);
  return true;
}

/// Waits until the semaphore can be taken or the deadline has passed. A thread that takes no part
/// waits for others to move the clock.
int take(sem_t* semaphore, clockid_t clock, long long deadline) {
  const Wait wait{clock, deadline, semaphore};
  const Listed listing(wait);
  for (;;) {
    if (takesPart) control::awaitQuiet();
    {
      // In one step for those who look: a semaphore just taken must not pass for one waited for.
      const std::lock_guard<std::mutex> lock(listed);
      if (real().sem_trywait(semaphore) == 0) return wait.taken = true, 0;
    }
    if (wait.left() <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    if (takesPart && signalled.exchange(false)) {
      errno = EINTR;
      return -1;
    }
    if (takesPart && jump()) continue;
    const timespec slice = realSlice(clientSlice);
    if (real().sem_timedwait(semaphore, &slice) == 0) sem_post(semaphore);
  }
}

void sleepUntil(clockid_t clock, long long deadline) {
  const Wait wait{clock, deadline};
  const Listed listing(wait);
  while (wait.left() > 0) {
    if (takesPart) control::awaitQuiet();
    if (!takesPart || !jump()) sleepReally();
  }
}

/// One slice of the wait for a condition, which ends as if somebody had notified it: a waiter looks
/// for itself. Its mutex is let go for the jump, since the platform's quiet() may want it.
int awaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                   long long deadline) {
  const Wait wait{clock, deadline, nullptr, nullptr, condition};
  const Listed listing(wait);
  if (wait.left() <= 0) return ETIMEDOUT;
  const timespec slice = realSlice(takesPart ? clientSlice : otherSlice);
  if (real().pthread_cond_timedwait(condition, mutex, &slice) == ETIMEDOUT && takesPart) {
    pthread_mutex_unlock(mutex);
    jump();
    pthread_mutex_lock(mutex);
  }
  return on && wait.left() <= 0 ? ETIMEDOUT : 0;
}

/// What other threads do is over before a client looks at a semaphore.
void settleFirst() {
  if (on && takesPart) control::awaitQuiet();
}

}  // namespace

VirtualTime::VirtualTime() {
  timespec time{};
  real().clock_gettime(CLOCK_MONOTONIC, &time);
  monotonic = nanoseconds(time);
  real().clock_gettime(CLOCK_REALTIME, &time);
  wallAhead = nanoseconds(time) - monotonic;
  waits.reserve(64);
  clients = 1;
  stepAt = signalAt = never;
  takesPart = true;
  control::setPace(control::Pace::Stepped);
  on = true;
}

VirtualTime::~VirtualTime() {
  on = false;
  takesPart = false;
  control::setPace(control::Pace::Free);
}

void VirtualTime::setWallClock(std::chrono::nanoseconds by, std::chrono::nanoseconds in) {
  const std::lock_guard<std::mutex> lock(listed);
  stepAt = monotonic + in.count();
  stepBy = by.count();
}

void VirtualTime::interrupt(std::chrono::nanoseconds in) {
  const std::lock_guard<std::mutex> lock(listed);
  signalAt = monotonic + in.count();
}

ClientThread::ClientThread(std::function<void()> work) {
  const auto count = [](int change) {
    const std::lock_guard<std::mutex> lock(listed);
    clients += change;
    ++changes;
  };
  count(1);
  thread_ = std::thread([this, count, work = std::move(work)] {
    takesPart = true;
    work();
    ended_ = true;
    count(-1);
  });
}

void ClientThread::join() {
  if (!thread_.joinable()) return;
  const Wait wait{CLOCK_MONOTONIC, never, nullptr, &ended_};
  const Listed listing(wait);
  thread_.join();
}

}  // namespace support

namespace control = tessera_platform;
namespace interpose = support::interpose;
using support::real;

namespace {

int failWith(int error) {
  errno = error;
  return -1;
}

bool isKnown(clockid_t clock) {
  return clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (interpose::isLibrary(__builtin_return_address(0)) && interpose::clockGettime.hit())
    return failWith(EFAULT);
  if (!support::on || !isKnown(clock)) return real().clock_gettime(clock, now);
  *now = support::toTimespec(support::now(clock));
  return 0;
}

int sem_wait(sem_t* semaphore) {
  if (interpose::semWait.hit()) return failWith(EINVAL);
  if (!support::on) return real().sem_wait(semaphore);
  return support::take(semaphore, CLOCK_MONOTONIC, support::never);
}

int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
  if (interpose::semWait.hit()) return failWith(EINVAL);
  if (!support::on) return real().sem_timedwait(semaphore, deadline);
  return support::take(semaphore, CLOCK_REALTIME, support::nanoseconds(*deadline));
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) {
  if (interpose::semWait.hit()) return failWith(EINVAL);
  if (!support::on) return real().sem_clockwait(semaphore, clock, deadline);
  return support::take(semaphore, clock, support::nanoseconds(*deadline));
}

int sem_trywait(sem_t* semaphore) noexcept {
  if (interpose::semWait.hit()) return failWith(EINVAL);
  support::settleFirst();
  return real().sem_trywait(semaphore);
}

int sem_getvalue(sem_t* semaphore, int* value) noexcept {
  support::settleFirst();
  return real().sem_getvalue(semaphore, value);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
  if (!support::on || !isKnown(clock)) return real().clock_nanosleep(clock, flags, time, left);
  const long long start = (flags & TIMER_ABSTIME) != 0 ? 0 : support::now(clock);
  support::sleepUntil(clock, start + support::nanoseconds(*time));
  return 0;
}

int nanosleep(const timespec* time, timespec* left) {
  return support::on ? clock_nanosleep(CLOCK_MONOTONIC, 0, time, left)
                     : real().nanosleep(time, left);
}

/// On a busy machine each would cost as much as all other processes' turns.
int sched_yield() noexcept {
  if (!support::on || !support::takesPart || support::clients > 1) return real().sched_yield();
  control::awaitQuiet();
  return 0;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
  if (!support::on) return real().pthread_cond_clockwait(condition, mutex, clock, deadline);
  return support::awaitCondition(condition, mutex, clock, support::nanoseconds(*deadline));
}
}
