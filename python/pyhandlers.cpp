#include "pyhandlers.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

#include <pybind11/stl.h>

namespace py = pybind11;
using namespace pybind11::literals;

namespace zupy {

namespace {

// The gate between other threads and Python. A thread counts itself in
// `active` before it looks at `exiting`, and the exit sets `exiting` before it
// waits for `active` to drop to 0: one of the two always sees the other.
std::atomic<bool> exiting{false};
std::atomic<int> active{0};  // calls admitted and not yet ended
// Written once before `exiting` is set; read only after it was seen set.
std::thread::id exitThread;

/// The module whose handler the calling thread runs, if any.
thread_local const ZU::ZUModule* runningModule = nullptr;

/// Counts the calling thread in; false (not counted) once the interpreter
/// exits, unless `exitThreadToo` and this is the thread running the exit.
bool enterGate(bool exitThreadToo) {
  active.fetch_add(1);
  if (!exiting.load()) return true;
  if (exitThreadToo && std::this_thread::get_id() == exitThread) return true;
  active.fetch_sub(1);
  return false;
}

void leaveGate() { active.fetch_sub(1); }

/// Deletes a module with the GIL let go: the module's destructor waits for its
/// running call, which may be waiting for the GIL.
struct ModuleDeleter {
  void operator()(ZU::ZUModule* module) const {
    if (Py_IsInitialized() && PyGILState_Check()) {
      GilReleased nogil;
      delete module;
    } else {
      delete module;
    }
  }
};

py::object seconds(std::chrono::steady_clock::time_point t) {
  if (t == std::chrono::steady_clock::time_point()) return py::none();
  return py::float_(std::chrono::duration<double>(t.time_since_epoch()).count());
}

}  // namespace

void stopCallsIntoPython() {
  exitThread = std::this_thread::get_id();
  exiting.store(true);
  GilReleased nogil;
  while (active.load() != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

GilReleased::GilReleased() : state_(PyEval_SaveThread()) {}

GilReleased::~GilReleased() {
  if (!enterGate(true)) {
    // The interpreter is going away under this thread: it may not run Python
    // again, and unwinding its C++ frames from here is not possible either.
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
  }
  PyEval_RestoreThread(state_);
  leaveGate();
}

bool PyCallable::callStarts() { return enterGate(false); }

void PyCallable::callEnded() { leaveGate(); }

PyCallable::~PyCallable() {
  if (!callStarts()) {
    fn_.release();  // the interpreter exits: left to it
    return;
  }
  {
    py::gil_scoped_acquire gil;
    fn_ = py::object();  // never throws
  }
  callEnded();
}

PyModule makeModule(const std::string& name, py::object handler) {
  boost::shared_ptr<ZU::ZUModule> module(new ZU::ZUModule(name), ModuleDeleter());
  if (handler.is_none()) return {module, nullptr};
  py::object fn = py::hasattr(handler, "on_resource") ? handler.attr("on_resource") : handler;
  if (!PyCallable_Check(fn.ptr()))
    throw py::type_error("a module's handler is a callable or an object with on_resource(name)");
  auto shared = std::make_shared<PyCallable>(std::move(fn));
  const ZU::ZUModule* self = module.get();  // not a handle: the module owns this method
  module->bindMethod<std::string>("__onResource__", [shared, self](const std::string& resource) {
    runningModule = self;
    shared->call([&resource] { return py::str(resource); });
    runningModule = nullptr;  // call() never throws
  });
  return {module, shared};
}

bool runsHandlerOf(const ZU::ZUModule& module) { return runningModule == &module; }

int PyBroker::traverse(visitproc visit, void* arg) const {
  for (const auto& entry : handlers)
    if (entry.second)
      if (int stop = entry.second->traverse(visit, arg)) return stop;
  return 0;
}

void PyBroker::clear() {
  for (const auto& entry : handlers)
    if (entry.second) entry.second->clear();
}

void PyObserver::onEvent(const ZU::ZUEvent& event) {
  callback_.call([&event] { return toPython(event); });
}

py::dict toPython(const ZU::ZUWait& w) {
  return py::dict("waiter"_a = w.waiter, "waiter_module"_a = w.waiterModule, "holder"_a = w.holder,
                  "holder_module"_a = w.holderModule, "resource"_a = w.resource,
                  "age_ms"_a = w.ageMs(), "text"_a = w.toString());
}

py::dict toPython(const ZU::ZUEvent& e) {
  py::list waits;
  for (const ZU::ZUWait& w : e.waits) waits.append(toPython(w));
  return py::dict("kind"_a = ZU::kindName(e.kind), "sequence"_a = e.sequence,
                  "time"_a = seconds(e.time), "resource"_a = e.resource, "owner"_a = e.owner,
                  "owner_module"_a = e.ownerModule, "holder"_a = e.holder,
                  "holder_module"_a = e.holderModule, "parent"_a = e.parent, "label"_a = e.label,
                  "timeout"_a = e.timeout, "no_wait"_a = e.noWaitList,
                  "grant"_a = ZU::grantName(e.grant), "cause"_a = ZU::causeName(e.cause),
                  "reason"_a = e.reason, "waits"_a = waits, "since"_a = seconds(e.since));
}

py::list toPython(const ZU::ZUWaitCycle& cycle) {
  py::list edges;
  for (const ZU::ZUWait& w : cycle.edges) edges.append(toPython(w));
  return edges;
}

py::dict toPython(const ZU::ZUSnapshot& s) {
  py::list resources, owners, waits, cycles, staleWaits;
  for (const ZU::ZUSnapshot::Resource& r : s.resources)
    resources.append(py::dict("name"_a = r.name, "kind"_a = r.kind, "holders"_a = r.holders,
                              "activated"_a = r.activated, "members"_a = r.members));
  for (const ZU::ZUSnapshot::Owner& o : s.owners) {
    py::dict parents;
    for (const auto& parent : o.parentOwners) parents[py::str(parent.first)] = parent.second;
    owners.append(py::dict("name"_a = o.name, "module"_a = o.module, "parent_owners"_a = parents,
                           "release_flag"_a = o.releaseFlag));
  }
  for (const ZU::ZUWait& w : s.waits) waits.append(toPython(w));
  for (const ZU::ZUWaitCycle& c : s.cycles) cycles.append(toPython(c));
  for (const ZU::ZUStaleWait& stale : s.staleWaits) {
    py::dict wait = toPython(stale.wait);
    wait["stale_ms"] = stale.ageMs;
    staleWaits.append(wait);
  }
  return py::dict("taken"_a = seconds(s.taken), "resources"_a = resources, "owners"_a = owners,
                  "waits"_a = waits, "cycles"_a = cycles, "stale_waits"_a = staleWaits);
}

}  // namespace zupy
