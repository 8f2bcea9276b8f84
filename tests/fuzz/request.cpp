// The service's requests as they come off the wire: the first byte picks the
// kind of request, the rest is its encoding. Whatever the bytes, a request
// either fails to decode or decodes into one that encodes back to the same
// request, and the service's own checks of its names and time limit answer
// in words, accepting exactly what the protocol allows. Anything else (an
// exception, a crash, a sanitizer's report, a broken property) is a finding.

#include <cstdint>
#include <cstdlib>
#include <string>

#include <google/protobuf/stubs/logging.h>
#include <zuservice/zuservicecontract.h>

#include "zuprotocol/zuresource.pb.h"

namespace {

namespace pb = zuresource::v1;
namespace contract = ZU::service::contract;

void require(bool property) {
  if (!property) std::abort();
}

template <typename... Names>
void checkNames(const Names&... names) {
  for (const std::string& name : {std::string(names)...}) {
    const bool acceptable = !name.empty() && name.size() <= contract::kMaxNameBytes;
    require(contract::nameProblem("name", name).empty() == acceptable);
  }
}

void checkTimeout(std::int64_t seconds) {
  const bool acceptable = seconds >= 0 && seconds <= contract::kMaxTimeoutSeconds;
  require(contract::timeoutProblem(seconds).empty() == acceptable);
}

/// Decodes `bytes` as a `Message`; if it decodes, encodes it again and
/// requires the same request back, then hands it to `check`.
template <typename Message, typename Check>
void decode(const std::string& bytes, Check check) {
  Message request;
  if (!request.ParseFromString(bytes)) return;
  Message again;
  require(again.ParseFromString(request.SerializeAsString()));
  require(again.SerializeAsString() == request.SerializeAsString());
  check(request);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A name that is not UTF-8 fails to decode, as it should; quietly.
  static const bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 6) {
    case 0:
      decode<pb::SessionRequest>(bytes, [](const pb::SessionRequest& r) {
        if (r.has_hello()) checkNames(r.hello().module());
      });
      break;
    case 1:
      decode<pb::AcquireRequest>(bytes, [](const pb::AcquireRequest& r) {
        checkNames(r.session(), r.owner(), r.resource());
        checkTimeout(r.timeout_seconds());
        for (const auto& name : r.no_wait()) checkNames(name);
      });
      break;
    case 2:
      decode<pb::ReleaseRequest>(bytes, [](const pb::ReleaseRequest& r) {
        checkNames(r.session(), r.owner(), r.resource());
      });
      break;
    case 3:
      decode<pb::SwitchOwnerRequest>(bytes, [](const pb::SwitchOwnerRequest& r) {
        checkNames(r.owner(), r.new_owner(), r.resource());
      });
      break;
    case 4:
      decode<pb::SetStateRequest>(bytes, [](const pb::SetStateRequest& r) { checkNames(r.resource()); });
      break;
    default:
      decode<pb::ExplainRequest>(bytes, [](const pb::ExplainRequest& r) {
        checkNames(r.owner(), r.resource());
        for (const auto& name : r.no_wait()) checkNames(name);
      });
      break;
  }
  return 0;
}
