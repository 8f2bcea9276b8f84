// The decoding of etcd's answers: any bytes are, for each kind of answer,
// either decoded or refused with ZUEtcdError; anything else (another
// exception, a crash, a sanitizer's report) is a finding.

#include <cstdint>
#include <string>

#include <zufleet/zuetcdanswer.h>

namespace {
template <typename Decode>
void attempt(Decode decode) {
  try {
    decode();
  } catch (const ZU::ZUEtcdError&) {
  }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  namespace answer = ZU::etcdanswer;
  attempt([&] { answer::grant(text); });
  attempt([&] { answer::keepAlive(text); });
  attempt([&] { answer::put(text); });
  attempt([&] { answer::range(text); });
  attempt([&] { answer::watchLine(text); });
  answer::decode64(text);
  return 0;
}
