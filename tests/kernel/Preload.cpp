// Puts the stand-in devices in front of a program: /dev/video50 and its neighbours, for every call
// with which a program may come across them.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "StandIn.h"

#define SHOWN extern "C" __attribute__((visibility("default")))
// The large files' calls are the same where they take and give the same.
#define SAME(name, other) __asm__(".globl " #name "\n.set " #name ", " #other)
SAME(open64, open);
SAME(__open_2, open);
SAME(__open64_2, open);
SAME(fopen64, fopen);
#ifdef __LP64__
SAME(mmap64, mmap);
SAME(stat64, stat);
SAME(fstat64, fstat);
SAME(readdir64, readdir);
#endif

namespace {

using namespace standin;

constexpr Kind kinds[] = {{50, "Stand-in H.264 encoder", true, V4L2_PIX_FMT_H264},
                          {51, "Stand-in H.264 decoder", false, V4L2_PIX_FMT_H264},
                          {52, "Stand-in JPEG encoder", true, V4L2_PIX_FMT_JPEG},
                          {53, "Stand-in JPEG decoder", false, V4L2_PIX_FMT_JPEG}};
constexpr unsigned first = 50, count = 4;

/// The descriptors that somebody has opened.
std::map<int, std::shared_ptr<Session>>& sessions() {
  static auto* const all = new std::map<int, std::shared_ptr<Session>>;
  return *all;
}

struct Locked : std::lock_guard<std::recursive_mutex> {
  Locked() : lock_guard(mutex) {}
  static inline std::recursive_mutex mutex;
};

Session* sessionOf(int fd) {
  const Locked locked;
  const auto found = sessions().find(fd);
  return found == sessions().end() ? nullptr : found->second.get();
}

template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(name) next(&name, #name)

Faults faults() {
  Faults all;
  const std::pair<const char*, unsigned*> words[] = {
      {"drop", &all.dropEach},      {"delay", &all.delayMs},      {"silent", &all.silentAfter},
      {"gone", &all.goneAfter},     {"stride", &all.stride},      {"align", &all.align},
      {"nv12", &all.nv12},          {"mplane", &all.multiPlanar}, {"lag", &all.lag},
      {"plain", &all.plain},        {"stubborn", &all.stubborn},  {"busy", &all.busy},
      {"forbidden", &all.forbidden}};
  const char* at = std::getenv("TESSERA_STANDIN");
  for (; at != nullptr && *at != 0; at += std::strcspn(at, ","), at += *at == ',') {
    const std::size_t length = std::strcspn(at, "=,");
    for (const auto& [name, value] : words)
      if (std::strlen(name) == length && std::strncmp(name, at, length) == 0)
        *value = at[length] == '=' ? static_cast<unsigned>(std::atoi(at + length + 1)) : 1;
  }
  return all;
}

const Kind* kindOf(const char* path, const char* prefix) {
  char* end = nullptr;
  const std::size_t length = std::strlen(prefix);
  if (path == nullptr || std::strncmp(path, prefix, length) != 0) return nullptr;
  const unsigned long number = std::strtoul(path + length, &end, 10);
  return number >= first && number < first + count ? &kinds[number - first] : nullptr;
}

thread_local bool working = false;  // for a device

/// Where a device lacks memory it says so.
template <typename Function>
int work(int otherwise, Function&& function) {
  int answer = otherwise;
  working = true;
  try {
    answer = function();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  working = false;
  return answer;
}
/// Which of the calls on video devices goes wrong, with which error; 0: from then on the device does
/// not answer, -1: its next frame is lost, or all are.
struct {
  unsigned nth = 0;
  int error = 0;
  bool forGood = false;
  unsigned calls = 0;
} failing;

/// @return whether this call is the one, with errno
bool meetsFault(Session* session = nullptr) {
  const unsigned call = ++failing.calls;
  if (failing.nth == 0 || call < failing.nth || (call > failing.nth && !failing.forGood))
    return false;
  if (session != nullptr && failing.error == 0) session->fallSilent();
  if (session != nullptr && failing.error < 0) session->drop(failing.forGood ? UINT_MAX : 1);
  errno = failing.error;
  return failing.error > 0;
}

int openNode(const Kind& kind, int flags) {
  const Locked locked;
  if (meetsFault()) return -1;
  const Faults wrong = faults();
  if (wrong.goneAfter == 0) Session::gone.erase(&kind);
  if (Session::gone.count(&kind) != 0) return fails(ENODEV);
  if (wrong.busy != 0 || wrong.forbidden != 0) return fails(wrong.busy != 0 ? EBUSY : EACCES);
  const int fd = memfd_create("stand-in", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
  if (fd < 0) return fd;
  fcntl(fd, F_SETFL, flags & O_NONBLOCK);
  const int answer = work(-1, [&] {
    sessions()[fd] = std::make_shared<Session>(kind, wrong);
    return fd;
  });
  if (answer < 0) NEXT(close)(fd);
  return answer;
}

/// What an ioctl() answers; EINTR where it blocks.
int answer(Session& session, const Call& call) {
  const auto address = reinterpret_cast<std::uintptr_t>(call.argument) & ~std::uintptr_t{4095};
  if (_IOC_SIZE(call.request) != 0 && msync(reinterpret_cast<void*>(address), 1, MS_ASYNC) != 0)
    return fails(Session::knows(call.request) ? EFAULT : ENOTTY);
  return meetsFault(&session) ? -1 : work(-1, [&] { return session.call(call); });
}

/// The system's, past a program that has clocks of its own.
void nap() {
  const timespec moment = {0, 500000};
  NEXT(nanosleep)(&moment, nullptr);
}

/// A thread may be cancelled wherever it is, but not in the middle of a device's work: then when it
/// leaves.
struct Uncancelled {
  Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
  ~Uncancelled() noexcept(false) { pthread_setcancelstate(before, nullptr); }
  int before = 0;
};

short look(pollfd& each) {
  const Uncancelled whole;
  const Locked locked;
  Session* const session = sessionOf(each.fd);
  each.revents = 0;
  if (session == nullptr) return NEXT(poll)(&each, 1, 0) > 0;
  each.revents = static_cast<short>(work(POLLERR, [&] { return session->look(each.events); }));
  return each.revents != 0;
}

bool anyOfOurs(const pollfd* all, nfds_t size) {
  const Locked locked;
  for (nfds_t i = 0; i < size; ++i)
    if (sessionOf(all[i].fd) != nullptr) return true;
  return size == 0 && !sessions().empty();
}

/// When the first of them will have something to tell, if nobody gives it anything before.
std::uint64_t nextDue(const pollfd* all, nfds_t size, std::uint64_t end) {
  const Locked locked;
  for (nfds_t i = 0; i < size; ++i) {
    const Session* const session = sessionOf(all[i].fd);
    if (session == nullptr) return 0;
    if (session->due() != 0) end = std::min(end, session->due());
  }
  return end;
}

/// Waiting for nothing is a pause between two looks at a device.
int pollDevices(pollfd* all, nfds_t size, int milliseconds) {
  if (const Locked locked; size > 0 && meetsFault(sessionOf(all[0].fd))) return -1;
  const std::uint64_t end =
      milliseconds < 0 ? UINT64_MAX : nowMs() + static_cast<unsigned>(milliseconds);
  for (;;) {
    int ready = 0;
    for (nfds_t i = 0; i < size; ++i) ready += look(all[i]);
    if (ready > 0 || nowMs() >= end) return ready;
    const std::uint64_t next = nextDue(all, size, end);
    if (next == 0 || next == UINT64_MAX)
      nap();
    else
      skipTo(next);
  }
}

int statusOf(const Kind& kind, struct stat* status) {
  std::memset(status, 0, sizeof *status);
  status->st_mode = S_IFCHR | 0660;
  status->st_nlink = 1;
  status->st_rdev = makedev(81, kind.number);
  return 0;
}

}  // namespace

SHOWN int open(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  for (const char* const prefix : {"/dev/video", "/dev/media"})
    if (const Kind* const kind = kindOf(path, prefix)) return openNode(*kind, flags);
  return NEXT(open)(path, flags, mode);
}

SHOWN int dup(int fd) noexcept {
  const Locked locked;
  const int copy = NEXT(dup)(fd);
  const auto found = sessions().find(fd);
  if (copy >= 0 && found != sessions().end()) sessions()[copy] = found->second;
  return copy;
}

SHOWN int close(int fd) {
  {
    const Locked locked;
    sessions().erase(fd);
  }
  return NEXT(close)(fd);
}

// Not the system's declaration, which is noexcept: whoever cancels a thread unwinds it.
extern "C" int cancellableIoctl(int fd, unsigned long request, ...) __asm__("ioctl");
SHOWN int cancellableIoctl(int fd, unsigned long request, ...) {
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  for (;; nap()) {
    const Uncancelled whole;
    const Locked locked;
    Session* const session = sessionOf(fd);
    if (session == nullptr) return NEXT(ioctl)(fd, request, argument);
    // A call that blocks is asked again until it does not.
    const int result = answer(*session, {fd, request & 0xffffffff, argument});
    if (result == 0 || errno != EINTR) return result;
  }
}

SHOWN void* mmap(void* where, std::size_t size, int access, int flags, int fd, off_t at) noexcept {
  if (fd >= 0 && !working) {
    const Locked locked;
    Session* const session = sessionOf(fd);
    if (session != nullptr && meetsFault(session)) return MAP_FAILED;
  }
  return NEXT(mmap)(where, size, access, flags, fd, at);
}

SHOWN ssize_t read(int fd, void* to, std::size_t size) {
  return sessionOf(fd) != nullptr ? fails(EINVAL) : NEXT(read)(fd, to, size);
}
SHOWN ssize_t write(int fd, const void* from, std::size_t size) {
  return sessionOf(fd) != nullptr ? fails(EINVAL) : NEXT(write)(fd, from, size);
}

SHOWN int poll(pollfd* all, nfds_t size, int timeout) {
  return anyOfOurs(all, size) ? pollDevices(all, size, timeout) : NEXT(poll)(all, size, timeout);
}
SHOWN int ppoll(pollfd* all, nfds_t size, const timespec* limit, const sigset_t* mask) {
  if (!anyOfOurs(all, size)) return NEXT(ppoll)(all, size, limit, mask);
  const auto milliseconds = limit == nullptr ? -1 : limit->tv_sec * 1000 + limit->tv_nsec / 1000000;
  return pollDevices(all, size, static_cast<int>(milliseconds));
}

SHOWN int select(int size, fd_set* in, fd_set* out, fd_set* special, timeval* limit) {
  const std::pair<fd_set*, int> sets[] = {{in, POLLIN}, {out, POLLOUT}, {special, POLLPRI}};
  std::vector<pollfd> all;
  for (int fd = 0; fd < size; ++fd) {
    int events = 0;
    for (const auto& [set, wanted] : sets)
      if (set != nullptr && FD_ISSET(fd, set)) events |= wanted;
    if (events != 0) all.push_back({fd, static_cast<short>(events), 0});
  }
  if (!anyOfOurs(all.data(), all.size())) return NEXT(select)(size, in, out, special, limit);
  const auto milliseconds = limit == nullptr ? -1 : limit->tv_sec * 1000 + limit->tv_usec / 1000;
  pollDevices(all.data(), all.size(), static_cast<int>(milliseconds));
  int ready = 0;
  for (const pollfd& each : all)
    for (const auto& [set, wanted] : sets) {
      if (set == nullptr || !FD_ISSET(each.fd, set)) continue;
      // A device with nothing to do or gone wakes who reads and who writes.
      const int answers = wanted == POLLPRI ? POLLPRI : wanted | POLLERR;
      if ((each.revents & answers) != 0)
        ++ready;
      else
        FD_CLR(each.fd, set);
    }
  return ready;
}

namespace {
std::map<int, epoll_event> watched;  // by the one epoll descriptor that watches a device
int watcher = -1;
}  // namespace

SHOWN int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  const Locked locked;
  if (sessionOf(fd) == nullptr) return NEXT(epoll_ctl)(epoll, operation, fd, event);
  if (watcher != epoll) watched.clear();
  watcher = epoll;
  if (operation == EPOLL_CTL_DEL)
    watched.erase(fd);
  else
    watched[fd] = *event;
  return 0;
}
SHOWN int epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
  std::vector<pollfd> all;
  for (const auto& each : watched)
    if (epoll == watcher) all.push_back({each.first, static_cast<short>(each.second.events), 0});
  if (!anyOfOurs(all.data(), all.size())) return NEXT(epoll_wait)(epoll, events, most, timeout);
  pollDevices(all.data(), all.size(), timeout);
  int ready = 0;
  for (const pollfd& each : all) {
    if (each.revents == 0 || ready == most) continue;
    events[ready] = watched[each.fd];
    events[ready++].events = static_cast<std::uint32_t>(each.revents);
  }
  return ready;
}

SHOWN void standin_fail(unsigned nth, int error, bool forGood) {
  const Locked locked;
  failing = {nth, error, forGood, 0};
}
SHOWN unsigned standin_calls() {
  return failing.calls;
}
SHOWN unsigned long long standin_now() {
  return nowMs();
}

SHOWN int fstat(int fd, struct stat* status) noexcept {
  const Locked locked;
  const Session* const session = sessionOf(fd);
  return session != nullptr ? statusOf(session->kind(), status) : NEXT(fstat)(fd, status);
}
SHOWN int stat(const char* path, struct stat* status) noexcept {
  const Kind* const kind = kindOf(path, "/dev/video");
  return kind != nullptr ? statusOf(*kind, status) : NEXT(stat)(path, status);
}

/// What /sys says of a device.
SHOWN FILE* fopen(const char* path, const char* mode) {
  const Kind* const kind = kindOf(path, "/sys/dev/char/81:");
  if (kind == nullptr || std::strstr(path, "/uevent") == nullptr) return NEXT(fopen)(path, mode);
  // A real descriptor: it is read past the C library.
  FILE* const file = fdopen(memfd_create("uevent", MFD_CLOEXEC), "w+");
  std::fprintf(file, "MAJOR=81\nMINOR=%u\nDEVNAME=video%u\n", kind->number, kind->number);
  std::rewind(file);
  return file;
}

namespace {
/// A folder that lists devices behind what it has, and which are left.
struct Listing {
  DIR* folder = nullptr;
  const char* name = nullptr;
  unsigned next = 0, end = 0;
} listing;
}  // namespace

SHOWN DIR* opendir(const char* path) {
  const Kind* const kind = kindOf(path, "/sys/dev/char/81:");
  const bool listsMedia = kind != nullptr && std::strstr(path, "/device") != nullptr;
  DIR* const folder = NEXT(opendir)(listsMedia ? "/proc/self/fdinfo" : path);
  if (listsMedia)
    listing = {folder, "media%u", kind->number, kind->number + 1};
  else if (std::strcmp(path, "/dev") == 0 || std::strcmp(path, "/dev/") == 0)
    listing = {folder, "video%u", first, first + count};
  else if (folder == listing.folder)
    listing = {};
  return folder;
}
SHOWN dirent* readdir(DIR* folder) {
  static thread_local dirent ours;
  dirent* const entry = NEXT(readdir)(folder);
  if (entry != nullptr || folder != listing.folder || listing.next == listing.end) return entry;
  ours.d_type = DT_CHR;
  std::snprintf(ours.d_name, sizeof ours.d_name, listing.name, listing.next++);
  return &ours;
}
