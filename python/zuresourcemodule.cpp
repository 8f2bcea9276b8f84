// The Python module `zuresource`: the resource tree, owners, an in-process
// broker whose modules are Python callables, and the queries, as thin as
// possible over the library and the host layer.
//
// The GIL is let go around every call into the library: a wait may last its
// whole time limit, and any lock of the library may be held for a polling
// period by a wait or a deactivation. It is taken again only to convert
// arguments and results, and by the broker's task threads to call a module's
// Python handler.
//
// Names (of resources, owners, modules, labels) are str, stored as UTF-8;
// bytes are refused where a name goes in, so every name comes back as the
// same str in attributes, errors and events.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <zuhost/zubroker.h>
#include <zuhost/zuerror.h>
#include <zuhost/zuvalue.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuexplain.h>
#include <zuresource/zuobserver.h>
#include <zuresource/zuownerstrong.h>
#include <zuresource/zuresource.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zusnapshot.h>
#include <zuresource/zuwaitregistry.h>

#include "pyhandlers.h"
#include "pyservice.h"
#include "pyinterrupt.h"

PYBIND11_DECLARE_HOLDER_TYPE(T, boost::shared_ptr<T>)

namespace py = pybind11;
using namespace pybind11::literals;

namespace {

/// A name given by Python: a str (never bytes), in UTF-8.
struct Name {
  std::string text;
};

}  // namespace

namespace pybind11 {
namespace detail {
/// Accepts a str that UTF-8 can encode, and nothing else (no bytes).
template <>
struct type_caster<Name> {
  PYBIND11_TYPE_CASTER(Name, const_name("str"));
  bool load(handle source, bool) {
    if (!PyUnicode_Check(source.ptr())) return false;
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(source.ptr(), &size);
    if (!data) {
      PyErr_Clear();  // a lone surrogate: refused like any other wrong type
      return false;
    }
    value.text.assign(data, static_cast<std::size_t>(size));
    return true;
  }
  static handle cast(const Name& name, return_value_policy, handle) {
    return py::str(name.text).release();
  }
};
}  // namespace detail
}  // namespace pybind11

