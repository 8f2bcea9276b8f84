#include "zuclient/zuclient.h"

#include <condition_variable>
#include <cstdlib>

#include <unistd.h>

#include "zuprotocol/zuresource.grpc.pb.h"

namespace ZU {
namespace client {

namespace pb = zuresource::v1;

std::string defaultTarget() {
  if (const char* target = std::getenv("ZURESOURCE_SERVICE"); target && *target) return target;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (geteuid() != 0 && runtime && *runtime) {
    return std::string("unix:") + runtime + "/zuresource.sock";
  }
  return "unix:/run/zuresource/zuresource.sock";
}

// --- Errors. -----------------------------------------------------------------

const char* ZUServiceError::codeName(grpc::StatusCode code) {
  switch (code) {
    case grpc::StatusCode::OK: return "OK";
    case grpc::StatusCode::CANCELLED: return "CANCELLED";
    case grpc::StatusCode::UNKNOWN: return "UNKNOWN";
    case grpc::StatusCode::INVALID_ARGUMENT: return "INVALID_ARGUMENT";
    case grpc::StatusCode::DEADLINE_EXCEEDED: return "DEADLINE_EXCEEDED";
    case grpc::StatusCode::NOT_FOUND: return "NOT_FOUND";
    case grpc::StatusCode::ALREADY_EXISTS: return "ALREADY_EXISTS";
    case grpc::StatusCode::PERMISSION_DENIED: return "PERMISSION_DENIED";
    case grpc::StatusCode::RESOURCE_EXHAUSTED: return "RESOURCE_EXHAUSTED";
    case grpc::StatusCode::FAILED_PRECONDITION: return "FAILED_PRECONDITION";
    case grpc::StatusCode::ABORTED: return "ABORTED";
    case grpc::StatusCode::OUT_OF_RANGE: return "OUT_OF_RANGE";
    case grpc::StatusCode::UNIMPLEMENTED: return "UNIMPLEMENTED";
    case grpc::StatusCode::INTERNAL: return "INTERNAL";
    case grpc::StatusCode::UNAVAILABLE: return "UNAVAILABLE";
    case grpc::StatusCode::DATA_LOSS: return "DATA_LOSS";
    case grpc::StatusCode::UNAUTHENTICATED: return "UNAUTHENTICATED";
    default: return "?";
  }
}

ZUServiceError::ZUServiceError(const grpc::Status& status)
    : std::runtime_error(std::string(codeName(status.error_code())) + ": " + status.error_message()),
      code_(status.error_code()),
      reason_(status.error_message()) {}

ZUWaitError::ZUWaitError(std::string module, std::string method, std::string description)
    : std::runtime_error(module + "::" + method + ": " + description),
      module_(std::move(module)),
      method_(std::move(method)),
      description_(std::move(description)) {}

namespace {
void check(const grpc::Status& status) {
  if (!status.ok()) throw ZUServiceError(status);
}
}  // namespace

void ZUCancel::cancel() {
  std::lock_guard<std::mutex> lock(mutex_);
  cancelled_ = true;
  if (context_) context_->TryCancel();
}

void ZUCancel::attach(grpc::ClientContext* context) {
  std::lock_guard<std::mutex> lock(mutex_);
  context_ = context;
  if (cancelled_) context->TryCancel();
}

void ZUCancel::detach() {
  std::lock_guard<std::mutex> lock(mutex_);
  context_ = nullptr;
}

// --- Reads. ------------------------------------------------------------------

struct ZUClient::Impl {
  std::shared_ptr<grpc::Channel> channel;
  std::unique_ptr<pb::ResourceService::Stub> stub;
};

ZUClient::ZUClient(const std::string& target) : impl_(std::make_shared<Impl>()), target_(target) {
  grpc::ChannelArguments arguments;
  // The service pings often to find frozen clients; answering is all it takes.
  arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  impl_->channel = grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
  impl_->stub = pb::ResourceService::NewStub(impl_->channel);
}

ZUClient::~ZUClient() = default;

namespace {
/// The service's Status reply: its text and its values together.
pb::StatusReply statusReply(ZUClient::Impl& impl) {
  grpc::ClientContext context;
  pb::StatusReply reply;
  check(impl.stub->Status(&context, pb::StatusRequest(), &reply));
  return reply;
}
}  // namespace

std::string ZUClient::status() { return statusReply(*impl_).text(); }

std::string ZUClient::statusValuesJson() { return statusReply(*impl_).values_json(); }

std::string ZUClient::snapshotJson() {
  grpc::ClientContext context;
  pb::JsonReply reply;
  check(impl_->stub->Snapshot(&context, pb::SnapshotRequest(), &reply));
  return reply.json();
}

std::pair<std::string, std::string> ZUClient::explain(const std::string& owner,
                                                      const std::string& resource,
                                                      const std::vector<std::string>& noWait) {
  grpc::ClientContext context;
  pb::ExplainRequest request;
  request.set_owner(owner);
  request.set_resource(resource);
  for (const auto& name : noWait) request.add_no_wait(name);
  pb::JsonReply reply;
  check(impl_->stub->Explain(&context, request, &reply));
  return {reply.json(), reply.text()};
}

grpc::Status ZUClient::watch(std::uint64_t fromSequence,
                             const std::function<bool(std::uint64_t, const std::string&)>& onEvent) {
  grpc::ClientContext context;
  pb::WatchRequest request;
  request.set_from_sequence(fromSequence);
  auto reader = impl_->stub->Watch(&context, request);
  pb::WatchEvent event;
  while (reader->Read(&event)) {
    if (!onEvent(event.sequence(), event.json())) {
      context.TryCancel();
      while (reader->Read(&event)) {
      }
      reader->Finish();
      return grpc::Status::OK;
    }
  }
  return reader->Finish();
}

// --- Acquisitions. -----------------------------------------------------------

struct ZUAcquisition::State {
  std::shared_ptr<ZUClient::Impl> client;
  std::string session;
  std::string owner;
  std::string resource;
  std::mutex mutex;
  bool lost = false;   // guarded by mutex
  std::string reason;  // guarded by mutex
};

ZUAcquisition::ZUAcquisition(std::shared_ptr<State> state, std::vector<std::string> notObtained)
    : state_(std::move(state)), notObtained_(std::move(notObtained)) {}

ZUAcquisition::ZUAcquisition(ZUAcquisition&& other) noexcept = default;

ZUAcquisition& ZUAcquisition::operator=(ZUAcquisition&& other) noexcept {
  if (this != &other) {
    try {
      if (state_ && !lost()) release();
    } catch (...) {
    }
    state_ = std::move(other.state_);
    notObtained_ = std::move(other.notObtained_);
  }
  return *this;
}

ZUAcquisition::~ZUAcquisition() {
  try {
    if (state_ && !lost()) release();
  } catch (...) {
  }
}

bool ZUAcquisition::lost() const {
  if (!state_) return false;
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->lost;
}

std::string ZUAcquisition::lostReason() const {
  if (!state_) return {};
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->reason;
}

const std::string& ZUAcquisition::owner() const {
  static const std::string none;
  return state_ ? state_->owner : none;
}

const std::string& ZUAcquisition::resource() const {
  static const std::string none;
  return state_ ? state_->resource : none;
}

void ZUAcquisition::detach() { state_.reset(); }

void ZUAcquisition::release() {
  if (!state_) return;
  std::shared_ptr<State> state = std::move(state_);
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->lost) {
      throw ZUServiceError(grpc::Status(grpc::StatusCode::ABORTED,
                                        state->owner + " lost " + state->resource + ": " +
                                            state->reason));
    }
  }
  grpc::ClientContext context;
  pb::ReleaseRequest request;
  request.set_session(state->session);
  request.set_owner(state->owner);
  request.set_resource(state->resource);
  pb::ReleaseReply reply;
  check(state->client->stub->Release(&context, request, &reply));
}

