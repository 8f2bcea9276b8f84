#include "zuservice/zuserver.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <system_error>
#include <thread>

#include <boost/make_shared.hpp>

#include <grpcpp/alarm.h>
#include <grpcpp/grpcpp.h>

#include <nlohmann/json.hpp>

#include <zuhost/zuerror.h>
#include <zuobserve/zujson.h>
#include <zuresource/zucontract.h>
#include <zuresource/zuexplain.h>
#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>
#include <zumanager/zumanager.h>

#include "zuprotocol/zuresource.grpc.pb.h"
#include "zuservice/zueventfeed.h"
#include "zuservice/zuservicecontract.h"
#include "zuservice/zuvaluejson.h"

namespace ZU {
namespace service {

namespace pb = zuresource::v1;

using grpc::StatusCode;

namespace {

/// A refusal: the status a call ends with.
struct Refusal {
  grpc::Status status;
};

[[noreturn]] void refuse(StatusCode code, const std::string& why) { throw Refusal{grpc::Status(code, why)}; }

void checkName(const char* what, const std::string& name) {
  const std::string problem = contract::nameProblem(what, name);
  if (!problem.empty()) refuse(StatusCode::INVALID_ARGUMENT, problem);
}

/// The status code a manager's refusal maps to.
StatusCode codeOf(ZUManagerError::Code code) {
  using Code = ZUManagerError::Code;
  switch (code) {
    case Code::EmptyName:
    case Code::BadArgument:
      return StatusCode::INVALID_ARGUMENT;
    case Code::UnknownResource:
    case Code::UnknownOwner:
      return StatusCode::NOT_FOUND;
    case Code::UnknownModule:
    case Code::NotAState:
      return StatusCode::FAILED_PRECONDITION;
    case Code::ModuleExists:
      return StatusCode::ALREADY_EXISTS;
    case Code::OtherModule:
    case Code::PermissionDenied:
      return StatusCode::PERMISSION_DENIED;
    case Code::Unauthenticated:
      return StatusCode::UNAUTHENTICATED;
  }
  return StatusCode::INVALID_ARGUMENT;
}

/// Runs `body`, turning refusals and errors into a status.
template <typename Body>
grpc::Status guarded(Body&& body) {
  try {
    body();
    return grpc::Status::OK;
  } catch (const Refusal& refusal) {
    return refusal.status;
  } catch (const ZUManagerError& error) {
    return grpc::Status(codeOf(error.code()), error.getDescription());
  } catch (const ZUError& error) {
    return grpc::Status(StatusCode::ABORTED, error.getDescription());
  } catch (const std::exception& error) {
    return grpc::Status(StatusCode::INTERNAL, error.what());
  }
}

std::string newSessionId() {
  static std::mutex mutex;
  static std::mt19937_64 random{std::random_device{}()};
  std::lock_guard<std::mutex> lock(mutex);
  char text[33];
  std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(random()),
                static_cast<unsigned long long>(random()));
  return text;
}

}  // namespace

class SessionReactor;
class WatchReactor;
class AcquireReactor;

/// One client's session: the module it opened, until its stream ends.
///
/// Thread safety: immutable but for `reactor`, guarded by `mutex`.
struct ClientSession {
  std::string id;
  std::string module;
  std::mutex mutex;
  std::weak_ptr<SessionReactor> reactor;  // guarded by mutex; empty once the session ended
};

class ZUServer::Impl final : public pb::ResourceService::CallbackService {
 public:
  Impl(ZUManager& manager, ZUServerOptions options)
      : manager_(manager), options_(std::move(options)) {}

  ZUManager& manager_;
  const ZUServerOptions options_;
  std::unique_ptr<grpc::Server> server_;
  std::string address_;
  boost::shared_ptr<ZUEventFeed> feed_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;  // a session closed, a wait or a closer ended
  // Guarded by mutex_.
  std::map<std::string, std::shared_ptr<ClientSession>> sessions_;  // by id
  std::set<std::string> closing_;  // modules being closed
  // Every session and watch stream not done, for stop() to end them.
  std::map<const void*, std::weak_ptr<SessionReactor>> streams_;
  std::map<const void*, std::weak_ptr<WatchReactor>> watches_;
  std::map<const void*, std::weak_ptr<AcquireReactor>> acquires_;  // waits running
  bool stopping_ = false;
  std::size_t waits_ = 0;    // acquire calls running
  std::size_t closers_ = 0;  // threads closing modules

