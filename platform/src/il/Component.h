#ifndef TESSERA_PLATFORM_SRC_IL_COMPONENT_H
#define TESSERA_PLATFORM_SRC_IL_COMPONENT_H

#include <IL/OMX_Component.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "il/Port.h"
#include "worker/Doorbell.h"

namespace il {

using Lock = std::unique_lock<std::mutex>;

/// What a component is, before any of its ports.
struct Kind {
  const char* name;       ///< "OMX.broadcom.image_decode"
  const char* shortName;  ///< "image_decode", for the journal
  const char* role;       ///< "image_decoder.JPEG"
};

/// The base of every component: state machine, commands, ports, buffers, and the one worker thread
/// that carries commands and buffers out and makes every callback.
///
/// One mutex guards all of it. The worker lets go of it while a callback runs and while a codec
/// works (Component::Unlocked); a buffer that it has taken is its own meanwhile, and OMX_FreeBuffer
/// waits for it. Commands are carried out in their order, but one that waits for buffers does not
/// keep later ones from being carried out, unless they concern the same port (or the state).
///
/// A derived component says how its ports react to settings (adapt), does one piece of its work at a
/// time (work), and discards what it holds of a port when told to (discard).
class Component {
 public:
  Component(const Kind& kind, const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData,
            std::vector<Port> ports);
  virtual ~Component() = default;
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;

  /// Life of the worker. stop() delivers the events raised so far; nothing is called back after it.
  void start();
  void stop();
  bool onWorker() const { return std::this_thread::get_id() == worker_.get_id(); }

  OMX_HANDLETYPE handle() { return &table_; }
  static Component& of(OMX_HANDLETYPE handle);

  /// "image_decode#1" and "image_decode#1:320".
  std::string name() const;
  std::string name(OMX_U32 port) const;
  std::string nameOfPortOf(const OMX_BUFFERHEADERTYPE* header) const;
  const Kind& kind() const { return kind_; }

  // The client's operations, as the component's table names them.
  OMX_ERRORTYPE sendCommand(OMX_COMMANDTYPE command, OMX_U32 parameter);
  OMX_ERRORTYPE getParameter(OMX_INDEXTYPE index, OMX_PTR structure);
  OMX_ERRORTYPE setParameter(OMX_INDEXTYPE index, OMX_PTR structure);
  OMX_ERRORTYPE setConfig(OMX_INDEXTYPE index, OMX_PTR structure);
  OMX_ERRORTYPE getState(OMX_STATETYPE* state);
  OMX_ERRORTYPE addBuffer(OMX_BUFFERHEADERTYPE** header, OMX_U32 port, OMX_PTR appPrivate,
                          OMX_U32 size, OMX_U8* memory);
  OMX_ERRORTYPE freeBuffer(OMX_U32 port, OMX_BUFFERHEADERTYPE* header);
  OMX_ERRORTYPE submit(OMX_DIRTYPE direction, OMX_BUFFERHEADERTYPE* header);
  OMX_ERRORTYPE setCallbacks(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData);

  /// Waits, a second at most, until the worker has nothing left to do.
  void settle();

 protected:
  /// Lets go of the lock while a codec works or a callback runs.
  class Unlocked {
   public:
    explicit Unlocked(Lock& lock) : lock_(lock) { lock_.unlock(); }
    ~Unlocked() { lock_.lock(); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

   private:
    Lock& lock_;
  };

  /// Makes a definition whose format the port supports possible: raises stride, slice height and
  /// buffer size to what is needed, or refuses. The port still has its former definition.
  virtual OMX_ERRORTYPE adapt(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) = 0;
  /// Parameters beyond ports and formats; the structure's header and port are checked already.
  virtual OMX_ERRORTYPE getOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure);
  virtual OMX_ERRORTYPE setOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure);

  /// One piece of work, in Executing. @return false when there is nothing to do
  virtual bool work(Lock& lock) = 0;
  /// Whether work() would find something to do
  virtual bool hasWork() = 0;
  /// All of the port's buffers go back to the client, for a flush, a disable, or the way to Idle:
  /// keep no pointer to any of them. Buffers of another port that are then of no more use go back
  /// from here.
  virtual void discard(Lock& lock, Port& port, OMX_COMMANDTYPE reason) = 0;

