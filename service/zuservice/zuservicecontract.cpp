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

}  // namespace contract
}  // namespace service
}  // namespace ZU
