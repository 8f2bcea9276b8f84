// The smallest program built against an installed (or embedded) zuresource:
// one resource, one owner that takes it, and the status line.
#include <iostream>

#include <boost/make_shared.hpp>

#include <zuresource/zuresource.h>

int main() {
  auto head = boost::make_shared<ZU::ZUResource>("Head", nullptr);
  auto owner = ZU::ZUResource::createOwner(0, "consumer", "Consumer", nullptr);
  head->waitFor(owner, "look", 0, {});
  std::cout << head->httpGet(0) << std::endl;
  const bool held = !head->isResourceFree();
  head->release(owner);
  return held && head->isResourceFree() ? 0 : 1;
}
