#pragma once

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuresource.h>
#include <zuresource/zuresourcelist.h>

namespace zubench {

using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;

/// A strong owner made by the library's factory, with module "<name>Module".
OwnerPtr makeOwner(const std::string& name);

/// The empty no-wait list: callers that are willing to wait for everything.
const std::vector<std::string>& waitForAll();

/// A tree of groups of groups over `leaves` plain resources: the leaves in
/// groups of ten, those groups again in groups of ten, and so on up to one
/// root group. Every fourth leaf is held by one of four strong owners, so that
/// the reports show both free and held lines. Not thread safe; build it once.
class ResourceTree {
 public:
  explicit ResourceTree(int leaves);
  ~ResourceTree();

  const boost::shared_ptr<ZU::ZUResourceList>& root() const { return root_; }
  int resourceCount() const { return count_; }

 private:
  boost::shared_ptr<ZU::ZUResourceList> root_;
  std::vector<OwnerPtr> holders_;
  std::vector<ResourcePtr> held_;
  int count_ = 0;
};

/// Milliseconds from `from` to `to`.
inline double msBetween(std::chrono::steady_clock::time_point from,
                        std::chrono::steady_clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

/// The middle value of `values` (the upper one of an even count).
inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

/// The fastest of five rounds of `count` calls of `cycle`, in ns per call:
/// for rows timed by hand, beside the Google Benchmark cases.
template <typename Cycle>
double fastest(int count, Cycle cycle) {
  using Clock = std::chrono::steady_clock;
  double best = 1e300;
  for (int round = 0; round < 5; ++round) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < count; ++i) cycle();
    best = std::min(best, std::chrono::duration<double, std::nano>(Clock::now() - start).count() / count);
  }
  return best;
}

/// Registration of the Google Benchmark cases, one function per source file.
void registerCycleBenchmarks();
void registerGroupBenchmarks();
void registerReportBenchmarks();
void registerObserveBenchmarks();

}  // namespace zubench