// --- The session. ------------------------------------------------------------

struct ZUSession::Stream {
  grpc::ClientContext context;
  std::unique_ptr<grpc::ClientReaderWriter<pb::SessionRequest, pb::SessionEvent>> stream;
};

ZUSession::ZUSession(const std::string& module, Handlers handlers, const std::string& target,
                     std::chrono::milliseconds connectTimeout)
    : ZUClient(target), module_(module), handlers_(std::move(handlers)),
      stream_(std::make_unique<Stream>()) {
  const auto deadline = std::chrono::system_clock::now() + connectTimeout;
  if (!impl_->channel->WaitForConnected(deadline)) {
    throw ZUServiceError(grpc::Status(grpc::StatusCode::UNAVAILABLE, "cannot reach " + target));
  }
  stream_->stream = impl_->stub->Session(&stream_->context);
  pb::SessionRequest hello;
  hello.mutable_hello()->set_module(module);
  pb::SessionEvent welcome;
  const bool answered = stream_->stream->Write(hello) && stream_->stream->Read(&welcome);
  if (!answered || !welcome.has_welcome()) {
    if (answered) stream_->context.TryCancel();  // something else than a welcome
    grpc::Status status = stream_->stream->Finish();
    if (status.ok()) status = grpc::Status(grpc::StatusCode::UNKNOWN, "no welcome");
    throw ZUServiceError(status);
  }
  id_ = welcome.welcome().session();
  reader_ = std::thread([this] { read(); });
}

ZUSession::~ZUSession() { close(); }

void ZUSession::close() {
  std::call_once(closed_, [this] {
    stream_->context.TryCancel();
    if (reader_.get_id() == std::this_thread::get_id()) {
      reader_.detach();
    } else {
      reader_.join();
    }
  });
}

