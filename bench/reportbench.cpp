// The reports of a tree of groups of groups, and the floor of httpGet: the
// same text built with plain string appends from pieces prepared beforehand.
#include <map>
#include <memory>

#include <benchmark/benchmark.h>

#include <zuresource/zucontract.h>

#include "benchsupport.h"

namespace zubench {

namespace {

/// One line of the status page, cut into the pieces that httpGet appends.
struct Line {
  int depth;
  std::string name;
  bool held;
  std::string module, type, waiters, seconds;
};

void collectLines(const ResourcePtr& resource, int depth, std::vector<Line>& lines) {
  Line line{depth, resource->name, false, "", "", "", ""};
  OwnerPtr holder = resource->currentOwner.load();
  if (holder->name != ZU::contract::kPlaceholderName) {
    line.held = true;
    line.module = holder->moduleName;
    line.type = holder->ownerType;
    line.waiters = holder->copyWaiters().serializeToText();
    line.seconds = holder->getTimeout();
  }
  lines.push_back(line);
  if (auto group = boost::dynamic_pointer_cast<ZU::ZUResourceList>(resource))
    for (const ResourcePtr& member : group->getResourceList())
      collectLines(member, depth + 1, lines);
}

std::string appendLines(const std::vector<Line>& lines) {
  std::string text;
  for (const Line& line : lines) {
    for (int i = 0; i <= line.depth; ++i) text += "---";
    text += line.name;
    if (line.held) {
      text += " -> ";
      text += line.module;
      text += ' ';
      text += line.type;
      text += ' ';
      text += line.waiters;
      text += ' ';
      text += line.seconds;
    }
    text += "<br />";
  }
  return text;
}

/// One tree per size, built on first use and kept for the whole run.
const ResourceTree& treeOf(int leaves) {
  static std::map<int, std::unique_ptr<ResourceTree> > trees;
  std::unique_ptr<ResourceTree>& tree = trees[leaves];
  if (!tree) tree.reset(new ResourceTree(leaves));
  return *tree;
}

void httpGet(benchmark::State& state) {
  const ResourceTree& tree = treeOf(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(tree.root()->httpGet(0));
  state.counters["resources"] = tree.resourceCount();
}

void ownersGet(benchmark::State& state) {
  const ResourceTree& tree = treeOf(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(tree.root()->ownersGet());
}

void plainAppends(benchmark::State& state) {
  std::vector<Line> lines;
  collectLines(treeOf(static_cast<int>(state.range(0))).root(), 0, lines);
  if (appendLines(lines) != treeOf(static_cast<int>(state.range(0))).root()->httpGet(0))
    state.SkipWithError("the appended text differs from httpGet's");
  for (auto _ : state) benchmark::DoNotOptimize(appendLines(lines));
}

}  // namespace

void registerReportBenchmarks() {
  // Named "<case>/<plain resources>".
  for (auto* bench : {benchmark::RegisterBenchmark("report/httpGet", httpGet),
                      benchmark::RegisterBenchmark("report/ownersGet", ownersGet),
                      benchmark::RegisterBenchmark("baseline/appends", plainAppends)})
    bench->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
}

}  // namespace zubench