  // --- Sessions. ---------------------------------------------------------

  /// Opens the module of a hello. Takes: mutex_ (not while opening).
  std::shared_ptr<ClientSession> open(const std::shared_ptr<SessionReactor>& reactor,
                                const std::string& module);
  /// Closes `module` in a thread of its own. Requires mutex_.
  void closeLocked(const std::string& module);
  /// Ends `session` (once): unregisters it and closes its module in a thread
  /// of its own. Takes: mutex_.
  void end(const std::shared_ptr<ClientSession>& session);
  /// A session or watch stream is done. Takes: mutex_.
  void streamDone(const void* reactor) {
    std::lock_guard<std::mutex> lock(mutex_);
    streams_.erase(reactor);
    watches_.erase(reactor);
  }

  /// The open session of id `id`, or a refusal. Takes: mutex_.
  std::shared_ptr<ClientSession> session(const std::string& id) const {
    checkName("session", id);
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) refuse(StatusCode::UNAVAILABLE, contract::kStopping);
    auto it = sessions_.find(id);
    if (it == sessions_.end()) {
      refuse(StatusCode::FAILED_PRECONDITION,
             "no session " + id + ": open a session stream and say hello first");
    }
    return it->second;
  }
  /// Checks that `owner` may be used by `session`: unknown yet, or one of
  /// its own. Returns whether it is known. Takes: the manager's mutex.
  bool checkOwner(const ClientSession& session, const std::string& owner) const {
    checkName("owner", owner);
    const std::string module = manager_.moduleOf(owner);
    if (!module.empty() && module != session.module) {
      refuse(StatusCode::PERMISSION_DENIED, "owner " + owner + " belongs to another session");
    }
    return !module.empty();
  }
  void checkResource(const std::string& resource) const {
    checkName("resource", resource);
    if (!manager_.hasResource(resource)) refuse(StatusCode::NOT_FOUND, "no resource " + resource);
  }

  // --- Calls. ------------------------------------------------------------

  grpc::ServerBidiReactor<pb::SessionRequest, pb::SessionEvent>* Session(
      grpc::CallbackServerContext* context) override;
  grpc::ServerWriteReactor<pb::AcquireReply>* Acquire(grpc::CallbackServerContext* context,
                                                      const pb::AcquireRequest* request) override;
  grpc::ServerWriteReactor<pb::WatchEvent>* Watch(grpc::CallbackServerContext* context,
                                                  const pb::WatchRequest* request) override;

  grpc::ServerUnaryReactor* Release(grpc::CallbackServerContext* context,
                                    const pb::ReleaseRequest* request,
                                    pb::ReleaseReply*) override {
    return answer(context, [&] {
      auto s = session(request->session());
      const bool known = checkOwner(*s, request->owner());
      checkResource(request->resource());
      if (!known) refuse(StatusCode::NOT_FOUND, "no owner " + request->owner());
      manager_.release(request->owner(), request->resource());
    });
  }

  grpc::ServerUnaryReactor* SwitchOwner(grpc::CallbackServerContext* context,
                                        const pb::SwitchOwnerRequest* request,
                                        pb::SwitchOwnerReply*) override {
    return answer(context, [&] {
      auto s = session(request->session());
      const bool known = checkOwner(*s, request->owner());
      checkOwner(*s, request->new_owner());
      checkResource(request->resource());
      if (!known) refuse(StatusCode::NOT_FOUND, "no owner " + request->owner());
      const auto holders = heldBy(request->resource(), request->owner());
      if (!holders) {
        refuse(StatusCode::FAILED_PRECONDITION,
               "owner " + request->owner() + " does not hold " + request->resource());
      }
      manager_.makeOwner(s->module, request->new_owner());
      manager_.switchOwner(request->new_owner(), request->resource());
    });
  }

