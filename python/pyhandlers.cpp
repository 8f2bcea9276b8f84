#include "pyhandlers.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include <pybind11/stl.h>

namespace py = pybind11;
using namespace pybind11::literals;

namespace zupy {

namespace {

// The calls that other threads make into Python. Guarded by gateMutex.
std::mutex gateMutex;
std::condition_variable gateIdle;
bool exiting = false;
int active = 0;  // calls admitted and not yet ended

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

py::object seconds(std::chrono::steady_clock::time_point t) {
  if (t == std::chrono::steady_clock::time_point()) return py::none();
  return py::float_(std::chrono::duration<double>(t.time_since_epoch()).count());
}

}  // namespace

void stopCallsIntoPython() {
  py::gil_scoped_release nogil;
  std::unique_lock<std::mutex> lock(gateMutex);
  exiting = true;
  gateIdle.wait(lock, [] { return active == 0; });
}

bool PyCallable::callStarts() {
  std::lock_guard<std::mutex> lock(gateMutex);
  if (exiting) return false;
  ++active;
  return true;
}

void PyCallable::callEnded() {
  std::lock_guard<std::mutex> lock(gateMutex);
  if (--active == 0) gateIdle.notify_all();
}

PyCallable::~PyCallable() {
  if (!callStarts()) {
    fn_.release();
    return;
  }
  {
    py::gil_scoped_acquire gil;
    fn_ = py::object();  // never throws
  }
  callEnded();
}

boost::shared_ptr<ZU::ZUModule> makeModule(const std::string& name, py::object handler) {
  boost::shared_ptr<ZU::ZUModule> module(new ZU::ZUModule(name), ModuleDeleter());
  if (handler.is_none()) return module;
  py::object fn = py::hasattr(handler, "on_resource") ? handler.attr("on_resource") : handler;
  if (!PyCallable_Check(fn.ptr()))
    throw py::type_error("a module's handler is a callable or an object with on_resource(name)");
  auto shared = std::make_shared<const PyCallable>(std::move(fn));
  module->bindMethod<std::string>("__onResource__", [shared](const std::string& resource) {
    shared->call([&resource] { return py::str(resource); });
  });
  return module;
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
