#pragma once

// Signals during a blocking call of Python's main thread. Python runs a
// signal's handler (KeyboardInterrupt on Ctrl-C) only when the main thread
// runs Python code again; a wait in the library may last its whole time
// limit, or for ever. So the module watches the signals that Python handles
// (through Python's wakeup file descriptor, read by a thread of its own) and
// stops the main thread's blocking call when one arrives; the call then
// returns soon, and the handler runs.

#include <atomic>
#include <condition_variable>

#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>

namespace zupy {

/// Starts watching the signals Python handles, once, when called in the main
/// thread and nobody else uses Python's wakeup file descriptor (then nothing
/// is watched, and blocking calls end as they would). Again in a child after
/// fork, with its own descriptor. With the GIL held.
void watchSignals();

/// A blocking call of the calling thread that a signal may stop. Made with
/// the GIL held just before the call: in Python's main thread, while signals
/// are watched, it runs the signal handlers already pending (throwing
/// pybind11::error_already_set when one raised) and is armed. From then until
/// end(), a signal calls `stop(context)` in the watcher's thread, and again
/// every 50 ms until end(): the call must then end soon (a stop that another
/// thread undoes is done again). In other threads it does nothing.
///
/// Thread safety: made, ended and asked by one thread; stop runs in the
/// watcher's thread between the signal and end().
class Interruption {
 public:
  using Stop = void (*)(void* context);

  Interruption(Stop stop, void* context);
  ~Interruption() { end(); }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  /// Disarms, waiting for a stop running in the watcher's thread; after it no
  /// stop runs. Without the GIL or with it. Takes: mutex_ when a signal came.
  void end();
  /// Whether it is armed (until end()).
  bool armed() const { return armed_; }
  /// Whether a signal came while armed (known for sure after end()).
  bool interrupted() const { return interrupted_.load(); }

  /// The watcher's side: stops the call until end(). Takes: mutex_.
  void stopUntilEnded();

 private:
  const Stop stop_;
  void* const context_;
  bool armed_ = false;  // the caller's thread only
  std::atomic<bool> interrupted_{false};
  ZU::ZUMutex mutex_;
  std::condition_variable changed_;
  bool ended_ ZU_GUARDED_BY(mutex_) = false;       // the call returned
  bool watcherDone_ ZU_GUARDED_BY(mutex_) = false;  // stopUntilEnded returned
};

}  // namespace zupy