namespace {

// Python sees strong owners only (the library's factory makes nothing else;
// weak owners are the resources' own placeholders).
using OwnerHandle = boost::shared_ptr<ZU::ZUOwnerStrong>;
using ResourceHandle = boost::shared_ptr<ZU::ZUResource>;
using Names = std::vector<std::string>;
using NoGil = py::call_guard<zupy::GilReleased>;

std::vector<std::string> texts(const std::vector<Name>& names) {
  std::vector<std::string> out;
  out.reserve(names.size());
  for (const Name& name : names) out.push_back(name.text);
  return out;
}

// The exception types; created once and kept for the life of the process
// (never released, so that nothing touches them after the interpreter ends).
PyObject* errorType = nullptr;
PyObject* notObtainedType = nullptr;

py::object makeError(PyObject* type, const std::string& message, const std::string& module,
                     const std::string& method, const std::string& description) {
  py::object error = py::reinterpret_borrow<py::object>(type)(message);
  error.attr("module") = module;
  error.attr("method") = method;
  error.attr("description") = description;
  return error;
}

/// `f()`, with the GIL let go meanwhile; the result is converted after.
template <typename F>
auto withoutGil(F f) {
  zupy::GilReleased nogil;
  return f();
}

py::object toPython(const ZU::ZUValue& value) {
  if (value.isString()) return py::str(value.asString());
  if (!value.isArray()) return py::none();
  py::list list;
  for (std::size_t i = 0; i < value.size(); ++i) list.append(toPython(value[i]));
  return std::move(list);
}

py::dict toPython(const ZU::ZUExplanation& e) {
  py::list members;
  for (const ZU::ZUExplanation& member : e.members) members.append(toPython(member));
  return py::dict("resource"_a = e.resource, "answer"_a = ZU::answerName(e.answer),
                  "owner"_a = e.owner, "holder"_a = e.holder, "holder_module"_a = e.holderModule,
                  "waiters"_a = e.waiters, "notifies"_a = e.notifies,
                  "owner_stopped"_a = e.ownerStopped, "holders"_a = e.holders,
                  "members"_a = members, "first_wait"_a = e.firstWait,
                  "would_wait"_a = e.wouldWait(), "text"_a = e.toString());
}

/// The resources a request for `resource` takes one by one, each once: the
/// resource itself, or a group's members, recursively. Takes: each group's
/// resourceListMutex (read) while its members are copied.
void collectLeaves(const ResourceHandle& resource, std::vector<ResourceHandle>& leaves) {
  if (auto* group = dynamic_cast<ZU::ZUResourceList*>(resource.get())) {
    for (const ResourceHandle& member : group->getResourceList()) collectLeaves(member, leaves);
  } else if (std::find(leaves.begin(), leaves.end(), resource) == leaves.end()) {
    leaves.push_back(resource);
  }
}

/// Whether an owner named as `owner` holds the (plain or state) resource.
/// Takes: a state resource's holdersMutex.
bool holds(ZU::ZUResource& resource, const ZU::ZUOwner& owner) {
  if (auto* state = dynamic_cast<ZU::ZUResourceState*>(&resource)) {
    ZU::ZUCriticalSection lock(state->holdersMutex);
    for (const auto& holder : state->holders)
      if (holder->name == owner.name) return true;
    return false;
  }
  return resource.currentOwner.load()->name == owner.name;
}

/// What an owner held, among the resources that a request for `resource`
/// takes, when this was made; gained() tells what it has taken since. A plain
/// or state resource is looked at without copying anything. Used without the
/// GIL, by one thread. Takes: what collectLeaves() and holds() take.
class Holdings {
 public:
  Holdings(const ResourceHandle& resource, const ZU::ZUOwner& owner)
      : resource_(resource),
        owner_(owner),
        group_(dynamic_cast<ZU::ZUResourceList*>(resource.get()) != nullptr) {
    if (!group_) {
      held_ = holds(*resource, owner);
      return;
    }
    collectLeaves(resource, leaves_);
    for (const ResourceHandle& leaf : leaves_)
      if (holds(*leaf, owner)) heldBefore_.push_back(leaf);
  }

  std::vector<ResourceHandle> gained() const {
    std::vector<ResourceHandle> gained;
    if (!group_) {
      if (!held_ && holds(*resource_, owner_)) gained.push_back(resource_);
      return gained;
    }
    for (const ResourceHandle& leaf : leaves_)
      if (std::find(heldBefore_.begin(), heldBefore_.end(), leaf) == heldBefore_.end() &&
          holds(*leaf, owner_))
        gained.push_back(leaf);
    return gained;
  }

 private:
  const ResourceHandle& resource_;
  const ZU::ZUOwner& owner_;
  const bool group_;
  bool held_ = false;                         // not a group: whether it was held
  std::vector<ResourceHandle> leaves_;        // a group: its members, each once
  std::vector<ResourceHandle> heldBefore_;    // a group: the members held
};

/// Stops an owner's wait as the manager does, by the owner's release flag,
/// and remembers the flag as it was before. Its stop runs in the signal
/// watcher's thread; its fields are read after Interruption::end().
struct OwnerStop {
  ZU::ZUOwner* owner;
  bool stopped = false;
  bool flagBefore = false;