bool ZUSession::alive() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return alive_;
}

grpc::Status ZUSession::endStatus() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return endStatus_;
}

void ZUSession::read() {
  pb::SessionEvent event;
  while (stream_->stream->Read(&event)) {
    if (event.has_wanted()) {
      if (handlers_.onWanted) handlers_.onWanted(event.wanted().resource(), event.wanted().owner());
    } else if (event.has_lost()) {
      const auto& lost = event.lost();
      markLost(lost.owner(), lost.resource(), "taken by " + lost.by() + ": " + lost.reason());
      if (handlers_.onLost) handlers_.onLost(lost.resource(), lost.owner(), lost.by(), lost.reason());
    }
  }
  grpc::Status status = stream_->stream->Finish();
  if (status.ok()) status = grpc::Status(grpc::StatusCode::UNAVAILABLE, "the session ended");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    alive_ = false;
    endStatus_ = status;
  }
  markLost("", "", status.error_message());
  if (handlers_.onEnded) handlers_.onEnded(status);
}

void ZUSession::markLost(const std::string& owner, const std::string& resource,
                         const std::string& reason) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& weak : acquisitions_) {
    auto state = weak.lock();
    if (!state) continue;
    // A member taken from a group leaves the group's acquisition short too:
    // every acquisition of that owner counts as lost.
    if (!owner.empty() && state->owner != owner) continue;
    (void)resource;
    std::lock_guard<std::mutex> stateLock(state->mutex);
    if (!state->lost) {
      state->lost = true;
      state->reason = reason;
    }
  }
}

ZUAcquisition ZUSession::acquire(
    const std::string& owner, const std::string& resource, int timeoutSeconds,
    const std::vector<std::string>& noWait,
    const std::function<void(const std::string&, const std::string&)>& onWaiting,
    ZUCancel* cancel) {
  grpc::ClientContext context;
  pb::AcquireRequest request;
  request.set_session(id_);
  request.set_owner(owner);
  request.set_resource(resource);
  request.set_timeout_seconds(timeoutSeconds);
  for (const auto& name : noWait) request.add_no_wait(name);
  if (cancel) cancel->attach(&context);
  auto reader = impl_->stub->Acquire(&context, request);
  pb::AcquireReply reply;
  pb::AcquireReply last;
  bool ended = false;
  while (reader->Read(&reply)) {
    if (reply.has_waiting()) {
      if (onWaiting) onWaiting(reply.waiting().resource(), reply.waiting().behind());
    } else {
      last = reply;
      ended = true;
    }
  }
  const grpc::Status status = reader->Finish();
  if (cancel) cancel->detach();
  check(status);
  if (!ended) throw ZUServiceError(grpc::Status(grpc::StatusCode::UNKNOWN, "no answer"));
  if (last.has_failed()) {
    throw ZUWaitError(last.failed().module(), last.failed().method(), last.failed().description());
  }
  auto state = std::make_shared<ZUAcquisition::State>();
  state->client = impl_;
  state->session = id_;
  state->owner = owner;
  state->resource = resource;
  std::vector<std::string> notObtained;
  if (last.has_not_obtained()) {
    notObtained.assign(last.not_obtained().names().begin(), last.not_obtained().names().end());
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Forget the acquisitions that are gone.
    acquisitions_.erase(std::remove_if(acquisitions_.begin(), acquisitions_.end(),
                                       [](const auto& weak) { return weak.expired(); }),
                        acquisitions_.end());
    acquisitions_.push_back(state);
    if (!alive_) {
      state->lost = true;
      state->reason = endStatus_.error_message();
    }
  }
  return ZUAcquisition(state, std::move(notObtained));
}

void ZUSession::release(const std::string& owner, const std::string& resource) {
  grpc::ClientContext context;
  pb::ReleaseRequest request;
  request.set_session(id_);
  request.set_owner(owner);
  request.set_resource(resource);
  pb::ReleaseReply reply;
  check(impl_->stub->Release(&context, request, &reply));
}

void ZUSession::switchOwner(const std::string& owner, const std::string& resource,
                            const std::string& newOwner) {
  grpc::ClientContext context;
  pb::SwitchOwnerRequest request;
  request.set_session(id_);
  request.set_owner(owner);
  request.set_resource(resource);
  request.set_new_owner(newOwner);
  pb::SwitchOwnerReply reply;
  check(impl_->stub->SwitchOwner(&context, request, &reply));
}

void ZUSession::setState(const std::string& resource, bool active) {
  grpc::ClientContext context;
  pb::SetStateRequest request;
  request.set_session(id_);
  request.set_resource(resource);
  request.set_active(active);
  pb::SetStateReply reply;
  check(impl_->stub->SetState(&context, request, &reply));
}

}  // namespace client
}  // namespace ZU