  Port& input() { return ports_[0]; }
  Port& output() { return ports_[1]; }
  void raise(OMX_EVENTTYPE event, OMX_U32 data1, OMX_U32 data2);
  void raiseError(OMX_ERRORTYPE error, OMX_U32 port);
  /// Hands a buffer back to the client. An input buffer's nFilledLen becomes 0.
  void giveBack(Lock& lock, Port& port, Buffer& buffer);

  /// Whether a structure is of its index's type and for an existing port (or for `only`).
  template <typename Structure>
  OMX_ERRORTYPE check(OMX_PTR structure, const Port* only = nullptr) const {
    const auto& s = *static_cast<Structure*>(structure);
    if (s.nSize != sizeof s || s.nVersion.nVersion != OMX_VERSION) return OMX_ErrorVersionMismatch;
    const Port* const port = find(s.nPortIndex);
    return port == nullptr || (only != nullptr && only != port) ? OMX_ErrorBadPortIndex
                                                                : OMX_ErrorNone;
  }

 private:
  struct Command {
    OMX_COMMANDTYPE kind;
    OMX_U32 parameter;  ///< state or port
    bool begun = false;
    OMX_ERRORTYPE error = OMX_ErrorNone;
  };
  struct Event {
    OMX_EVENTTYPE event;
    OMX_U32 data1;
    OMX_U32 data2;
    Clock::time_point due{};  ///< of an event that a fault holds back
  };

  const Port* find(OMX_U32 index) const;
  Port* find(OMX_U32 index);
  bool loaded() const { return state_ == OMX_StateLoaded || state_ == OMX_StateWaitForResources; }
  bool commanded(OMX_COMMANDTYPE kind, OMX_U32 parameter) const;
  OMX_ERRORTYPE getPorts(OMX_PORTDOMAINTYPE domain, OMX_PTR structure) const;
  OMX_ERRORTYPE redefine(Port& port, OMX_PARAM_PORTDEFINITIONTYPE wanted);
  template <typename Structure>
  OMX_ERRORTYPE getPortFormat(OMX_PTR structure) const;
  template <typename Structure>
  OMX_ERRORTYPE setPortFormat(OMX_PTR structure);
  bool mayAddTo(const Port& port) const;
  bool isFree(const Port& port, const Buffer& buffer) const;
  bool atRest() const;

  // The worker's half.
  void run();
  void callWorker(Lock& lock);
  bool canGoOn();
  bool awaitsClient(const Command& command) const;
  void makeRoom(std::size_t commands);
  void sleep(Lock& lock);
  Clock::time_point nextDue() const;
  bool advance(Lock& lock);
  bool blocked(std::size_t position) const;
  void begin(Lock& lock, std::size_t position);
  void beginStateSet(Lock& lock, std::size_t position);
  bool isComplete(const Command& command) const;
  void complete(const Command& command);
  void giveBackAll(Lock& lock, Port& port, OMX_COMMANDTYPE reason);
  void deliver(Lock& lock, Port& port, Buffer& buffer, bool twice);
  void announce(Lock& lock, const Event& event);
  bool announceNext(Lock& lock);
  bool keepLate(const Event& event);
  bool deliverDue(Lock& lock);
  bool tryWork(Lock& lock);
  std::string describe(const Event& event) const;
  std::string describe(const Port& port, const Buffer& buffer) const;

  const Kind& kind_;
  OMX_COMPONENTTYPE table_{};
  OMX_CALLBACKTYPE callbacks_;
  mutable std::mutex mutex_;
  tessera_platform::Doorbell bell_;  ///< the worker's
  std::condition_variable changed_;  ///< the worker has let go of a buffer, or sleeps
  OMX_STATETYPE state_ = OMX_StateLoaded;
  std::vector<Port> ports_;
  std::vector<Command> commands_;  ///< accepted and not completed, in order
  std::vector<Event> events_;      ///< raised and not called back
  std::vector<Event> lateEvents_;
  const Buffer* delivering_ = nullptr;  ///< whose callback runs
  bool stopping_ = false;
  unsigned filledSinceCommand_ = 2;  ///< output buffers
  std::thread worker_;
  tessera_platform::hooks::Counted counted_{tessera_platform::hooks::Kind::Handle};
  tessera_platform::hooks::Watched watched_{[this] { return atRest(); }};
};

/// Fills in the function table of a component; every function opens its call scope.
void fillTable(OMX_COMPONENTTYPE& table);

}  // namespace il

#endif  // TESSERA_PLATFORM_SRC_IL_COMPONENT_H
