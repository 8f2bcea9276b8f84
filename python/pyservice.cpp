// The Python client of the robot's resource service: zuclient's session,
// acquisitions and reads, in the zuresource module, shaped like the
// in-process classes (`with session.acquired(owner, "Arms", timeout=5):`).

#include "pyservice.h"

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <pybind11/functional.h>
#include <pybind11/stl.h>

#include <zuclient/zuclient.h>

#include "pyhandlers.h"
#include "pyinterrupt.h"

namespace py = pybind11;
using namespace pybind11::literals;

namespace zupy {

namespace {

using ZU::client::ZUAcquisition;
using ZU::client::ZUClient;
using ZU::client::ZUServiceError;
using ZU::client::ZUSession;
using ZU::client::ZUWaitError;
using Names = std::vector<std::string>;

PyObject* serviceErrorType = nullptr;  // zuresource.ServiceError, made at registration
PyObject* libraryErrorType = nullptr;  // zuresource.Error, the module's

/// A session as Python holds it: destroyed with the GIL let go, since ending
/// it waits for its reader thread, which may be waiting for the GIL to call a
/// handler.
std::shared_ptr<ZUSession> holdSession(ZUSession* session) {
  return std::shared_ptr<ZUSession>(session, [](ZUSession* s) {
    if (PyGILState_Check()) {
      GilReleased nogil;
      delete s;
    } else {
      delete s;
    }
  });
}

/// A read of the service that answers JSON, made with the GIL let go, as
/// Python's lists and dicts.
template <std::string (ZUClient::*read)()>
py::object jsonRead(ZUClient& client) {
  std::string json;
  {
    GilReleased nogil;
    json = (client.*read)();
  }
  return py::module_::import("json").attr("loads")(json);
}

/// The timeout on the wire: Python's -1 (or any negative) for no limit is 0.
int wireTimeout(int timeout) {
  if (timeout == 0) {
    throw py::value_error(
        "timeout 0 would not wait: give no_wait=[...] to give up busy resources at once, or -1 "
        "for no limit");
  }
  return timeout < 0 ? 0 : timeout;
}

/// The session's handlers, calling Python callables with one argument, a
/// namespace of the notice's fields.
struct Handlers {
  std::shared_ptr<PyCallable> onWanted, onLost, onEnded;

