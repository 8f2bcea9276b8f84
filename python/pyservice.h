#pragma once

// The Python client of the robot's resource service.

#include <pybind11/pybind11.h>

namespace zupy {

/// Adds ServiceClient, ServiceSession, ServiceAcquisition, ServiceAcquired,
/// ServiceError and default_service() to module `m`, whose Error and
/// NotObtained exist already. With the GIL held, from the module's init.
void registerService(pybind11::module_& m);

}  // namespace zupy
