// The cycle search over recorded waits. Live deadlocks and the record's upkeep
// are checked through the observers and the stress test.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zuresource/zuwaitregistry.h>

namespace {

using Names = std::vector<std::string>;

// The cycles among waits given as {waiter, holder, resource}, as text.
Names cyclesOf(const std::vector<Names>& edges) {
  std::vector<ZU::ZUWait> waits(edges.size());
  for (std::size_t i = 0; i < edges.size(); ++i)
    waits[i].waiter = edges[i][0], waits[i].holder = edges[i][1], waits[i].resource = edges[i][2];
  Names texts;
  for (const ZU::ZUWaitCycle& cycle : ZU::ZUWaitRegistry::findCycles(waits))
    texts.push_back(cycle.toString());
  return texts;
}

TEST(ZUWaitRegistryGraph, FindsEachElementaryCycleOnce) {
  const std::pair<std::vector<Names>, Names> rows[] = {
      // Two cycles through one owner, and a waiter that only leads into one.
      {{{"d", "a", "R0"}, {"b", "a", "R2"}, {"a", "b", "R1"}, {"a", "c", "R3"}, {"c", "a", "R4"}},
       {"deadlock: a -[R1]-> b -[R2]-> a", "deadlock: a -[R3]-> c -[R4]-> a"}},
      // Two waits between the same owners, for two resources: two cycles.
      {{{"a", "b", "R1"}, {"a", "b", "R2"}, {"b", "a", "R3"}},
       {"deadlock: a -[R1]-> b -[R3]-> a", "deadlock: a -[R2]-> b -[R3]-> a"}},
      {{{"a", "c", "R1"}, {"b", "c", "R1"}, {"c", "d", "R2"}}, {}},
  };
  for (const auto& [edges, cycles] : rows) EXPECT_EQ(cyclesOf(edges), cycles);
}

}  // namespace
