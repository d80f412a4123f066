#ifndef TESSERA_PLATFORM_SRC_MMAL_HEADER_H
#define TESSERA_PLATFORM_SRC_MMAL_HEADER_H

#include <atomic>
#include <chrono>
#include <cstdint>

#include "control/Hooks.h"
#include "interface/mmal/mmal_buffer.h"
#include "mmal/Payload.h"

namespace mmal {

struct Header;

/// Who takes a header back after its last release: a pool, or a component for its event buffers.
class Home {
 public:
  /// Called without any lock held; the header is the home's from here on.
  virtual void takeBack(Header& header) = 0;

 protected:
  ~Home() = default;
};

/// Who has a header for the moment: a queue, or a component in one of its ports.
class Holder {
 public:
  /// Takes a header that is being destroyed out, as soon as nothing here uses it.
  virtual void letGo(Header& header) = 0;

 protected:
  ~Holder() = default;
};

/// Where a header is. Only a header that the client has may be put, sent or finally released;
/// everything else is a mistake (or an injected double callback) and changes nothing.
enum class Place : std::uint32_t { Client, Queue, Port, Returning };

/// A buffer header with what the platform keeps about it.
struct Header final : MMAL_BUFFER_HEADER_T {
  Header(Home& itsHome, Payload&& itsPayload);
  /// Leaves the queue or port that still has it, so that neither keeps a dead pointer.
  ~Header();
  Header(const Header&) = delete;
  Header& operator=(const Header&) = delete;

  void acquire();
  void release();
  /// Takes it out of the queue or port that has it.
  void detach();
  /// Empties the description; payload and place stay.
  void reset();

  Place place() const { return static_cast<Place>(state_.load() & placeMask); }
  /// Goes from one place to another, unless it is somewhere else.
  bool move(Place from, Place to);

  /// Set by whoever the header moves to, under its lock; null while the client has it.
  std::atomic<Holder*> holder{nullptr};

  // While a port has it: the callback was asked for already, and is due then.
  bool judged = false;
  std::chrono::steady_clock::time_point due;

 private:
  static constexpr std::uint32_t placeMask = 3;
  static constexpr std::uint32_t oneReference = 4;

  void goHome();

  Home& home_;
  Payload payload_;
  MMAL_BUFFER_HEADER_TYPE_SPECIFIC_T specific_{};
  /// References and place in one word: a release and a send of the same header cannot both win.
  std::atomic<std::uint32_t> state_{oneReference};
  tessera_platform::hooks::Counted counted_{tessera_platform::hooks::Kind::Buffer};
};

/// For as long as it lives, its thread can neither release a header nor put it anywhere: for the
/// second of two callbacks with it, which comes when somebody else may have it by right.
class SecondCallback {
 public:
  explicit SecondCallback(const Header& header);
  ~SecondCallback();
  SecondCallback(const SecondCallback&) = delete;
  SecondCallback& operator=(const SecondCallback&) = delete;

  static bool concerns(const Header& header);
};

inline Header* headerOf(MMAL_BUFFER_HEADER_T* header) {
  return static_cast<Header*>(header);
}

/// First in, first out, linked through the headers. Its owner locks.
class HeaderList {
 public:
  bool empty() const { return head_ == nullptr; }
  Header* front() const { return head_; }
  unsigned size() const { return size_; }
  void pushBack(Header& header);
  void pushFront(Header& header);
  Header* popFront();
  bool remove(Header& header);
  /// Appends all of another list, which is empty then.
  void splice(HeaderList& other);

 private:
  Header* head_ = nullptr;
  Header* tail_ = nullptr;
  unsigned size_ = 0;
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_HEADER_H
