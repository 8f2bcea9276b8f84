#pragma once

// The C++ client of the robot's resource service (zuresourced): a session
// that stands for this process, RAII acquisitions, and the reads.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <grpcpp/grpcpp.h>

namespace ZU {
namespace client {

/// Where the service listens by default: "unix:" + $XDG_RUNTIME_DIR +
/// "/zuresource.sock", or "unix:/run/zuresource/zuresource.sock" for root or
/// without XDG_RUNTIME_DIR; $ZURESOURCE_SERVICE, when set, wins.
std::string defaultTarget();

/// A call the service refused or could not answer: its gRPC status code and
/// the reason in words.
///
/// Thread safety: immutable.
class ZUServiceError : public std::runtime_error {
 public:
  explicit ZUServiceError(const grpc::Status& status);
  grpc::StatusCode code() const { return code_; }
  const std::string& reason() const { return reason_; }
  /// The code's name, as "NOT_FOUND".
  static const char* codeName(grpc::StatusCode code);

 private:
  grpc::StatusCode code_;
  std::string reason_;
};

/// A wait that ended with the library's error ("box stop while waiting",
/// "resource wait has timeouted on Arms"), as the in-process library throws it.
///
/// Thread safety: immutable.
class ZUWaitError : public std::runtime_error {
 public:
  ZUWaitError(std::string module, std::string method, std::string description);
  const std::string& module() const { return module_; }
  const std::string& method() const { return method_; }
  const std::string& description() const { return description_; }

 private:
  std::string module_, method_, description_;
};

/// Stops an acquire in progress from another thread.
///
/// Thread safety: thread safe.
class ZUCancel {
 public:
  /// The wait ends: the acquire throws ZUServiceError (CANCELLED).
  void cancel();
  bool cancelled() const { return cancelled_.load(); }

 private:
  friend class ZUSession;
  void attach(grpc::ClientContext* context);
  void detach();
  std::mutex mutex_;
  grpc::ClientContext* context_ = nullptr;  // guarded by mutex_
  std::atomic<bool> cancelled_{false};
};

/// The reads of the service, with no session: status, snapshot, explain,
/// watch.
///
/// Thread safety: thread safe.
class ZUClient {
 public:
  /// Connects lazily to `target` ("unix:/path", "HOST:PORT").
  explicit ZUClient(const std::string& target = defaultTarget());
  ~ZUClient();
  ZUClient(const ZUClient&) = delete;
  ZUClient& operator=(const ZUClient&) = delete;

  /// Every root's status lines. Throws ZUServiceError.
  std::string status();
  /// Every root's status value, as a JSON array.
  std::string statusValuesJson();
  /// The snapshot, as a JSON object in the recording's form.
  std::string snapshotJson();
  /// What an acquire of `owner` for `resource` would do now: {JSON, text}.
  std::pair<std::string, std::string> explain(const std::string& owner,
                                              const std::string& resource,
                                              const std::vector<std::string>& noWait = {});
  /// Calls `onEvent(sequence, json)` for each event from `fromSequence` on
  /// (0: from now), until it returns false or the stream ends. Returns the
  /// stream's status (OK after `onEvent` said stop).
  grpc::Status watch(std::uint64_t fromSequence,
                     const std::function<bool(std::uint64_t, const std::string&)>& onEvent);

  const std::string& target() const { return target_; }

  struct Impl;

 protected:
  std::shared_ptr<Impl> impl_;  // shared with the acquisitions
  const std::string target_;
};

class ZUSession;

/// Resources held through the service; released when it goes out of scope.
/// It may outlive its session (it is lost then).
///
/// Thread safety: one thread at a time; lost() from any thread.
class ZUAcquisition {
 public:
  ZUAcquisition() = default;
  ZUAcquisition(ZUAcquisition&&) noexcept;
  ZUAcquisition& operator=(ZUAcquisition&&) noexcept;
  /// release(), errors dropped.
  ~ZUAcquisition();

  /// Whether it holds something (not released, not empty).
  bool active() const { return state_ != nullptr; }
  /// The busy members of the no-wait list, which it does not hold.
  const std::vector<std::string>& notObtained() const { return notObtained_; }
  /// Whether the resources were lost while held: the session ended (the
  /// service stopped, or gave this client up) or a lost notice came.
  bool lost() const;
  /// Why, when lost() ("the service is stopping", ...).
  std::string lostReason() const;
  /// Gives the resources back. Throws ZUServiceError when lost (the
  /// resources went already) or when the service refuses.
  void release();

