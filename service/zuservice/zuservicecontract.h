#pragma once

// What clients of the service rely on: limits of requests and the texts of
// refusals. Named here once; the server, the clients and docs/service.md use
// them by name.

#include <cstddef>
#include <cstdint>
#include <string>

namespace ZU {
namespace service {
namespace contract {

/// The longest name (module, owner, resource) a request may carry, in bytes.
inline constexpr std::size_t kMaxNameBytes = 1024;
/// The longest wait a request may ask for, in seconds (one day); 0 asks for
/// no limit of its own.
inline constexpr std::int32_t kMaxTimeoutSeconds = 86400;
/// The keepalive time by default: a client that leaves the service's pings
/// unanswered this long is given up.
inline constexpr std::uint32_t kDefaultKeepaliveMs = 2000;
/// How many acquire calls the service runs at once by default; each has a
/// thread of its own while it runs.
inline constexpr std::uint32_t kDefaultMaxWaits = 1000;

/// The status message of every session and call ended because the service
/// stops.
inline constexpr char kStopping[] = "the service is stopping";
/// The status message of a session stream that said no hello in time.
inline constexpr char kNoHello[] = "no hello: a session stream must open with a hello";
/// The status message of an acquire call refused because the service runs
/// as many as it may (or the system gives it no thread for one more).
inline constexpr char kTooManyWaits[] = "too many acquire calls at once: try again when one has ended";

/// "<what> is empty" or "<what> is longer than 1024 bytes (<n>)", or empty when
/// `name` is acceptable.
std::string nameProblem(const char* what, const std::string& name);

/// "timeout_seconds must be 0 (no limit) to 86400, not <n>", or empty when
/// `seconds` is an acceptable time limit of a request.
std::string timeoutProblem(std::int64_t seconds);

}  // namespace contract
}  // namespace service
}  // namespace ZU
