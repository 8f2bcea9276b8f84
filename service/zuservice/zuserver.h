#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <zuservice/zuservicecontract.h>

namespace grpc {
class ServerBuilder;
}

namespace ZU {

class ZUManager;

namespace service {

struct ZUServerOptions {
  /// Where to listen: "unix:/path/to.sock", "unix-abstract:name" or
  /// "HOST:PORT" (port 0 picks a free one).
  std::string listen;
  /// A client that leaves the service's pings unanswered this long is given
  /// up and its session ends; also how long a new session stream may take to
  /// say hello.
  std::chrono::milliseconds keepalive{contract::kDefaultKeepaliveMs};
  /// Acquire calls run at once; one more is refused (RESOURCE_EXHAUSTED)
  /// until one ends, so that a crowd of clients cannot take every thread.
  std::size_t maxWaits = contract::kDefaultMaxWaits;
  /// Called with the server's builder before it starts: more services on
  /// the same socket (the benchmark's echo service), more channel arguments.
  std::function<void(grpc::ServerBuilder&)> extend;
};

/// The service's gRPC server: sessions (one manager module each), the calls
/// of the protocol turned into manager calls, and the watch streams. Every
/// blocking wait runs in a thread of its own, so waits never take the
/// threads that serve releases, reads and new sessions.
///
/// Thread safety: start() and stop() from one thread; the rest from any.
class ZUServer {
 public:
  /// `manager` must outlive the server.
  ZUServer(ZUManager& manager, ZUServerOptions options);
  /// stop() if not stopped.
  ~ZUServer();
  ZUServer(const ZUServer&) = delete;
  ZUServer& operator=(const ZUServer&) = delete;

  /// Listens and serves. Throws ZUError ("ZUServer", "start") when it cannot
  /// listen on the address.
  void start();
  /// The address it listens on, with the port it picked for port 0.
  std::string address() const;
  /// Ends every session and call with UNAVAILABLE ("the service is
  /// stopping"), closes every session's module (its owners are stopped),
  /// and stops listening. Returns once every call has ended.
  void stop();

  /// Sessions open now (said hello and not ended).
  std::size_t sessionCount() const;
  /// Acquire calls running now.
  std::size_t waitCount() const;

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace service
}  // namespace ZU
