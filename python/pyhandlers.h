#pragma once

// Calls from the broker's task threads into Python, and the lifetimes that
// cross between Python and those threads.

#include <string>

#include <boost/shared_ptr.hpp>
#include <pybind11/pybind11.h>

#include <zuhost/zubroker.h>

namespace zupy {

/// Marks the interpreter as exiting: from then on no call enters Python from
/// a task thread, and the calls already inside it are waited for (with the
/// GIL let go), so that none of them meets a finalising interpreter.
/// Called once, from Python's atexit, with the GIL held.
void stopCallsIntoPython();

/// A module named `name` whose "__onResource__" calls `handler(resourceName)`
/// in the module's task thread, with the GIL taken for the call only. A
/// handler that raises has its exception printed as unraisable and dropped;
/// the module goes on. `handler` may be None: then the module offers no
/// method. The handle's deleter lets the GIL go while the module stops,
/// because stopping waits for a running call, which may wait for the GIL.
/// Called with the GIL held.
boost::shared_ptr<ZU::ZUModule> makeModule(const std::string& name, pybind11::object handler);

}  // namespace zupy
