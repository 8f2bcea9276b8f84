#include "pyhandlers.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

namespace py = pybind11;

namespace zupy {

namespace {

// The calls that task threads make into Python. Guarded by gateMutex.
std::mutex gateMutex;
std::condition_variable gateIdle;
bool exiting = false;
int active = 0;  // calls admitted and not yet ended

/// Admits one call into Python for as long as it lives, unless the interpreter
/// exits. Thread safe. Takes: gateMutex, briefly, at both ends.
class CallGate {
 public:
  CallGate() {
    std::lock_guard<std::mutex> lock(gateMutex);
    admitted_ = !exiting;
    if (admitted_) ++active;
  }
  ~CallGate() {
    if (!admitted_) return;
    std::lock_guard<std::mutex> lock(gateMutex);
    if (--active == 0) gateIdle.notify_all();
  }
  CallGate(const CallGate&) = delete;
  CallGate& operator=(const CallGate&) = delete;
  explicit operator bool() const { return admitted_; }

 private:
  bool admitted_;
};

/// The Python handler of one module. Thread safe: the handler is touched only
/// with the GIL held. The last handle on it may go in any thread (a task
/// thread, or a Python thread that let the GIL go), so it takes the GIL to
/// drop the handler; once the interpreter exits, it leaves it alone.
class Handler {
 public:
  explicit Handler(py::object fn) : fn_(std::move(fn)) {}
  ~Handler() {
    CallGate gate;
    if (!gate) {
      fn_.release();
      return;
    }
    py::gil_scoped_acquire gil;
    fn_ = py::object();
  }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

  /// Calls the handler with the GIL taken for the call only. Takes: the GIL.
  void call(const std::string& resource) const {
    CallGate gate;
    if (!gate) return;
    py::gil_scoped_acquire gil;
    try {
      fn_(resource);
    } catch (py::error_already_set& e) {
      e.discard_as_unraisable(fn_);
    }
  }

 private:
  py::object fn_;  // guarded by the GIL
};

/// Deletes a module with the GIL let go: the module's destructor waits for its
/// running call, which may be waiting for the GIL.
struct ModuleDeleter {
  void operator()(ZU::ZUModule* module) const {
    if (Py_IsInitialized() && PyGILState_Check()) {
      py::gil_scoped_release nogil;
      delete module;
    } else {
      delete module;
    }
  }
};

}  // namespace

void stopCallsIntoPython() {
  py::gil_scoped_release nogil;
  std::unique_lock<std::mutex> lock(gateMutex);
  exiting = true;
  gateIdle.wait(lock, [] { return active == 0; });
}

boost::shared_ptr<ZU::ZUModule> makeModule(const std::string& name, py::object handler) {
  boost::shared_ptr<ZU::ZUModule> module(new ZU::ZUModule(name), ModuleDeleter());
  if (handler.is_none()) return module;
  py::object fn = py::hasattr(handler, "on_resource") ? handler.attr("on_resource") : handler;
  if (!PyCallable_Check(fn.ptr()))
    throw py::type_error("a module's handler is a callable or an object with on_resource(name)");
  auto shared = std::make_shared<const Handler>(std::move(fn));
  module->bindMethod<std::string>(
      "__onResource__", [shared](const std::string& resource) { shared->call(resource); });
  return module;
}

}  // namespace zupy