  grpc::ServerUnaryReactor* SetState(grpc::CallbackServerContext* context,
                                     const pb::SetStateRequest* request,
                                     pb::SetStateReply*) override {
    return answer(context, [&] {
      session(request->session());
      checkResource(request->resource());
      if (request->active()) {
        manager_.setState(request->resource(), true);
      } else {
        manager_.releaseState(request->resource());
      }
    });
  }

  grpc::ServerUnaryReactor* Status(grpc::CallbackServerContext* context, const pb::StatusRequest*,
                                   pb::StatusReply* reply) override {
    return answer(context, [&] {
      reply->set_text(manager_.statusText());
      reply->set_values_json(valueJson(manager_.statusValues()).dump());
    });
  }

  grpc::ServerUnaryReactor* Snapshot(grpc::CallbackServerContext* context,
                                     const pb::SnapshotRequest*, pb::JsonReply* reply) override {
    return answer(context, [&] {
      reply->set_json(manager_.snapshotJson());
    });
  }

  grpc::ServerUnaryReactor* Explain(grpc::CallbackServerContext* context,
                                    const pb::ExplainRequest* request,
                                    pb::JsonReply* reply) override {
    return answer(context, [&] {
      checkName("owner", request->owner());
      checkResource(request->resource());
      const std::vector<std::string> noWait(request->no_wait().begin(), request->no_wait().end());
      for (const auto& name : noWait) checkName("no-wait name", name);
      const ZUExplanation answer = manager_.explain(request->owner(), request->resource(), noWait);
      reply->set_json(valueJson(answer.toValue()).dump());
      reply->set_text(answer.toString());
    });
  }

  /// Whether `owner` holds every leaf of `resource`.
  bool heldBy(const std::string& resource, const std::string& owner) const {
    for (const auto& leaf : manager_.leavesOf(resource)) {
      const auto holders = manager_.holdersOf(leaf);
      if (std::find(holders.begin(), holders.end(), owner) == holders.end()) return false;
    }
    return true;
  }

  template <typename Body>
  grpc::ServerUnaryReactor* answer(grpc::CallbackServerContext* context, Body&& body) {
    auto* reactor = context->DefaultReactor();
    reactor->Finish(guarded(body));
    return reactor;
  }

  void stop();
};

// --- A writer of a stream: messages queued, one write at a time. -----------

/// Queues messages and writes them one at a time; finishes once every queued
/// message is written (or a write failed). Lives while gRPC or anyone else
/// holds a handle: the reactor keeps a handle on itself until OnDone.
///
/// Thread safety: thread safe; its mutex is a leaf (gRPC is only asked to
/// start operations under it).
template <typename Base, typename Message, typename Derived>
class QueuedWriter : public Base, public std::enable_shared_from_this<Derived> {
 public:
  /// Queues `message`; false when the stream is finishing. Takes: mutex_.
  bool send(Message message) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (finishing_) return false;
    queue_.push_back(std::move(message));
    if (!writing_) startLocked();
    return true;
  }
  /// Finishes with `status` once the queue is written; only the first call
  /// counts. Takes: mutex_.
  void finish(grpc::Status status) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (finishing_) return;
    finishing_ = true;
    status_ = std::move(status);
    if (!writing_) finishLocked();
  }

 protected:
  /// Keeps the reactor until OnDone.
  void keep() { self_ = this->shared_from_this(); }
  void OnWriteDone(bool ok) override {
    bool drained = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      writing_ = false;
      queue_.pop_front();
      if (!ok) {
        broken_ = true;
        queue_.clear();
      }
      if (!queue_.empty()) {
        startLocked();
      } else if (finishing_) {
        finishLocked();
      } else {
        drained = ok;
      }
    }
    if (drained) onDrained();
  }
  /// Called with no lock held when every queued message is written.
  virtual void onDrained() {}
  /// Messages queued and not yet written. Takes: mutex_.
  std::size_t queued() {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.size();
  }
  /// Drops the reactor's handle on itself; call last in OnDone.
  void letGo() {
    std::shared_ptr<Derived> self;
    std::lock_guard<std::mutex> lock(mutex_);
    self.swap(self_);
  }
  std::mutex mutex_;

 private:
  void startLocked() {
    if (broken_) {
      queue_.clear();
      return;
    }
    writing_ = true;
    this->StartWrite(&queue_.front());
  }
  void finishLocked() {
    if (finished_) return;
    finished_ = true;
    this->Finish(status_);
  }

  // Guarded by mutex_.
  std::shared_ptr<Derived> self_;
  std::deque<Message> queue_;  // the front is being written while writing_
  bool writing_ = false;
  bool broken_ = false;
  bool finishing_ = false;
  bool finished_ = false;
  grpc::Status status_;
};

