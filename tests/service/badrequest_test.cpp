// Requests the service refuses: each with the right status code, and
// nothing changed by any of them.

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zuclient/zuclient.h>
#include <zuprotocol/zuresource.grpc.pb.h>

#include "support/runningservice.h"

namespace {

namespace pb = zuresource::v1;
using Code = grpc::StatusCode;

const std::string kUnknownSession = "0123456789abcdef";

/// What the calls of the rows need: one stub, and the session `mine`, which
/// said hello and holds Head through owner "mine"; another session's owner
/// "theirs" holds LeftArm.
struct Calls {
  pb::ResourceService::Stub& stub;
  ZU::client::ZUSession& mine;
};
using Call = std::function<grpc::Status(Calls&)>;

/// What `call` on the session `mine` of the client library is answered.
Call client(const std::function<void(ZU::client::ZUSession&)>& call) {
  return [=](Calls& c) {
    try {
      call(c.mine);
      return grpc::Status::OK;
    } catch (const ZU::client::ZUServiceError& e) {
      return grpc::Status(e.code(), e.reason());
    }
  };
}

/// An acquire call in the session `mine`, or in `session` when given.
Call acquire(const std::string& owner, const std::string& resource, int timeout = 1,
             const std::vector<std::string>& noWait = {}, const std::string* session = nullptr) {
  return [=](Calls& c) {
    grpc::ClientContext context;
    pb::AcquireRequest request;
    request.set_session(session ? *session : c.mine.id());
    request.set_owner(owner);
    request.set_resource(resource);
    request.set_timeout_seconds(timeout);
    for (const auto& n : noWait) request.add_no_wait(n);
    auto reader = c.stub.Acquire(&context, request);
    pb::AcquireReply reply;
    while (reader->Read(&reply)) {
    }
    return reader->Finish();
  };
}

Call release(const std::string& owner, const std::string& resource,
             const std::string* session = nullptr) {
  return [=](Calls& c) {
    grpc::ClientContext context;
    pb::ReleaseRequest request;
    request.set_session(session ? *session : c.mine.id());
    request.set_owner(owner);
    request.set_resource(resource);
    pb::ReleaseReply reply;
    return c.stub.Release(&context, request, &reply);
  };
}

pb::SessionRequest hello(const std::string& module) {
  pb::SessionRequest request;
  request.mutable_hello()->set_module(module);
  return request;
}

/// A session stream that says `messages` and then nothing more.
Call session(const std::vector<pb::SessionRequest>& messages) {
  return [=](Calls& c) {
    grpc::ClientContext context;
    auto stream = c.stub.Session(&context);
    for (const auto& message : messages) stream->Write(message);
    stream->WritesDone();
    pb::SessionEvent event;
    while (stream->Read(&event)) {
    }
    return stream->Finish();
  };
}

const std::string kHuge(1 << 20, 'x');
const std::string kNoSession;

struct Row {
  const char* name;
  Code code;
  Call call;
};

const Row kRows[] = {
    {"unknown resource", Code::NOT_FOUND, acquire("mine", "Tail")},
    {"empty resource", Code::INVALID_ARGUMENT, acquire("mine", "")},
    {"1 MB resource name", Code::INVALID_ARGUMENT, acquire("mine", kHuge)},
    {"empty owner", Code::INVALID_ARGUMENT, acquire("", "Head")},
    {"1 MB owner name", Code::INVALID_ARGUMENT, acquire(kHuge, "Head")},
    {"negative timeout", Code::INVALID_ARGUMENT, acquire("mine", "RightArm", -1)},
    {"huge timeout", Code::INVALID_ARGUMENT, acquire("mine", "RightArm", 2000000000)},
    {"empty no-wait name", Code::INVALID_ARGUMENT, acquire("mine", "Arms", 1, {""})},
    {"unknown session", Code::FAILED_PRECONDITION,
     acquire("mine", "RightArm", 1, {}, &kUnknownSession)},
    {"no session at all", Code::INVALID_ARGUMENT, acquire("mine", "RightArm", 1, {}, &kNoSession)},
    {"owner of another session", Code::PERMISSION_DENIED, acquire("theirs", "RightArm")},
    {"a 5 MB request", Code::RESOURCE_EXHAUSTED, acquire(std::string(5 << 20, 'x'), "Head")},
    {"release by another session", Code::PERMISSION_DENIED, release("theirs", "LeftArm")},
    {"release of an unknown resource", Code::NOT_FOUND, release("mine", "Tail")},
    {"release by an unknown owner", Code::NOT_FOUND, release("nobody", "Head")},
    {"release with an unknown session", Code::FAILED_PRECONDITION,
     release("mine", "Head", &kUnknownSession)},
    {"setState of a plain resource", Code::FAILED_PRECONDITION,
     client([](ZU::client::ZUSession& s) { s.setState("Head", true); })},
    {"explain of an unknown resource", Code::NOT_FOUND,
     client([](ZU::client::ZUSession& s) { s.explain("mine", "Tail"); })},
    {"hello with an empty module", Code::INVALID_ARGUMENT, session({hello("")})},
    {"hello with a 1 MB module", Code::INVALID_ARGUMENT, session({hello(kHuge)})},
    {"hello with a module in use", Code::ALREADY_EXISTS, session({hello("Mine")})},
    {"a first message that is no hello", Code::INVALID_ARGUMENT, session({pb::SessionRequest()})},
    {"hello twice", Code::INVALID_ARGUMENT, session({hello("Twice"), hello("Twice")})},
};

TEST(BadRequest, RefusedWithTheRightStatusAndNothingChanged) {
  // Pings given ample time: a 1 MB request keeps a sanitized client busy.
  zutest::RunningService service(ZURESOURCED, {"--keepalive-ms", "30000"});
  ASSERT_TRUE(service.listening());
  ZU::client::ZUSession mine("Mine", {}, service.target());
  ZU::client::ZUSession theirs("Theirs", {}, service.target());
  auto head = mine.acquire("mine", "Head", 1);
  auto arm = theirs.acquire("theirs", "LeftArm", 1);
  const std::string before = mine.statusValuesJson();
  auto stub = pb::ResourceService::NewStub(
      grpc::CreateChannel(service.target(), grpc::InsecureChannelCredentials()));
  Calls calls{*stub, mine};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const grpc::Status status = row.call(calls);
    EXPECT_EQ(ZU::client::ZUServiceError::codeName(status.error_code()),
              std::string(ZU::client::ZUServiceError::codeName(row.code)))
        << status.error_message();
    EXPECT_FALSE(status.error_message().empty());
    EXPECT_LT(status.error_message().size(), 300u) << "the reason does not echo a huge name";
    EXPECT_EQ(mine.statusValuesJson(), before);
    EXPECT_TRUE(mine.alive());
    EXPECT_TRUE(theirs.alive());
  }
}

}  // namespace