  static void stop(void* context) {
    auto* self = static_cast<OwnerStop*>(context);
    if (!self->stopped) self->flagBefore = self->owner->resourceFreed.load();
    self->stopped = true;
    self->owner->freeResource();  // the wait ends at its next poll
  }
  /// After the stopped wait: the flag as it was, unless someone waits on the
  /// owner (for them a set flag means a release, which may have been real).
  void restore() const {
    if (stopped && !flagBefore && owner->copyWaiters().size() == 0) owner->resourceFreed = false;
  }
};

/// Acquires `resource` for `owner` as waitFor does, with the GIL let go, and
/// tells in `taken` (when given) the resources (a group's members) that the
/// owner holds now and did not hold before. In the main thread a signal stops
/// the wait (see Interruption); when its handler raises (KeyboardInterrupt),
/// what the wait took is given back and the exception passes on; when not,
/// the wait starts again for the rest of its time limit. Called with the GIL.
Names acquire(const ResourceHandle& resource, const OwnerHandle& owner, const std::string& label,
              int timeout, const Names& noWait, std::vector<ResourceHandle>* taken) {
  if (!owner)  // refused by the library
    return withoutGil([&] { return resource->waitFor(owner, label, timeout, noWait); });
  const auto start = std::chrono::steady_clock::now();
  for (int limit = timeout;;) {
    OwnerStop stopper{owner.get()};
    zupy::Interruption interruption(&OwnerStop::stop, &stopper);
    std::vector<ResourceHandle> gained;
    Names missing;
    std::exception_ptr error;
    bool stopError = false;
    {
      zupy::GilReleased nogil;
      std::optional<Holdings> before;
      if (taken || interruption.armed()) before.emplace(resource, *owner);
      try {
        missing = resource->waitFor(owner, label, limit, noWait);
      } catch (const ZU::ZUError& e) {
        stopError = e.getDescription() == ZU::contract::kStopWhileWaiting;
        error = std::current_exception();
      }
      interruption.end();
      stopper.restore();
      if (before && (taken || interruption.interrupted())) gained = before->gained();
    }
    if (interruption.interrupted() && PyErr_CheckSignals() != 0) {
      withoutGil([&] {
        for (const ResourceHandle& leaf : gained) leaf->release(owner);
      });
      throw py::error_already_set();  // the handler's exception
    }
    if (error && !(stopper.stopped && stopError)) std::rethrow_exception(error);
    if (!error) {
      if (taken) *taken = std::move(gained);
      return missing;
    }
    // Stopped for a signal whose handler did not raise: wait again.
    if (timeout >= 0) {
      const auto waited = std::chrono::duration_cast<std::chrono::seconds>(
          std::chrono::steady_clock::now() - start);
      limit = std::max(0, timeout - static_cast<int>(waited.count()));
    }
  }
}

/// What `with resource.acquired(owner, ...)` holds: acquires on entering,
/// gives back on leaving what entering took, and only that (a member the
/// owner held before stays held). Used by one thread at a time, like the
/// owner.
struct Acquisition {
  ResourceHandle resource;
  OwnerHandle owner;
  int timeout;
  Names noWait;
  std::string label;
  std::vector<ResourceHandle> taken;  // what entering took, to give back

  ResourceHandle enter() {
    taken.clear();
    const Names missing = acquire(resource, owner, label, timeout, noWait, &taken);
    if (missing.empty()) return resource;
    // The body does not run without all of it: what this took goes back.
    withoutGil([this] { giveBack(); });
    std::string text = "not obtained:";
    for (const std::string& name : missing) text += " " + name;
    py::object error = makeError(notObtainedType, text, "zuresource", "acquired", text);
    error.attr("names") = missing;
    PyErr_SetObject(notObtainedType, error.ptr());
    throw py::error_already_set();
  }
  void exit() {
    zupy::GilReleased nogil;
    giveBack();
  }
  /// Without the GIL.
  void giveBack() {
    for (const ResourceHandle& leaf : taken) leaf->release(owner);
    taken.clear();
  }
};

/// A Python observer's registration: registered while it lives, until closed.
/// Used under the GIL.
class ObserverRegistration {
 public:
  explicit ObserverRegistration(py::object callback) {
    if (!PyCallable_Check(callback.ptr())) throw py::type_error("an observer is a callable");
    observer_ = boost::make_shared<zupy::PyObserver>(std::move(callback));
    ZU::ZUObservers::add(observer_);
  }
  ~ObserverRegistration() { close(); }
  ObserverRegistration(const ObserverRegistration&) = delete;
  ObserverRegistration& operator=(const ObserverRegistration&) = delete;