// --- The session stream. ----------------------------------------------------

class SessionReactor final
    : public QueuedWriter<grpc::ServerBidiReactor<pb::SessionRequest, pb::SessionEvent>,
                          pb::SessionEvent, SessionReactor> {
 public:
  explicit SessionReactor(ZUServer::Impl& impl) : impl_(impl) {}

  /// Reads the hello, and ends the stream if none comes in time.
  void begin() {
    keep();
    StartRead(&request_);
    std::weak_ptr<SessionReactor> weak = shared_from_this();
    alarm_.Set(std::chrono::system_clock::now() + impl_.options_.keepalive, [weak](bool fired) {
      auto reactor = weak.lock();
      if (fired && reactor) reactor->helloLate();
    });
  }

  void OnReadDone(bool ok) override {
    if (!ok) {  // the client closed its side, or the stream broke
      endSession();
      finish(grpc::Status::OK);
      return;
    }
    if (hello_) {
      endSession();
      finish(grpc::Status(StatusCode::INVALID_ARGUMENT, "a session says hello once, and only that"));
      return;
    }
    hello_ = true;
    if (!request_.has_hello()) {
      finish(grpc::Status(StatusCode::INVALID_ARGUMENT, contract::kNoHello));
      return;
    }
    const auto status = guarded([&] {
      checkName("module", request_.hello().module());
      auto session = impl_.open(shared_from_this(), request_.hello().module());
      {
        std::lock_guard<std::mutex> lock(mutex_);
        session_ = session;
      }
      pb::SessionEvent welcome;
      welcome.mutable_welcome()->set_session(session->id);
      welcome.mutable_welcome()->set_keepalive_ms(
          static_cast<std::uint32_t>(impl_.options_.keepalive.count()));
      send(std::move(welcome));
    });
    if (!status.ok()) {
      finish(status);
      return;
    }
    StartRead(&request_);
  }

  void OnCancel() override {
    endSession();
    finish(grpc::Status::CANCELLED);
  }

  void OnDone() override {
    alarm_.Cancel();
    endSession();
    impl_.streamDone(this);
    letGo();
  }

  /// Ends the stream when it said no hello yet.
  void helloLate() {
    if (!saidHello()) finish(grpc::Status(StatusCode::DEADLINE_EXCEEDED, contract::kNoHello));
  }

  /// Ends the session, if it began; the stream goes on to its finish.
  void endSession() {
    std::shared_ptr<ClientSession> session;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      session.swap(session_);
      ended_ = true;
    }
    if (session) impl_.end(session);
  }

 private:
  bool saidHello() {
    std::lock_guard<std::mutex> lock(mutex_);
    return session_ != nullptr || ended_;
  }

  ZUServer::Impl& impl_;
  pb::SessionRequest request_;  // the reads'; read one at a time
  bool hello_ = false;          // the reads': a hello (or something else) came
  grpc::Alarm alarm_;
  // Guarded by mutex_.
  std::shared_ptr<ClientSession> session_;
  bool ended_ = false;
};

std::shared_ptr<ClientSession> ZUServer::Impl::open(const std::shared_ptr<SessionReactor>& reactor,
                                              const std::string& module) {
  auto session = std::make_shared<ClientSession>();
  session->id = newSessionId();
  session->module = module;
  session->reactor = reactor;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_) refuse(StatusCode::UNAVAILABLE, contract::kStopping);
    // A client that comes back at once may find its old session still closing.
    changed_.wait_for(lock, options_.keepalive, [&] { return closing_.count(module) == 0; });
  }
  std::weak_ptr<ClientSession> weak = session;
  manager_.openModule(module, [weak](const ZUNotice& notice) {
    auto s = weak.lock();
    if (!s) return;
    std::shared_ptr<SessionReactor> stream;
    {
      std::lock_guard<std::mutex> lock(s->mutex);
      stream = s->reactor.lock();
    }
    if (!stream) return;
    pb::SessionEvent event;
    if (notice.kind == ZUNotice::Kind::Lost) {
      auto* lost = event.mutable_lost();
      lost->set_resource(notice.resource);
      lost->set_owner(notice.owner);
      lost->set_by(notice.by);
      lost->set_reason(notice.reason);
    } else {
      auto* wanted = event.mutable_wanted();
      wanted->set_resource(notice.resource);
      wanted->set_owner(notice.owner);
    }
    stream->send(std::move(event));
  });
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_) {
    // stop() has taken its list of sessions: this one is closed here.
    closeLocked(module);
    refuse(StatusCode::UNAVAILABLE, contract::kStopping);
  }
  sessions_[session->id] = session;
  return session;
}

