#pragma once

// Telling the service manager how the service is doing: a datagram to the
// Unix socket named in $NOTIFY_SOCKET, as a unit of Type=notify expects.

#include <string>

namespace zuresourced {

/// Sends `state` ("READY=1", "STOPPING=1") to $NOTIFY_SOCKET; a name starting
/// with '@' is an abstract socket. Does nothing when the variable is unset,
/// and ignores a socket that is missing or does not take the datagram: the
/// service runs the same with or without a manager listening.
/// Thread safety: callable from any thread.
void notifyServiceManager(const std::string& state);

}  // namespace zuresourced