  /// Unregisters; on return no event reaches the callback, and the deliveries
  /// that were running in other threads have ended. Lets the GIL go while it
  /// waits for them, as they take it.
  void close() {
    boost::shared_ptr<zupy::PyObserver> observer;
    observer.swap(observer_);
    if (!observer) return;
    zupy::GilReleased nogil;
    ZU::ZUObservers::remove(observer);
  }

  /// For the cycle collector: the callback, while registered.
  int traverse(visitproc visit, void* arg) const {
    return observer_ ? observer_->callback().traverse(visit, arg) : 0;
  }
  /// Breaks a cycle through the callback: it is no longer called. The
  /// registration itself ends when the object goes.
  void clear() {
    if (observer_) observer_->callback().clear();
  }

 private:
  boost::shared_ptr<zupy::PyObserver> observer_;
};

/// The constructor of a resource of class T: (name, parent).
template <typename T>
auto resourceInit() {
  return py::init([](const Name& name, ResourceHandle parent) {
    return boost::make_shared<T>(name.text, parent);
  });
}

/// The C++ object of a pybind11 instance of T, or null before its
/// constructor ran.
template <typename T>
T* valueOf(PyObject* self) {
  py::detail::value_and_holder v = reinterpret_cast<py::detail::instance*>(self)->get_value_and_holder();
  return v.holder_constructed() ? v.value_ptr<T>() : nullptr;
}

/// Makes the Python class of T take part in the cycle collector through
/// T::traverse and T::clear, which report and drop the Python objects that
/// T holds.
template <typename T>
py::custom_type_setup collectable() {
  return py::custom_type_setup([](PyHeapTypeObject* heapType) {
    PyTypeObject* type = &heapType->ht_type;
    type->tp_flags |= Py_TPFLAGS_HAVE_GC;
    type->tp_traverse = [](PyObject* self, visitproc visit, void* arg) {
      Py_VISIT(Py_TYPE(self));
      const T* value = valueOf<T>(self);
      return value ? value->traverse(visit, arg) : 0;
    };
    type->tp_clear = [](PyObject* self) {
      if (T* value = valueOf<T>(self)) value->clear();
      return 0;
    };
  });
}

std::string repr(const char* cls, const std::string& name) {
  return "<zuresource." + std::string(cls) + " " + py::repr(py::str(name)).cast<std::string>() +
         ">";
}

}  // namespace