void ZUServer::Impl::closeLocked(const std::string& module) {
  closing_.insert(module);
  ++closers_;
  // Closing waits for the module's requests to end, up to a polling period:
  // not in a thread that serves calls.
  std::thread([this, module] {
    manager_.closeModule(module);
    std::lock_guard<std::mutex> lock(mutex_);
    closing_.erase(module);
    --closers_;
    changed_.notify_all();
  }).detach();
}

void ZUServer::Impl::end(const std::shared_ptr<ClientSession>& session) {
  {
    std::lock_guard<std::mutex> lock(session->mutex);
    session->reactor.reset();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (sessions_.erase(session->id) == 0) return;
  closeLocked(session->module);
}

grpc::ServerBidiReactor<pb::SessionRequest, pb::SessionEvent>* ZUServer::Impl::Session(
    grpc::CallbackServerContext*) {
  auto reactor = std::make_shared<SessionReactor>(*this);
  reactor->begin();
  bool stopping;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping = stopping_;
    if (!stopping) streams_[reactor.get()] = reactor;
  }
  if (stopping) reactor->finish(grpc::Status(StatusCode::UNAVAILABLE, contract::kStopping));
  return reactor.get();
}

// --- Acquire. ----------------------------------------------------------------

/// One acquire call: its wait runs in a thread of its own; its reports are
/// written as they come.
class AcquireReactor final
    : public QueuedWriter<grpc::ServerWriteReactor<pb::AcquireReply>, pb::AcquireReply,
                          AcquireReactor> {
 public:
  explicit AcquireReactor(ZUServer::Impl& impl) : impl_(impl) {}

  void begin(const pb::AcquireRequest& request) {
    keep();
    ZUAcquireRequest call;
    std::string module;
    const grpc::Status status = guarded([&] {
      auto session = impl_.session(request.session());
      impl_.checkOwner(*session, request.owner());
      impl_.checkResource(request.resource());
      const std::string late = contract::timeoutProblem(request.timeout_seconds());
      if (!late.empty()) refuse(StatusCode::INVALID_ARGUMENT, late);
      for (const auto& name : request.no_wait()) checkName("no-wait name", name);
      call.owner = request.owner();
      call.resource = request.resource();
      call.timeoutSeconds = request.timeout_seconds() == 0 ? -1 : request.timeout_seconds();
      call.noWait.assign(request.no_wait().begin(), request.no_wait().end());
      module = session->module;
      std::lock_guard<std::mutex> lock(impl_.mutex_);
      if (impl_.stopping_) refuse(StatusCode::UNAVAILABLE, contract::kStopping);
      if (impl_.waits_ >= impl_.options_.maxWaits)
        refuse(StatusCode::RESOURCE_EXHAUSTED, contract::kTooManyWaits);
      ++impl_.waits_;
      impl_.acquires_[this] = shared_from_this();
    });
    if (!status.ok()) {
      finish(status);
      return;
    }
    // Every wait in a thread of its own: no pool that waits could fill.
    try {
      std::thread([self = shared_from_this(), call = std::move(call), module = std::move(module)] {
        self->run(call, module);
      }).detach();
    } catch (const std::system_error&) {
      finish(grpc::Status(StatusCode::RESOURCE_EXHAUSTED, contract::kTooManyWaits));
      ended();
    }
  }

  void OnCancel() override { cancel_.cancel(); }
  void OnDone() override { letGo(); }
  /// Stops the wait: the service is stopping.
  void stop() { cancel_.cancel(); }

 private:
  void run(const ZUAcquireRequest& call, const std::string& module) {
    const grpc::Status status = guarded([&] {
      impl_.manager_.makeOwner(module, call.owner);
      const ZUAcquireResult result = impl_.manager_.acquire(
          call,
          [this](const ZUWaitReport& wait) {
            pb::AcquireReply reply;
            reply.mutable_waiting()->set_resource(wait.resource);
            reply.mutable_waiting()->set_behind(wait.holder);
            send(std::move(reply));
          },
          &cancel_);
      {
        // A stopping service releases everything: what a wait got meanwhile
        // is no grant.
        std::lock_guard<std::mutex> lock(impl_.mutex_);
        if (impl_.stopping_) refuse(StatusCode::UNAVAILABLE, contract::kStopping);
      }
      pb::AcquireReply reply;
      switch (result.kind) {
        case ZUAcquireResult::Kind::Granted:
          reply.mutable_granted();
          break;
        case ZUAcquireResult::Kind::NotObtained:
          for (const auto& name : result.notObtained) reply.mutable_not_obtained()->add_names(name);
          break;
        case ZUAcquireResult::Kind::Failed: {
          auto* failed = reply.mutable_failed();
          failed->set_module(ZU::contract::kWaitErrorModule);
          failed->set_method(ZU::contract::kWaitErrorMethod);
          failed->set_description(result.error);
          break;
        }
      }
      send(std::move(reply));
    });
    finish(status);
    ended();
  }

  /// The call counts no more among the running ones.
  void ended() {
    std::lock_guard<std::mutex> lock(impl_.mutex_);
    --impl_.waits_;
    impl_.acquires_.erase(this);
    impl_.changed_.notify_all();
  }

  ZUServer::Impl& impl_;
  ZUAcquireCancel cancel_;
};