  ZUSession::Handlers forSession() const {
    ZUSession::Handlers h;
    if (onWanted) {
      auto fn = onWanted;
      h.onWanted = [fn](const std::string& resource, const std::string& owner) {
        fn->call([&] {
          return py::module_::import("types").attr("SimpleNamespace")("resource"_a = resource,
                                                                       "owner"_a = owner);
        });
      };
    }
    if (onLost) {
      auto fn = onLost;
      h.onLost = [fn](const std::string& resource, const std::string& owner, const std::string& by,
                      const std::string& reason) {
        fn->call([&] {
          return py::module_::import("types").attr("SimpleNamespace")(
              "resource"_a = resource, "owner"_a = owner, "by"_a = by, "reason"_a = reason);
        });
      };
    }
    if (onEnded) {
      auto fn = onEnded;
      h.onEnded = [fn](const grpc::Status& status) {
        fn->call([&] {
          return py::module_::import("types").attr("SimpleNamespace")(
              "code"_a = ZUServiceError::codeName(status.error_code()),
              "reason"_a = status.error_message());
        });
      };
    }
    return h;
  }
};

std::shared_ptr<PyCallable> callable(const py::object& fn) {
  if (fn.is_none()) return nullptr;
  if (!PyCallable_Check(fn.ptr())) throw py::type_error("a handler is a callable or None");
  return std::make_shared<PyCallable>(fn);
}

/// An acquire with the GIL let go; in Python's main thread a signal stops
/// it (its handler then runs; when it does not raise, the wait goes on).
ZUAcquisition acquire(ZUSession& session, const std::string& owner, const std::string& resource,
                      int timeout, const Names& noWait) {
  const int wire = wireTimeout(timeout);
  for (;;) {
    ZU::client::ZUCancel cancel;
    Interruption interruption([](void* c) { static_cast<ZU::client::ZUCancel*>(c)->cancel(); },
                              &cancel);
    try {
      GilReleased nogil;
      return session.acquire(owner, resource, wire, noWait, {}, &cancel);
    } catch (const ZUServiceError& error) {
      interruption.end();
      if (!interruption.interrupted() || error.code() != grpc::StatusCode::CANCELLED) throw;
    }
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
}

/// What `with session.acquired(...)` holds: acquires on entering, gives
/// back on leaving.
struct Acquired {
  std::shared_ptr<ZUSession> session;
  std::string owner, resource;
  int timeout;
  Names noWait;
  std::shared_ptr<ZUAcquisition> held;

  std::shared_ptr<ZUAcquisition> enter() {
    held = std::make_shared<ZUAcquisition>(acquire(*session, owner, resource, timeout, noWait));
    if (!held->notObtained().empty()) {
      const Names names = held->notObtained();
      {
        GilReleased nogil;
        held.reset();  // the body does not run without all of it
      }
      throw notObtained(names);
    }
    return held;
  }
  static py::error_already_set notObtained(const Names& names);
};

}  // namespace

void registerService(py::module_& m) {
  serviceErrorType = PyErr_NewExceptionWithDoc(
      "zuresource.ServiceError",
      "A call the resource service refused or could not answer: `code` is the\n"
      "gRPC status code's name (\"NOT_FOUND\", \"UNAVAILABLE\", ...), `reason` why.",
      PyExc_Exception, nullptr);
  m.add_object("ServiceError", py::handle(serviceErrorType));
  libraryErrorType = m.attr("Error").ptr();  // the module keeps it
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const ZUServiceError& e) {
      py::object error = py::reinterpret_borrow<py::object>(serviceErrorType)(e.what());
      error.attr("code") = ZUServiceError::codeName(e.code());
      error.attr("reason") = e.reason();
      PyErr_SetObject(serviceErrorType, error.ptr());
    } catch (const ZUWaitError& e) {
      py::object error = py::reinterpret_borrow<py::object>(libraryErrorType)(e.what());
      error.attr("module") = e.module();
      error.attr("method") = e.method();
      error.attr("description") = e.description();
      PyErr_SetObject(libraryErrorType, error.ptr());
    }
  });
  m.def("default_service", &ZU::client::defaultTarget,
        "The service's default address: $ZURESOURCE_SERVICE, else\n"
        "unix:$XDG_RUNTIME_DIR/zuresource.sock, or unix:/run/zuresource/zuresource.sock.");

  py::class_<ZUClient, std::shared_ptr<ZUClient>>(
      m, "ServiceClient", "The reads of the resource service, with no session.")
      .def(py::init([](const std::optional<std::string>& target) {
             return std::make_shared<ZUClient>(target ? *target : ZU::client::defaultTarget());
           }),
           "target"_a = py::none())
      .def_property_readonly("target", &ZUClient::target)
      .def("status", &ZUClient::status, py::call_guard<GilReleased>(),
           "Every root's status lines.")
      .def("status_values", &jsonRead<&ZUClient::statusValuesJson>,
           "Every root's status value, as lists and strings.")
      .def("snapshot", &jsonRead<&ZUClient::snapshotJson>,
           "The snapshot, as the recording's JSON form (a dict).")
      .def(
          "explain",
          [](ZUClient& c, const std::string& owner, const std::string& resource,
             const Names& noWait) {
            GilReleased nogil;
            return c.explain(owner, resource, noWait).second;
          },
          "owner"_a, "resource"_a, "no_wait"_a = Names(),
          "What an acquire of `owner` for `resource` would do now, in one sentence.");

  py::class_<ZUAcquisition, std::shared_ptr<ZUAcquisition>>(
      m, "ServiceAcquisition",
      "Resources held through the service, given back by release() or on\n"
      "leaving a with block.")
      .def_property_readonly("owner", &ZUAcquisition::owner)
      .def_property_readonly("resource", &ZUAcquisition::resource)
      .def_property_readonly("not_obtained", &ZUAcquisition::notObtained)
      .def_property_readonly("lost", &ZUAcquisition::lost,
                             "Whether the resources went while held: the session ended (the\n"
                             "service stopped or gave this client up) or the manager took one.")
      .def_property_readonly("lost_reason", &ZUAcquisition::lostReason)
      .def("release", &ZUAcquisition::release, py::call_guard<GilReleased>(),
           "Gives the resources back; raises ServiceError when they were lost.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](ZUAcquisition& a, py::object type, py::object, py::object) {
        GilReleased nogil;
        try {
          a.release();
        } catch (const ZUServiceError&) {
          if (type.is_none()) throw;  // lost: said, unless another exception goes on
        }
        return false;
      });

  py::class_<Acquired>(m, "ServiceAcquired", "The context manager of ServiceSession.acquired.")
      .def("__enter__", &Acquired::enter)
      .def("__exit__", [](Acquired& a, py::object type, py::object, py::object) {
        std::shared_ptr<ZUAcquisition> held = std::move(a.held);
        if (!held) return false;
        GilReleased nogil;
        try {
          held->release();
        } catch (const ZUServiceError&) {
          if (type.is_none()) throw;  // lost: said, unless another exception goes on
        }
        return false;
      });

  py::class_<ZUSession, ZUClient, std::shared_ptr<ZUSession>>(
      m, "ServiceSession",
      "This process's session with the resource service: a module of the\n"
      "service whose owners hold and wait. Ending it (close(), leaving a with\n"
      "block) releases everything its owners hold. Handlers get one argument,\n"
      "a namespace: on_wanted(n) n.resource, n.owner; on_lost(n) n.resource,\n"
      "n.owner, n.by, n.reason; on_ended(n) n.code, n.reason. They run in the\n"
      "session's own thread.")
      .def(py::init([](const std::string& module, const std::optional<std::string>& target,
                       py::object onWanted, py::object onLost, py::object onEnded,
                       double connectTimeout) {
             Handlers handlers{callable(onWanted), callable(onLost), callable(onEnded)};
             const std::string where = target ? *target : ZU::client::defaultTarget();
             const auto wait = std::chrono::milliseconds(static_cast<long long>(connectTimeout * 1000));
             GilReleased nogil;
             return holdSession(new ZUSession(module, handlers.forSession(), where, wait));
           }),
           "module"_a, "target"_a = py::none(), "on_wanted"_a = py::none(),
           "on_lost"_a = py::none(), "on_ended"_a = py::none(), "connect_timeout"_a = 5.0)
      .def_property_readonly("id", &ZUSession::id)
      .def_property_readonly("module", &ZUSession::module)
      .def_property_readonly("alive", &ZUSession::alive)
      .def(
          "acquire",
          [](ZUSession& s, const std::string& owner, const std::string& resource, int timeout,
             const Names& noWait) {
            // Dropped, it leaves the resources held, as wait_for does.
            return std::shared_ptr<ZUAcquisition>(
                new ZUAcquisition(acquire(s, owner, resource, timeout, noWait)),
                [](ZUAcquisition* a) {
                  a->detach();
                  delete a;
                });
          },
          "owner"_a, "resource"_a, "timeout"_a = -1, "no_wait"_a = Names(),
          "Acquires `resource` for `owner`, waiting up to `timeout` seconds (-1: no\n"
          "limit). Returns the acquisition; dropping it leaves the resources held\n"
          "(release() gives them back). Its not_obtained names the busy\n"
          "resources of `no_wait`. Raises Error when the wait fails (time limit,\n"
          "stopped) and ServiceError when the service refuses.")
      .def(
          "acquired",
          [](const std::shared_ptr<ZUSession>& s, const std::string& owner,
             const std::string& resource, int timeout, const Names& noWait) {
            wireTimeout(timeout);
            return Acquired{s, owner, resource, timeout, noWait, nullptr};
          },
          "owner"_a, "resource"_a, "timeout"_a = -1, "no_wait"_a = Names(),
          "A context manager: `with session.acquired(owner, \"Arms\", timeout=5):`\n"
          "acquires as acquire() does and gives back on leaving. Raises\n"
          "NotObtained, after giving back, when some were not obtained; on\n"
          "leaving, ServiceError when the resources were lost meanwhile.")
      .def("release", &ZUSession::release, "owner"_a, "resource"_a,
           py::call_guard<GilReleased>(), "Gives back what `owner` holds of `resource`.")
      .def("switch_owner", &ZUSession::switchOwner, "owner"_a, "resource"_a, "new_owner"_a,
           py::call_guard<GilReleased>(),
           "Makes `new_owner` (of this session) hold `resource`, which `owner` holds.")
      .def("set_state", &ZUSession::setState, "resource"_a, "active"_a,
           py::call_guard<GilReleased>(), "Activates or deactivates a state resource.")
      .def("close", &ZUSession::close, py::call_guard<GilReleased>(),
           "Ends the session; the service releases what its owners hold.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](ZUSession& s, py::args) {
        GilReleased nogil;
        s.close();
        return false;
      });
}

namespace {
py::error_already_set Acquired::notObtained(const Names& names) {
  py::module_ m = py::module_::import("zuresource");
  py::object type = m.attr("NotObtained");
  std::string text = "not obtained:";
  for (const auto& n : names) text += " " + n;
  py::object error = type(text);
  error.attr("module") = "zuresource";
  error.attr("method") = "acquired";
  error.attr("description") = text;
  error.attr("names") = names;
  PyErr_SetObject(type.ptr(), error.ptr());
  return py::error_already_set();
}
}  // namespace

}  // namespace zupy