  /// Lets the acquisition go without releasing: the resources stay held
  /// until released by name (ZUSession::release) or the session ends.
  void detach();

  const std::string& owner() const;
  const std::string& resource() const;

  struct State;

 private:
  friend class ZUSession;
  ZUAcquisition(std::shared_ptr<State> state, std::vector<std::string> notObtained);

  std::shared_ptr<State> state_;
  std::vector<std::string> notObtained_;
};

/// This process's session: a module of the service, whose owners hold and
/// wait. Opening it says hello; destroying it ends it, and the service
/// releases everything its owners hold.
///
/// Thread safety: thread safe. Handlers run in the session's reader thread,
/// one at a time, with no lock of the session held; they may call the
/// session.
class ZUSession : public ZUClient {
 public:
  struct Handlers {
    /// Another owner wants `resource`, held by this session's `owner`.
    std::function<void(const std::string& resource, const std::string& owner)> onWanted;
    /// `resource` was taken from `owner` by `by` for `reason`.
    std::function<void(const std::string& resource, const std::string& owner,
                       const std::string& by, const std::string& reason)>
        onLost;
    /// The session ended (the service stopped or gave this client up).
    std::function<void(const grpc::Status& status)> onEnded;
  };

  /// Connects to `target`, opens module `module` and waits for the welcome,
  /// up to `connectTimeout`. Throws ZUServiceError (UNAVAILABLE when the
  /// service cannot be reached, ALREADY_EXISTS when another session has the
  /// module open, INVALID_ARGUMENT for a bad name).
  ZUSession(const std::string& module, Handlers handlers = Handlers(),
            const std::string& target = defaultTarget(),
            std::chrono::milliseconds connectTimeout = std::chrono::seconds(5));
  /// close().
  ~ZUSession();

  /// Ends the session: the service stops its owners' waits and releases
  /// what they hold. Calls made afterwards are refused; destroy the session
  /// only once no call of it runs. Waits for the handlers to end (unless
  /// called from one).
  void close();

  const std::string& id() const { return id_; }
  const std::string& module() const { return module_; }
  /// Whether the session is open (not ended by the service or the stream).
  bool alive() const;
  /// How it ended; OK while alive.
  grpc::Status endStatus() const;

  /// Asks for `resource` for `owner`, waiting up to `timeoutSeconds` (0: no
  /// limit). `onWaiting(resource, holder)` is called each time the request
  /// starts waiting behind a holder. Throws ZUWaitError when the wait fails
  /// (time limit passed, stopped), ZUServiceError when refused or cancelled.
  ZUAcquisition acquire(const std::string& owner, const std::string& resource,
                        int timeoutSeconds = 0, const std::vector<std::string>& noWait = {},
                        const std::function<void(const std::string&, const std::string&)>&
                            onWaiting = {},
                        ZUCancel* cancel = nullptr);
  /// Gives back what `owner` holds of `resource` (not tracked by any
  /// acquisition of this process). Throws ZUServiceError.
  void release(const std::string& owner, const std::string& resource);
  /// Makes `newOwner` (of this session) hold `resource`, which `owner` holds.
  void switchOwner(const std::string& owner, const std::string& resource,
                   const std::string& newOwner);
  /// Activates or deactivates a state resource.
  void setState(const std::string& resource, bool active);

 private:
  void read();
  /// Marks lost the acquisitions of `owner` holding `resource` (every one
  /// when `owner` is empty). Takes: mutex_, then each state's mutex.
  void markLost(const std::string& owner, const std::string& resource, const std::string& reason);

  struct Stream;
  const std::string module_;
  const Handlers handlers_;
  std::string id_;  // immutable after construction
  std::unique_ptr<Stream> stream_;
  std::thread reader_;
  std::once_flag closed_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  bool alive_ = true;
  grpc::Status endStatus_;
  std::vector<std::weak_ptr<ZUAcquisition::State>> acquisitions_;
};

}  // namespace client
}  // namespace ZU