grpc::ServerWriteReactor<pb::AcquireReply>* ZUServer::Impl::Acquire(
    grpc::CallbackServerContext*, const pb::AcquireRequest* request) {
  auto reactor = std::make_shared<AcquireReactor>(*this);
  reactor->begin(*request);
  return reactor.get();
}

// --- Watch. ------------------------------------------------------------------

/// One watch stream: the feed's lines from a sequence number on, written as
/// they arrive.
class WatchReactor final
    : public QueuedWriter<grpc::ServerWriteReactor<pb::WatchEvent>, pb::WatchEvent, WatchReactor> {
 public:
  explicit WatchReactor(ZUServer::Impl& impl) : impl_(impl), feed_(impl.feed_) {}

  void begin(std::uint64_t from) {
    keep();
    {
      std::lock_guard<std::mutex> lock(pumpMutex_);
      next_ = from == 0 ? feed_->next() : from;
    }
    std::weak_ptr<WatchReactor> weak = shared_from_this();
    subscription_ = feed_->subscribe([weak] {
      if (auto reactor = weak.lock()) reactor->pump();
    });
    pump();
  }
  void OnCancel() override { finish(grpc::Status::CANCELLED); }
  void OnDone() override {
    feed_->unsubscribe(subscription_);
    impl_.streamDone(this);
    letGo();
  }

 private:
  static constexpr std::size_t kBatch = 256;
  /// Queues what arrived since the last pump. Takes: pumpMutex_, then the
  /// feed's mutex and the writer's, one after the other.
  /// A batch at a time, the next once it is written: a slow watcher holds
  /// two batches at most, and falls behind the feed rather than grow.
  void pump() {
    std::lock_guard<std::mutex> lock(pumpMutex_);
    if (queued() >= kBatch) return;
    for (const auto& line : feed_->since(next_, kBatch)) {
      pb::WatchEvent event;
      event.set_sequence(line.sequence);
      event.set_json(line.json);
      next_ = line.sequence + 1;
      if (!send(std::move(event))) return;
    }
  }
  void onDrained() override { pump(); }

  ZUServer::Impl& impl_;
  const boost::shared_ptr<ZUEventFeed> feed_;
  std::mutex pumpMutex_;
  std::uint64_t next_ = 0;  // guarded by pumpMutex_
  std::uint64_t subscription_ = 0;  // set in begin()
};

