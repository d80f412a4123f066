#ifndef TESSERA_PLATFORM_SRC_MMAL_COMPONENT_H
#define TESSERA_PLATFORM_SRC_MMAL_COMPONENT_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "interface/mmal/mmal_component.h"
#include "mmal/Header.h"
#include "mmal/Port.h"
#include "mmal/Queue.h"
#include "worker/Doorbell.h"

namespace mmal {

/// What every component has: ports, references, and one worker thread, on which all codec work is
/// done and from which all callbacks come. A subclass adds what its codec does.
///
/// One lock guards the ports and their lists. It is never held during codec work or a callback, so
/// that a client's call waits for neither unless it must.
class Component : public MMAL_COMPONENT_T, public Home, public Holder {
 public:
  virtual ~Component();
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;

  /// Puts the defaults in place and starts the worker.
  /// @throws std::bad_alloc, std::system_error without memory or thread
  void start();

  /// "video_encode#2", for the journal.
  std::string journalName() const;

  // References. The last release gives all buffers back, ends the worker and deletes the object.
  void acquire();
  void release();

  // The client's calls; see the published headers for what they do.
  MMAL_STATUS_T enable();
  MMAL_STATUS_T disable();
  MMAL_STATUS_T commitFormat(Port& port);
  MMAL_STATUS_T enablePort(Port& port, MMAL_PORT_BH_CB_T callback);
  MMAL_STATUS_T disablePort(Port& port);
  MMAL_STATUS_T flushPort(Port& port);
  MMAL_STATUS_T sendBuffer(Port& port, Header& header);
  MMAL_STATUS_T setParameter(Port& port, const MMAL_PARAMETER_HEADER_T& parameter);
  MMAL_STATUS_T getParameter(Port& port, MMAL_PARAMETER_HEADER_T& parameter);

  void letGo(Header& header) override;
  /// Waits until no worker is in a callback with a header any more.
  static void awaitDelivery(const Header& header);
  /// Waits until the worker has nothing left to do, at most a second.
  void settle();

 protected:
  explicit Component(std::string name);

  Port& input0() { return *inputPort_; }
  Port& output0() { return *outputPort_; }

  // What a subclass does, with the lock held, on the client's thread.
  virtual MMAL_STATUS_T checkFormat(const Port& port, const MMAL_ES_FORMAT_T& format) const = 0;
  /// Buffer numbers and sizes of both ports, from their committed formats.
  virtual void setRequirements() = 0;
  virtual MMAL_STATUS_T setOwnParameter(Port& port, const MMAL_PARAMETER_HEADER_T& parameter);
  virtual MMAL_STATUS_T getOwnParameter(Port& port, MMAL_PARAMETER_HEADER_T& parameter);
  virtual std::vector<MMAL_FOURCC_T> encodings(const Port& port) const = 0;

  // What a subclass does on the worker.
  /// One piece of work, without the lock, that ends with at most one callback.
  /// @return false when it can do nothing until a buffer, a request or an enable comes
  virtual bool work() = 0;
  /// The port was flushed or disabled: what the codec holds of its stream is void. With the lock
  /// held; anything that takes long is for the next work().
  virtual void discard(Port& port) = 0;
  /// Whether a buffer on this port is what the last work() lacked. With the lock held, while the
  /// worker sleeps.
  virtual bool awaits(const Port& target) const = 0;
  /// A work() had no memory, or thread: what it worked on is lost. Gives the oldest
  /// input buffer back, without the lock; an error event follows.
  virtual void lose();

  // What a subclass uses on the worker, without the lock.
  /// The oldest buffer of a port, which stays there until giveBack(); null when there is none.
  Header* front(Port& port);
  /// Hands the oldest buffer back through the callback.
  void giveBack(Port& port);
  /// Makes the worker try work() again at that time, though nothing may have come until then.
  void tryAgainAt(std::chrono::steady_clock::time_point time);
  /// Hands out an event. Ports that are not enabled get none.
  void raise(Port& port, Header& event);
  void raiseError(MMAL_STATUS_T status);
  /// An event header with room for every event; null without memory.
  Header* eventHeader(std::uint32_t command);
  std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex_); }

 private:
  using Lock = std::unique_lock<std::mutex>;
  using Clock = tessera_platform::Doorbell::Clock;
  static constexpr Clock::time_point never = tessera_platform::Doorbell::never;

  struct Registry;
  static Registry& registry();

  void takeDown();
  void takeBack(Header& header) override;

  // Client's side.
  void recall(Lock& held, Port& port);
  bool onOwnWorker() const;

  // Worker's side.
  void run();
  bool tryWork();
  bool serveRecalls(Lock& held);
  void giveBackAll(Lock& held, Port& port);
  bool deliverDue(Lock& held);
  bool busy() const;
  bool atRest();
  Clock::time_point nextDue() const;
  void sleep(Lock& held);
  void giveBack(Lock& held, Port& port, Header& header);
  void giveBackInTurn(Lock& held, Port& port, Header& header);
  void giveBackUnused(Lock& held, Port& port, Header& header);
  void deliver(Lock& held, Port& port, Header& header, bool twice = false);
  void deliverError(Lock& held, Port& port, std::uint32_t status);

  const std::string name_;
  std::unique_ptr<Port> controlPort_, inputPort_, outputPort_;
  Port* const ports_[3];
  MMAL_PORT_T* inputs_[1];
  MMAL_PORT_T* outputs_[1];
  MMAL_PORT_T* all_[3];
  std::vector<std::unique_ptr<Header>> events_;
  Queue freeEvents_;

  std::atomic<unsigned> references_{1};
  std::mutex mutex_;
  tessera_platform::Doorbell bell_;  ///< the worker's
  std::condition_variable changed_;  ///< clients wait on it: buffers given back, work ended
  bool workDue_ = false;             ///< something came that work() has not seen
  Clock::time_point alarm_ = never;
  bool working_ = false;
  const Header* delivering_ = nullptr;  ///< whose callback is under way
  bool stopping_ = false;
  bool orphaned_ = false;  ///< released for the last time by its own worker
  tessera_platform::hooks::Counted counted_{tessera_platform::hooks::Kind::Component};
  tessera_platform::hooks::Counted thread_{tessera_platform::hooks::Kind::Thread};
  std::thread worker_;
  tessera_platform::hooks::Watched watched_{[this] { return atRest(); }};
};

/// For the journal: "video_encode#2", "video_encode#2:in0"; "null" for null.
std::string nameOf(MMAL_COMPONENT_T* component);
std::string nameOf(MMAL_PORT_T* port);

inline Component& componentOf(MMAL_COMPONENT_T* component) {
  return *static_cast<Component*>(component);
}

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_COMPONENT_H
