#ifndef TESSERA_PLATFORM_CONTROL_H
#define TESSERA_PLATFORM_CONTROL_H

#include <cstdint>
#include <string>
#include <vector>

#define TESSERA_PLATFORM_API __attribute__((visibility("default")))

/// Control over the software platform: what it was asked (journal), what it should do wrong
/// (faults), what it still holds (census), and when it has nothing to do (pace). For tests, and for
/// application writers who want to see how their program takes a fault. Every function may be
/// called from any thread; none blocks on the codecs, but for awaitQuiet().
namespace tessera_platform {

// ---------------------------------------------------------------------------------- journal

/// Which lines of the journal to take.
enum class Lines {
  All,          ///< calls and completions as they happened; the two kinds race with each other
  Calls,        ///< calls of the application only, in their order: the same from run to run
  Completions,  ///< what the platform called back, in its order
};

/// Forgets all lines and starts to record. Objects are named afresh from here on: the first
/// image decoder is "image_decode#1", the second "image_decode#2".
TESSERA_PLATFORM_API void startJournal();

/// Stops recording. The lines stay until the next start.
TESSERA_PLATFORM_API void stopJournal();

/// The recorded lines. A call reads `entry(arguments) = result`, a completion `-> name(arguments)`.
/// @param which  calls, completions or both
/// @return a copy of the lines, in order
TESSERA_PLATFORM_API std::vector<std::string> journal(Lines which = Lines::All);

/// The names of the entry points called (or of the completions delivered) while recording, one
/// element a call, in order: the raw material of a fault sweep.
/// @param which  calls, completions or both
/// @return the names
TESSERA_PLATFORM_API std::vector<std::string> journalNames(Lines which);

// ----------------------------------------------------------------------------------- faults

/// What happens to the n-th call of an entry point.
struct CallFault {
  /// What the call does instead of its work.
  enum Action {
    Fail,         ///< does none of its work and answers `status` (null, where it answers a pointer)
    NullResult,   ///< does none of its work and answers success, with a null or zero result
    FinishFirst,  ///< does its work, and everything that it starts is called back before it returns
  };
  std::string call;         ///< the published name, "mmal_port_enable", "OMX_SendCommand", ...
  unsigned nth = 1;         ///< counted from 1, from the injection on
  bool sticky = false;      ///< from the n-th on, not the n-th alone
  Action action = Fail;     ///< what it does
  std::int64_t status = 1;  ///< the entry point's own status type
};

/// What happens to the n-th callback of a kind.
struct CompletionFault {
  /// What becomes of the callback.
  enum Action {
    Drop,        ///< never comes; its buffer stays with the component until the port is disabled
    Delay,       ///< comes `delayMs` late, or when the port is disabled, whichever is first
    Double,      ///< comes twice
    ErrorEvent,  ///< an error event with `code` comes instead
    ZeroLength,  ///< comes with an empty buffer
  };
  /// "EventHandler", "EmptyBufferDone", "FillBufferDone" (OpenMAX IL), "input", "output" (MMAL port
  /// callbacks), "wrapper" (the component wrapper's callback).
  std::string completion;
  unsigned nth = 1;        ///< counted from 1, from the injection on
  bool sticky = false;     ///< from the n-th on, not the n-th alone
  Action action = Drop;    ///< what becomes of it
  unsigned delayMs = 0;    ///< milliseconds, of Delay
  std::uint32_t code = 0;  ///< OMX_ERRORTYPE or MMAL_STATUS_T of the error event
};

/// Makes a call go wrong from now on, beside the faults that are there.
/// @param fault  copied
TESSERA_PLATFORM_API void inject(const CallFault& fault);
/// Makes a callback go wrong from now on, beside the faults that are there.
/// @param fault  copied
TESSERA_PLATFORM_API void inject(const CompletionFault& fault);

/// Takes back every fault and starts to count afresh.
TESSERA_PLATFORM_API void clearFaults();

/// Counts what was met.
/// @return how many calls and callbacks met a fault since the last clearFaults(): a fault test that
///         reads 0 has tested nothing
TESSERA_PLATFORM_API unsigned faultsHit();

// ----------------------------------------------------------------------------------- census

/// What is alive. All zero once every object is gone.
struct Census {
  int coreInits = 0;     ///< OMX_Init calls not yet undone
  int handles = 0;       ///< OpenMAX IL component handles
  int components = 0;    ///< MMAL components
  int wrappers = 0;      ///< MMAL component wrappers
  int enabledPorts = 0;  ///< MMAL ports enabled
  int pools = 0;         ///< MMAL pools
  int queues = 0;        ///< MMAL queues
  int buffers = 0;       ///< buffer headers of either kind
  int threads = 0;       ///< worker threads

  /// Looks for anything alive.
  /// @return whether all counts are zero
  bool empty() const {
    return !(coreInits || handles || components || wrappers || enabledPorts || pools || queues ||
             buffers || threads);
  }
};

/// Counts.
/// @return what is alive at this moment
TESSERA_PLATFORM_API Census census();

/// A census as one line.
/// @param census  the counts
/// @return those that are not zero: "handles 1, buffers 4"; "nothing" for an empty census
TESSERA_PLATFORM_API std::string describe(const Census& census);

// ------------------------------------------------------------------------------------- pace

/// Whether no component has anything to do at this moment: every worker sleeps and will do so until
/// it is asked for something, or until a time that is still to come (of a callback that a fault
/// delays, say). What was called back is over by then.
/// @return false while there is work
TESSERA_PLATFORM_API bool quiet();

/// How often workers went to sleep since the process began: as often as before, and quiet, means
/// that none of them has done anything in between.
/// @return a count that only grows
TESSERA_PLATFORM_API std::uint64_t rests();

/// Waits until the platform is quiet. Inside a callback, where it cannot be, returns at once.
TESSERA_PLATFORM_API void awaitQuiet();

/// How the application's calls and the components' work go together.
enum class Pace {
  Free,     ///< side by side
  Stepped,  ///< a call begins once the platform is quiet, unless it is made inside a callback:
            ///< calls and callbacks come in the same order in every run
};
/// Sets the pace for every component; Free at first.
/// @param pace  from the next call on
TESSERA_PLATFORM_API void setPace(Pace pace);

}  // namespace tessera_platform

#endif  // TESSERA_PLATFORM_CONTROL_H