grpc::ServerWriteReactor<pb::WatchEvent>* ZUServer::Impl::Watch(grpc::CallbackServerContext*,
                                                                const pb::WatchRequest* request) {
  auto reactor = std::make_shared<WatchReactor>(*this);
  reactor->begin(request->from_sequence());
  bool stopping;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping = stopping_;
    if (!stopping) watches_[reactor.get()] = reactor;
  }
  if (stopping) reactor->finish(grpc::Status(StatusCode::UNAVAILABLE, contract::kStopping));
  return reactor.get();
}

// --- Stopping. ---------------------------------------------------------------

void ZUServer::Impl::stop() {
  std::vector<std::shared_ptr<ClientSession>> sessions;
  std::vector<std::shared_ptr<SessionReactor>> streams;
  std::vector<std::shared_ptr<WatchReactor>> watches;
  std::vector<std::shared_ptr<AcquireReactor>> acquires;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    for (const auto& entry : acquires_) {
      if (auto acquire = entry.second.lock()) acquires.push_back(acquire);
    }
    for (const auto& entry : sessions_) sessions.push_back(entry.second);
    for (const auto& entry : streams_) {
      if (auto stream = entry.second.lock()) streams.push_back(stream);
    }
    for (const auto& entry : watches_) {
      if (auto watch = entry.second.lock()) watches.push_back(watch);
    }
  }
  // Clients see the status first; then their modules close, and their waits
  // end with "box stop while waiting".
  for (const auto& stream : streams) stream->finish(grpc::Status(StatusCode::UNAVAILABLE, contract::kStopping));
  for (const auto& watch : watches) watch->finish(grpc::Status(StatusCode::UNAVAILABLE, contract::kStopping));
  // Every wait stops before any module closes: a release of one closing
  // module is granted to no wait of another.
  for (const auto& acquire : acquires) acquire->stop();
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return waits_ == 0; });
  }
  for (const auto& session : sessions) end(session);
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return closers_ == 0 && waits_ == 0; });
  }
  server_->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
  server_->Wait();
}

// --- The server. -------------------------------------------------------------

ZUServer::ZUServer(ZUManager& manager, ZUServerOptions options)
    : impl_(std::make_unique<Impl>(manager, std::move(options))) {}

ZUServer::~ZUServer() { stop(); }

void ZUServer::start() {
  impl_->feed_ = boost::make_shared<ZUEventFeed>(impl_->manager_.start());
  ZUObservers::add(impl_->feed_);
  grpc::ServerBuilder builder;
  const int keepalive = static_cast<int>(std::max<long long>(impl_->options_.keepalive.count(), 2));
  // Pings every half keepalive, each given half a keepalive to be answered:
  // a frozen client is given up between one and one and a half keepalives
  // after it stopped answering.
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, keepalive / 2);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, keepalive / 2);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 100);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PING_STRIKES, 0);
  int port = 0;
  builder.AddListeningPort(impl_->options_.listen, grpc::InsecureServerCredentials(), &port);
  builder.RegisterService(impl_.get());
  if (impl_->options_.extend) impl_->options_.extend(builder);
  impl_->server_ = builder.BuildAndStart();
  if (!impl_->server_) {
    ZUObservers::remove(impl_->feed_);
    throw ZUError("ZUServer", "start", "cannot listen on " + impl_->options_.listen, __FILE__,
                  __LINE__);
  }
  impl_->address_ = impl_->options_.listen;
  // gRPC says port 1 for a Unix socket: only a TCP address has a port to fill in.
  if (port > 0 && impl_->address_.rfind("unix:", 0) != 0) {
    const auto colon = impl_->address_.rfind(':');
    impl_->address_ = impl_->address_.substr(0, colon + 1) + std::to_string(port);
  }
}

std::string ZUServer::address() const { return impl_->address_; }

void ZUServer::stop() {
  if (!impl_->server_) return;
  impl_->stop();
  ZUObservers::remove(impl_->feed_);
  impl_->server_.reset();
}

std::size_t ZUServer::sessionCount() const {
  std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->sessions_.size();
}

std::size_t ZUServer::waitCount() const {
  std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->waits_;
}

}  // namespace service
}  // namespace ZU