PYBIND11_MODULE(zuresource, m) {
  m.doc() =
      "Arbitration of a robot's resources between behaviours: resources, owners,\n"
      "and an in-process broker whose modules are told \"__onResource__\".\n\n"
      "In the main thread, a signal that Python handles (Ctrl-C) stops a blocking\n"
      "wait_for, the entry of a `with ... acquired(...)` block or wait_idle within\n"
      "about one polling period: what the wait took is given back and the handler's\n"
      "exception (KeyboardInterrupt) is raised.";

  errorType = PyErr_NewExceptionWithDoc(
      "zuresource.Error",
      "An error of the library or the host layer. str() is the library's own text;\n"
      "`module`, `method` and `description` are its parts.",
      PyExc_Exception, nullptr);
  notObtainedType = PyErr_NewExceptionWithDoc(
      "zuresource.NotObtained",
      "Raised by `with resource.acquired(...)` when some resources were not\n"
      "obtained (they were on the no-wait list); `names` lists them.",
      errorType, nullptr);
  // The texts callers compare against, as the library names them.
  m.attr("PLACEHOLDER") = ZU::contract::kPlaceholderName;
  m.attr("WAIT_ERROR_MODULE") = ZU::contract::kWaitErrorModule;
  m.attr("WAIT_ERROR_METHOD") = ZU::contract::kWaitErrorMethod;
  m.attr("STOP_WHILE_WAITING") = ZU::contract::kStopWhileWaiting;
  m.attr("WAIT_TIMED_OUT_PREFIX") = ZU::contract::kWaitTimedOutPrefix;
  m.add_object("Error", py::handle(errorType));
  m.add_object("NotObtained", py::handle(notObtainedType));
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const ZU::ZUError& e) {
      py::object error =
          makeError(errorType, e.what(), e.getModule(), e.getMethod(), e.getDescription());
      PyErr_SetObject(errorType, error.ptr());
    }
  });
  py::module_::import("atexit").attr("register")(py::cpp_function(&zupy::stopCallsIntoPython));
  zupy::watchSignals();
  py::module_::import("os").attr("register_at_fork")(
      "after_in_child"_a = py::cpp_function(&zupy::watchSignals));

  py::class_<ZU::ZUModule, boost::shared_ptr<ZU::ZUModule>>(
      m, "Module", "A module on a broker; made by Broker.add_module.")
      .def_property_readonly("name", &ZU::ZUModule::getName)
      .def_property_readonly("started_tasks", &ZU::ZUModule::startedTasks,
                             "Number of calls started so far.")
      .def(
          "wait_idle",
          [](ZU::ZUModule& mod) {
            // Like Thread.join() on the current thread: it would wait for itself.
            if (zupy::runsHandlerOf(mod))
              throw std::runtime_error("cannot wait for module '" + mod.getName() +
                                       "' to be idle from its own handler");
            for (;;) {
              std::atomic<bool> stopped{false};
              zupy::Interruption interruption(
                  [](void* flag) { static_cast<std::atomic<bool>*>(flag)->store(true); }, &stopped);
              {
                zupy::GilReleased nogil;
                while (!mod.waitIdleFor(std::chrono::milliseconds(100)))
                  if (stopped.load()) break;
                interruption.end();
              }
              if (!interruption.interrupted()) return;
              if (PyErr_CheckSignals() != 0) throw py::error_already_set();
            }
          },
          "Blocks until no call is queued or running. Raises RuntimeError when\n"
          "called from the module's own handler, which would wait for itself.")
      .def("__repr__", [](const ZU::ZUModule& mod) { return repr("Module", mod.getName()); });

  py::class_<zupy::PyBroker>(m, "Broker", "An in-process broker: the modules by name.",
                            collectable<zupy::PyBroker>())
      .def(py::init([] { return zupy::PyBroker{boost::make_shared<ZU::ZUBroker>(), {}}; }))
      .def(
          "add_module",
          [](zupy::PyBroker& b, const Name& name, py::object handler) {
            zupy::PyModule made = zupy::makeModule(name.text, std::move(handler));
            withoutGil([&] { b.broker->addModule(made.module); });
            b.handlers[name.text] = std::move(made.handler);  // drops a replaced one's
            return made.module;
          },
          "name"_a, "handler"_a,
          "Registers a module named `name` (replacing one of that name) and returns it.\n"
          "`handler(resource_name)`, or `handler.on_resource(resource_name)`, runs in the\n"
          "module's own thread each time an owner of the module is asked for a resource\n"
          "it holds. None makes a module without that method. The broker keeps the\n"
          "module until it is removed or the broker goes.")
      .def(
          "remove_module",
          [](zupy::PyBroker& b, const Name& name) {
            withoutGil([&] { b.broker->removeModule(name.text); });
            b.handlers.erase(name.text);
          },
          "name"_a,
          "Unregisters the module of that name (nothing when there is none). Once no\n"
          "one holds it, it stops: queued calls are dropped, a running one is waited for.")
      .def(
          "module",
          [](const zupy::PyBroker& b, const Name& name) { return b.broker->getModule(name.text); },
          "name"_a, "The module registered under `name`, or None.");

  py::class_<ZU::ZUOwnerStrong, OwnerHandle>(
      m, "Owner",
      "A party that holds and requests resources: a behaviour, named hierarchically\n"
      "(an owner whose name extends another's is its descendant and is handed the\n"
      "resource at once), and the module that stands for it.")
      .def(py::init([](const Name& name, const Name& module, const zupy::PyBroker* broker) {
             OwnerHandle owner = boost::static_pointer_cast<ZU::ZUOwnerStrong>(
                 ZU::ZUResource::createOwner(0, name.text, module.text, nullptr));
             if (broker) owner->setParentBroker(broker->broker);
             return owner;
           }),
           "name"_a, "module"_a, "broker"_a = py::none(),
           "A strong owner from the library's factory, linked to `broker` (its module\n"
           "is told \"__onResource__\" there). The owner holds the broker weakly: once\n"
           "the broker is gone, nobody is told.")
      .def_property_readonly("name", [](const ZU::ZUOwnerStrong& o) { return o.name; })
      .def_property_readonly("module", [](const ZU::ZUOwnerStrong& o) { return o.moduleName; })
      .def_property_readonly("owner_type", [](const ZU::ZUOwnerStrong& o) { return o.ownerType; })
      .def_property_readonly(
          "waiters",
          [](const ZU::ZUOwnerStrong& o) {
            return toPython(withoutGil([&o] { return o.copyWaiters(); }));
          },
          "The modules of the owners waiting on this owner, oldest first (or None).")
      .def_property_readonly(
          "stopped", [](const ZU::ZUOwnerStrong& o) { return o.resourceFreed.load(); },
          "The release flag: set when the owner let go of a resource to nobody (not\n"
          "when it handed one back to an ancestor), or was stopped; while set, a wait\n"
          "of this owner on a busy resource fails at its first poll.")
      .def("free_resource", &ZU::ZUOwnerStrong::freeResource, NoGil(),
           "Stops the owner: waits on it end, and its own wait fails, at the next poll.")
      .def(
          "is_parent",
          [](ZU::ZUOwnerStrong& o, const OwnerHandle& other) { return o.isParent(other); },
          "other"_a, "Whether `other` is an ancestor.")
      .def("__repr__", [](const ZU::ZUOwnerStrong& o) { return repr("Owner", o.name); });

  py::class_<Acquisition>(m, "Acquisition",
                          "The context manager of Resource.acquired: acquires on entering\n"
                          "(and returns the resource), releases on leaving.")
      .def("__enter__", &Acquisition::enter)
      .def("__exit__", [](Acquisition& a, py::args) {
        a.exit();
        return false;
      });

  py::class_<ZU::ZUResource, ResourceHandle>(
      m, "Resource",
      "A plain resource, held by one owner at a time; also the base of StateResource\n"
      "and Group, whose operations are these.")
      .def(resourceInit<ZU::ZUResource>(), "name"_a, "parent"_a = py::none())
      .def_property_readonly("name", [](const ZU::ZUResource& r) { return r.name; })
      .def_property_readonly(
          "holder", [](const ZU::ZUResource& r) { return r.currentOwner.load()->name; },
          "The name of the holder; \"emptyOwner\" when free.")
      .def(
          "wait_for",
          [](const ResourceHandle& r, const OwnerHandle& owner, int timeout,
             const std::vector<Name>& noWait, const Name& label) {
            return acquire(r, owner, label.text, timeout, texts(noWait), nullptr);
          },
          "owner"_a, "timeout"_a = -1, "no_wait"_a = std::vector<Name>(), "label"_a = "",
          "Acquires the resource for `owner`, waiting up to `timeout` seconds (negative:\n"
          "no limit) while the holder's module is told \"__onResource__\". Returns the\n"
          "names not obtained: empty when the owner holds everything it asked for; a\n"
          "busy resource named in `no_wait` is given up at once. Raises Error when the\n"
          "time limit passes or the owner is stopped (a group then gives the owner back\n"
          "from every member). Other threads run meanwhile.")
      .def(
          "release", [](ZU::ZUResource& r, const OwnerHandle& owner) { r.release(owner); },
          "owner"_a, NoGil(),
          "Gives the resource back from `owner`: to the owner that handed it down to\n"
          "`owner`, if that one still exists (no release flag is set then), otherwise\n"
          "to nobody, setting the release flag of the holder (so waits on it end).\n"
          "When `owner` does not hold it, only sets `owner`'s release flag (its own\n"
          "pending wait ends).")
      .def(
          "switch_owner",
          [](ZU::ZUResource& r, const OwnerHandle& owner, const Name& label, int timeout) {
            withoutGil([&] { r.switchOwner(owner, label.text, timeout); });
          },
          "owner"_a, "label"_a = "", "timeout"_a = -1,
          "Makes `owner` the holder at once, telling nobody.")
      .def("is_resource_free", &ZU::ZUResource::isResourceFree, NoGil())
      .def(
          "is_resource_owned",
          [](ZU::ZUResource& r, const Name& module) {
            return withoutGil([&] { return r.isResourceOwned(module.text); });
          },
          "module"_a,
           "Whether the holder's module (every member's, for a group) is `module`.")
      .def("http_get", &ZU::ZUResource::httpGet, "depth"_a = 0, NoGil(),
           "The status line(s), each ending in \"<br />\".")
      .def(
          "owners_get",
          [](ZU::ZUResource& r) { return toPython(withoutGil([&r] { return r.ownersGet(); })); },
          "The status value as nested lists of str: [name] when free, [name, module,\n"
          "waiters] when held; a group adds a list of its members' values.")
      .def(
          "explain",
          [](const ResourceHandle& r, const OwnerHandle& owner, const std::vector<Name>& noWait) {
            const Names names = texts(noWait);
            return toPython(withoutGil([&] { return ZU::explain(r, owner, names); }));
          },
          "owner"_a, "no_wait"_a = std::vector<Name>(),
          "What wait_for(owner, no_wait=...) would do now, without doing it, as a dict:\n"
          "resource, answer, owner, holder, holder_module, waiters, notifies,\n"
          "owner_stopped, holders, members (dicts), first_wait, would_wait, text.")
      .def(
          "acquired",
          [](const ResourceHandle& r, const OwnerHandle& owner, int timeout,
             const std::vector<Name>& noWait, const Name& label) {
            return Acquisition{r, owner, timeout, texts(noWait), label.text, {}};
          },
          "owner"_a, "timeout"_a = -1, "no_wait"_a = std::vector<Name>(), "label"_a = "",
          "A context manager: `with head.acquired(owner, timeout=5):` acquires as\n"
          "wait_for does, and on leaving (also on an exception) gives back what it\n"
          "took, and only that: what the owner held before the block stays held.\n"
          "Raises NotObtained, after giving back what it took, when some were not\n"
          "obtained. A wait that fails raises Error as wait_for does.")
      .def("__repr__", [](const ZU::ZUResource& r) { return repr("Resource", r.name); });

  py::class_<ZU::ZUResourceState, ZU::ZUResource, boost::shared_ptr<ZU::ZUResourceState>>(
      m, "StateResource",
      "A condition: while activated any number of owners hold it; while not,\n"
      "requests wait for activation.")
      .def(resourceInit<ZU::ZUResourceState>(), "name"_a, "parent"_a = py::none())
      .def_property_readonly("activated",
                             [](const ZU::ZUResourceState& r) { return r.state.load(); })
      .def_property_readonly(
          "holders",
          [](ZU::ZUResourceState& r) {
            return withoutGil([&r] {
              Names names;
              ZU::ZUCriticalSection lock(r.holdersMutex);
              for (const auto& holder : r.holders) names.push_back(holder->name);
              return names;
            });
          },
          "The holders' names, in the order they were granted.")
      .def("set_state", &ZU::ZUResourceState::setState, "activated"_a, NoGil(),
           "Activates (waiting requests go through within one polling period) or\n"
           "deactivates (each holder is asked to let go).")
      .def("release_state", &ZU::ZUResourceState::releaseState, NoGil(),
           "Deactivates and asks each holder to let go; raises Error when a holder did\n"
           "not within one polling period.")
      .def("__repr__", [](const ZU::ZUResource& r) { return repr("StateResource", r.name); });

  py::class_<ZU::ZUResourceList, ZU::ZUResource, boost::shared_ptr<ZU::ZUResourceList>>(
      m, "Group", "An ordered list of member resources, acquired member by member.")
      .def(py::init([](const Name& name, const std::vector<ResourceHandle>& members,
                       ResourceHandle parent) {
             auto group = boost::make_shared<ZU::ZUResourceList>(name.text, parent);
             withoutGil([&] {
               for (const ResourceHandle& member : members) group->addResource(member);
             });
             return group;
           }),
           "name"_a, "members"_a = std::vector<ResourceHandle>(), "parent"_a = py::none())
      .def_property_readonly("members", &ZU::ZUResourceList::getResourceList, NoGil())
      .def("add_resource", &ZU::ZUResourceList::addResource, "resource"_a, NoGil(),
           "Appends a member; raises Error for one that would make a cycle.")
      .def(
          "delete_resource",
          [](ZU::ZUResourceList& g, const Name& name) {
            withoutGil([&] { g.deleteResource(name.text); });
          },
          "name"_a,
           "Removes the first direct member of that name; raises Error when none.")
      .def(
          "is_in_group",
          [](ZU::ZUResourceList& g, const Name& name) {
            return withoutGil([&] { return g.isInGroup(name.text); });
          },
          "name"_a)
      .def("set_abort_requested", &ZU::ZUResourceList::setAbortRequested, "requested"_a,
           "While set, waits on the group stop before their next member and give\n"
           "the owner back from the whole group.")
      .def("__repr__", [](const ZU::ZUResource& r) { return repr("Group", r.name); });

  py::class_<ObserverRegistration>(
      m, "Observer",
      "Registers `callback(event)` for the events of the arbitration (requested,\n"
      "waiting, notified, granted, released, timedOut, deadlockFormed, ...), each a\n"
      "dict, until closed or dropped. The callback runs in the thread that caused the\n"
      "event, which waits for it: keep it quick. Usable as a context manager.",
      collectable<ObserverRegistration>())
      .def(py::init<py::object>(), "callback"_a)
      .def("close", &ObserverRegistration::close,
           "Unregisters; the deliveries running in other threads have ended on return.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](ObserverRegistration& r, py::args) {
        r.close();
        return false;
      });

  m.def(
      "waits",
      [] {
        py::list list;
        for (const ZU::ZUWait& w : withoutGil(ZU::ZUWaitRegistry::snapshot))
          list.append(zupy::toPython(w));
        return list;
      },
      "The waits running now in the process, oldest first, as dicts: waiter,\n"
      "waiter_module, holder, holder_module, resource, age_ms, text.");
  m.def(
      "deadlocks",
      [] {
        py::list cycles;
        for (const ZU::ZUWaitCycle& c : withoutGil(ZU::ZUWaitRegistry::cycles))
          cycles.append(zupy::toPython(c));
        return cycles;
      },
      "The cycles among the waits running now, each a list of waits (dicts).");
  m.def(
      "snapshot",
      [](const std::vector<ResourceHandle>& roots) {
        return zupy::toPython(withoutGil([&roots] { return ZU::takeSnapshot(roots); }));
      },
      "roots"_a,
      "A picture of the arbitration now, as a dict: taken (seconds on the clock of\n"
      "time.monotonic()), the resources of the trees\n"
      "`roots` (name, kind, holders, activated, members), the owners that hold or\n"
      "wait (name, module, parent_owners, release_flag), the running waits, their\n"
      "cycles and the stale waits. Each resource is read whole; two may be read a\n"
      "moment apart.");
  m.def(
      "_cycle_in_cpp",
      [](ZU::ZUResource& r, const OwnerHandle& owner, int cycles) {
        const Names none;
        for (int i = 0; i < cycles; ++i) {
          r.waitFor(owner, "", -1, none);
          r.release(owner);
        }
      },
      "resource"_a, "owner"_a, "cycles"_a, NoGil(),
      "The uncontended cycle (wait_for on a free resource, then release), run\n"
      "`cycles` times in C++: the baseline of the Python cycle's benchmark.");

  // The client of the robot's resource service (zuresourced).
  zupy::registerService(m);
}
