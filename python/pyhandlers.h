#pragma once

// Calls from threads of the library and the broker into Python, the way back
// into Python after a call that let the GIL go, and the lifetimes that cross
// between Python and those threads.

#include <map>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>
#include <pybind11/pybind11.h>

#include <zuhost/zubroker.h>

#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>

namespace zupy {

/// Marks the interpreter as exiting: from then on no call enters Python from
/// another thread, no thread but this one takes the GIL back after a call
/// into the library (see GilReleased), and the calls already inside Python
/// are waited for (with the GIL let go), so that none of them meets a
/// finalising interpreter. Called once, from Python's atexit, with the GIL
/// held, in the thread that runs the exit.
void stopCallsIntoPython();

/// Lets the GIL go for its lifetime, like pybind11::gil_scoped_release, and
/// takes it back at the end; usable as a call guard. Once the interpreter
/// exits, a thread other than the one running the exit that comes back from
/// the library does not take the GIL again: it is parked for good, touching
/// nothing, and ends with the process. (The interpreter would end such a
/// thread itself by an unwinding that no C++ destructor may pass, which
/// aborts the process.) Takes: the GIL, on leaving.
class GilReleased {
 public:
  GilReleased();
  ~GilReleased();
  GilReleased(const GilReleased&) = delete;
  GilReleased& operator=(const GilReleased&) = delete;

 private:
  PyThreadState* const state_;
};

/// A Python callable that any thread may call and drop. Thread safe: the
/// callable is touched only with the GIL held. The last handle on it may go
/// in any thread (a task thread, or a Python thread that let the GIL go), so
/// it takes the GIL to drop the callable; once the interpreter exits, it
/// leaves it alone. The Python object that owns it reports it to the cycle
/// collector (traverse) and drops it when the collector breaks a cycle
/// (clear): from then on calls do nothing.
class PyCallable {
 public:
  explicit PyCallable(pybind11::object fn) : fn_(std::move(fn)) {}
  ~PyCallable();
  PyCallable(const PyCallable&) = delete;
  PyCallable& operator=(const PyCallable&) = delete;

  /// Calls the callable with `makeArgument()`, both with the GIL taken for
  /// the call only; nothing once the interpreter exits or the callable was
  /// cleared. An exception of the call is printed as unraisable and dropped.
  /// Takes: the GIL.
  template <typename MakeArgument>
  void call(MakeArgument makeArgument) const;

  /// Visits the callable, for the owner's tp_traverse. With the GIL held.
  int traverse(visitproc visit, void* arg) const {
    Py_VISIT(fn_.ptr());
    return 0;
  }
  /// Drops the callable, for the owner's tp_clear. With the GIL held.
  void clear() { pybind11::object dropped = std::move(fn_); }

 private:
  /// Whether a call may enter Python now; counts it until callEnded().
  static bool callStarts();
  static void callEnded();

  pybind11::object fn_;  // guarded by the GIL
};

template <typename MakeArgument>
void PyCallable::call(MakeArgument makeArgument) const {
  if (!callStarts()) return;
  struct Ended {
    ~Ended() { callEnded(); }
  } ended;
  pybind11::gil_scoped_acquire gil;  // let go before `ended`
  const pybind11::object fn = fn_;   // a clear() during the call drops its own reference only
  if (!fn) return;
  try {
    fn(makeArgument());
  } catch (pybind11::error_already_set& e) {
    e.discard_as_unraisable(fn);
  }
}

/// A module and the Python handler its "__onResource__" calls (empty for a
/// module without that method).
struct PyModule {
  boost::shared_ptr<ZU::ZUModule> module;
  std::shared_ptr<PyCallable> handler;
};

/// A module named `name` whose "__onResource__" calls `handler(resourceName)`
/// in the module's task thread, with the GIL taken for the call only. A
/// handler that raises has its exception printed as unraisable and dropped;
/// the module goes on. `handler` may be None: then the module offers no
/// method. The handle's deleter lets the GIL go while the module stops,
/// because stopping waits for a running call, which may wait for the GIL.
/// Called with the GIL held.
PyModule makeModule(const std::string& name, pybind11::object handler);

/// Whether the calling thread is running a handler of `module` (made by
/// makeModule) now.
bool runsHandlerOf(const ZU::ZUModule& module);

/// A broker as Python holds it: the library's broker and the handlers of
/// the modules registered through it, by name, which the broker's Python
/// object reports to the cycle collector. Used under the GIL.
struct PyBroker {
  boost::shared_ptr<ZU::ZUBroker> broker;
  /// Guarded by the GIL. A module replaced or removed leaves this map: its
  /// handler is no longer the broker's to report.
  std::map<std::string, std::shared_ptr<PyCallable>> handlers;

  int traverse(visitproc visit, void* arg) const;
  void clear();
};

/// An observer that calls `callback(event)` with each event as a dict, in the
/// thread that caused it, with the GIL taken for the call only.
///
/// Thread safety: thread safe (its one field is a PyCallable).
class PyObserver : public ZU::ZUObserver {
 public:
  explicit PyObserver(pybind11::object callback) : callback_(std::move(callback)) {}
  void onEvent(const ZU::ZUEvent& event) override;
  PyCallable& callback() { return callback_; }
  const PyCallable& callback() const { return callback_; }

 private:
  PyCallable callback_;
};

/// The event as a dict: kind, sequence, time (seconds on time.monotonic()'s
/// clock), resource, owner, owner_module, holder, holder_module, parent,
/// label, timeout, no_wait, grant, cause, reason, waits, since (or None).
/// Called with the GIL held.
pybind11::dict toPython(const ZU::ZUEvent& event);
/// One wait as a dict: waiter, waiter_module, holder, holder_module,
/// resource, age_ms, text. Called with the GIL held.
pybind11::dict toPython(const ZU::ZUWait& wait);
/// A cycle of waits as a list of wait dicts. Called with the GIL held.
pybind11::list toPython(const ZU::ZUWaitCycle& cycle);
/// The snapshot as a dict: taken (seconds on time.monotonic()'s clock);
/// resources (name, kind, holders, activated, members); owners (name, module,
/// parent_owners as {resource: owner}, release_flag); waits; cycles;
/// stale_waits (each a wait dict with stale_ms). Called with the GIL held.
pybind11::dict toPython(const ZU::ZUSnapshot& snapshot);

}  // namespace zupy
