#include "zuservice/zuservicecontract.h"

namespace ZU {
namespace service {
namespace contract {

std::string nameProblem(const char* what, const std::string& name) {
  if (name.empty()) return std::string(what) + " is empty";
  if (name.size() > kMaxNameBytes) {
    return std::string(what) + " is longer than " + std::to_string(kMaxNameBytes) + " bytes (" +
           std::to_string(name.size()) + ")";
  }
  return {};
}

std::string timeoutProblem(std::int64_t seconds) {
  if (seconds >= 0 && seconds <= kMaxTimeoutSeconds) return {};
  return "timeout_seconds must be 0 (no limit) to " + std::to_string(kMaxTimeoutSeconds) + ", not " +
         std::to_string(seconds);
}

}  // namespace contract
}  // namespace service
}  // namespace ZU
