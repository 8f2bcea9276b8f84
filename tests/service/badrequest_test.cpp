// Requests the service refuses: each with the right status code, and
// nothing changed by any of them.

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <zuclient/zuclient.h>
#include <zuprotocol/zuresource.grpc.pb.h>

#include "support/runningservice.h"

namespace {

namespace pb = zuresource::v1;
using grpc::StatusCode;

struct Ids {
  std::string session;  // said hello; holds Head through owner "mine"
  std::string other;    // another session, whose owner "theirs" holds LeftArm
};

struct Row {
  const char* name;
  StatusCode code;
  std::function<grpc::Status(pb::ResourceService::Stub&, const Ids&)> call;
};

grpc::Status acquire(pb::ResourceService::Stub& stub, const std::string& session,
                     const std::string& owner, const std::string& resource, int timeout,
                     const std::vector<std::string>& noWait = {}) {
  grpc::ClientContext context;
  pb::AcquireRequest request;
  request.set_session(session);
  request.set_owner(owner);
  request.set_resource(resource);
  request.set_timeout_seconds(timeout);
  for (const auto& n : noWait) request.add_no_wait(n);
  auto reader = stub.Acquire(&context, request);
  pb::AcquireReply reply;
  while (reader->Read(&reply)) {
  }
  return reader->Finish();
}

grpc::Status release(pb::ResourceService::Stub& stub, const std::string& session,
                     const std::string& owner, const std::string& resource) {
  grpc::ClientContext context;
  pb::ReleaseRequest request;
  request.set_session(session);
  request.set_owner(owner);
  request.set_resource(resource);
  pb::ReleaseReply reply;
  return stub.Release(&context, request, &reply);
}

/// A session stream that says `messages` and then nothing more: its status.
grpc::Status session(pb::ResourceService::Stub& stub, const std::vector<pb::SessionRequest>& messages) {
  grpc::ClientContext context;
  auto stream = stub.Session(&context);
  for (const auto& message : messages) stream->Write(message);
  stream->WritesDone();
  pb::SessionEvent event;
  while (stream->Read(&event)) {
  }
  return stream->Finish();
}

pb::SessionRequest hello(const std::string& module) {
  pb::SessionRequest request;
  request.mutable_hello()->set_module(module);
  return request;
}

const std::string kHuge(1 << 20, 'x');

const Row kRows[] = {
    {"unknown resource", StatusCode::NOT_FOUND,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "mine", "Tail", 1); }},
    {"empty resource", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "mine", "", 1); }},
    {"1 MB resource name", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "mine", kHuge, 1); }},
    {"empty owner", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "", "Head", 1); }},
    {"1 MB owner name", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids& i) { return acquire(s, i.session, kHuge, "Head", 1); }},
    {"negative timeout", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "mine", "RightArm", -1); }},
    {"huge timeout", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "mine", "RightArm", 2000000000); }},
    {"empty no-wait name", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "mine", "Arms", 1, {""}); }},
    {"unknown session", StatusCode::FAILED_PRECONDITION,
     [](auto& s, const Ids&) { return acquire(s, "0123456789abcdef", "mine", "RightArm", 1); }},
    {"no session at all", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids&) { return acquire(s, "", "mine", "RightArm", 1); }},
    {"owner of another session", StatusCode::PERMISSION_DENIED,
     [](auto& s, const Ids& i) { return acquire(s, i.session, "theirs", "RightArm", 1); }},
    {"release by another session", StatusCode::PERMISSION_DENIED,
     [](auto& s, const Ids& i) { return release(s, i.session, "theirs", "LeftArm"); }},
    {"release of an unknown resource", StatusCode::NOT_FOUND,
     [](auto& s, const Ids& i) { return release(s, i.session, "mine", "Tail"); }},
    {"release by an unknown owner", StatusCode::NOT_FOUND,
     [](auto& s, const Ids& i) { return release(s, i.session, "nobody", "Head"); }},
    {"release with an unknown session", StatusCode::FAILED_PRECONDITION,
     [](auto& s, const Ids&) { return release(s, "0123456789abcdef", "mine", "Head"); }},
    {"setState of a plain resource", StatusCode::FAILED_PRECONDITION,
     [](auto& s, const Ids& i) {
       grpc::ClientContext context;
       pb::SetStateRequest request;
       request.set_session(i.session);
       request.set_resource("Head");
       request.set_active(true);
       pb::SetStateReply reply;
       return s.SetState(&context, request, &reply);
     }},
    {"explain of an unknown resource", StatusCode::NOT_FOUND,
     [](auto& s, const Ids&) {
       grpc::ClientContext context;
       pb::ExplainRequest request;
       request.set_owner("mine");
       request.set_resource("Tail");
       pb::JsonReply reply;
       return s.Explain(&context, request, &reply);
     }},
    {"a 5 MB request", StatusCode::RESOURCE_EXHAUSTED,
     [](auto& s, const Ids& i) { return acquire(s, i.session, std::string(5 << 20, 'x'), "Head", 1); }},
    {"hello with an empty module", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids&) { return session(s, {hello("")}); }},
    {"hello with a 1 MB module", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids&) { return session(s, {hello(kHuge)}); }},
    {"hello with a module in use", StatusCode::ALREADY_EXISTS,
     [](auto& s, const Ids&) { return session(s, {hello("Mine")}); }},
    {"a first message that is no hello", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids&) { return session(s, {pb::SessionRequest()}); }},
    {"hello twice", StatusCode::INVALID_ARGUMENT,
     [](auto& s, const Ids&) { return session(s, {hello("Twice"), hello("Twice")}); }},
};

TEST(BadRequest, RefusedWithTheRightStatusAndNothingChanged) {
  // Pings given ample time: a 1 MB request keeps a sanitized client busy.
  zutest::RunningService service(ZURESOURCED, {"--keepalive-ms", "30000"});
  ASSERT_TRUE(service.listening());
  ZU::client::ZUSession mine("Mine", {}, service.target());
  ZU::client::ZUSession theirs("Theirs", {}, service.target());
  auto head = mine.acquire("mine", "Head", 1);
  auto arm = theirs.acquire("theirs", "LeftArm", 1);
  const Ids ids{mine.id(), theirs.id()};
  const std::string before = mine.statusValuesJson();
  auto stub = pb::ResourceService::NewStub(
      grpc::CreateChannel(service.target(), grpc::InsecureChannelCredentials()));
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const grpc::Status status = row.call(*stub, ids);
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
