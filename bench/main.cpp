// zuresource-bench: every performance case of the library, then one table of
// ratios measured side by side in this run.
//
// The Google Benchmark cases run 5 repetitions each, interleaved at random
// with the other cases, and each case counts its fastest repetition, in
// processor time of the benchmark thread: on a shared, oversubscribed machine
// the wall-clock time of a single-threaded loop mostly measures how often the
// thread was descheduled, the minimum is the run least disturbed by others,
// and interleaving spreads slow phases of the machine over all cases alike.
// Arguments are passed on to Google Benchmark and may override these defaults.
#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>
#include <map>
#include <set>

#include <benchmark/benchmark.h>

#include "benchsupport.h"
#include "contention.h"
#ifdef ZUBENCH_FLEET
#include "fleetbench.h"
#endif
#ifdef ZUBENCH_MANAGER
#include "managerbench.h"
#endif
#ifdef ZUBENCH_SERVICE
#include "servicebench.h"
#endif
#include "memory.h"
#include "resulttable.h"
#include "waiting.h"

namespace zubench {

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

/// Keeps the fastest repetition of each case (processor time, nanoseconds per
/// iteration) and prints one short line per case as it finishes.
class FastestRunReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override {
    PrintBasicContext(&GetErrorStream(), context);
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    std::set<std::string> reported;
    for (const Run& run : runs) {
      if (run.error_occurred)
        GetErrorStream() << run.benchmark_name() << ": " << run.error_message << "\n";
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const double ns = run.GetAdjustedCPUTime() *
                        benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                        benchmark::GetTimeUnitMultiplier(run.time_unit);
      const std::string name = run.run_name.str();
      auto found = fastest_.find(name);
      fastest_[name] = found == fastest_.end() ? ns : std::min(found->second, ns);
      reported.insert(name);
    }
    for (const std::string& name : reported)
      GetErrorStream() << name << ": fastest " << formatDuration(fastest_[name]) << "\n";
  }

  /// The fastest time of `name`, NaN when it did not run.
  double fastest(const std::string& name) const {
    auto found = fastest_.find(name);
    return found == fastest_.end() ? kNaN : found->second;
  }

 private:
  std::map<std::string, double> fastest_;
};

void addMicroRows(ResultTable& table, const FastestRunReporter& times) {
  auto time = [&times](const std::string& name) { return times.fastest(name); };

  // case label, case, baseline label, baseline, goal (0: reported only)
  struct Comparison {
    const char *what, *name, *baseWhat, *baseName;
    double goal;
  };
  const Comparison cycle[] = {
      {"cycle", "cycle/plain", "floor", "floor/cycle", 1.5},
      {"cycle", "cycle/plain", "floor + handle counting", "floor/cycle+handles", 0},
      {"cycle", "cycle/plain", "std::timed_mutex try_lock_for+unlock", "baseline/timed_mutex", 0},
      {"cycle", "cycle/plain", "std::mutex lock+unlock", "baseline/mutex", 0},
      {"cycle, counting observer", "cycle/observed/counting", "cycle, no observer", "cycle/plain",
       0},
      {"cycle, JSON-lines recorder", "cycle/observed/recorder", "cycle, no observer", "cycle/plain",
       0}};
  const Comparison single[] = {
      {"waitFor, already held", "held/waitFor", "floor", "floor/held", 0},
      {"isResourceFree", "query/isResourceFree", "floor", "floor/isResourceFree", 0},
      {"isResourceOwned", "query/isResourceOwned", "floor (no lock)", "floor/isResourceOwned", 0},
      {"hand-down + release back", "handdown/cycle", "floor", "floor/handdown", 0}};
  auto compare = [&](const Comparison& c) {
    table.addRatio(c.what, time(c.name), c.baseWhat, time(c.baseName), c.goal);
  };

  table.addSection("1. Uncontended cycle: waitFor on a free plain resource + release");
  for (const Comparison& c : cycle) compare(c);
  table.addSection("2. Other single-resource paths");
  for (const Comparison& c : single) compare(c);

  table.addSection("3. Group cycle, per member, against the plain cycle");
  for (int members : {1, 8, 64, 512})
    table.addRatio("group of " + std::to_string(members) + " (" +
                       formatDuration(time("group/cycle/" + std::to_string(members))) +
                       " per cycle)",
                   time("group/cycle/" + std::to_string(members)) / members, "plain cycle",
                   time("cycle/plain"), 1.3);

  table.addSection("4. State resource grant + release, K other holders, against K = 0");
  for (int holders : {0, 100, 1000})
    table.addRatio("K = " + std::to_string(holders), time("state/cycle/" + std::to_string(holders)),
                   "K = 0", time("state/cycle/0"), 0);

  table.addSection("5. Reports of a tree of groups of groups (1,111 and 11,111 resources)");
  for (const char* report : {"httpGet", "ownersGet"}) {
    const std::string name = std::string("report/") + report;
    table.addRatio(std::string(report) + ", 10,000 plain against 1,000", time(name + "/10000"),
                   "1,000", time(name + "/1000"), 11);
  }
  // The same growth of the plain appends shows what the memory hierarchy adds
  // on its own: the larger tree no longer fits in the caches.
  table.addRatio("plain appends, 10,000 plain against 1,000", time("baseline/appends/10000"),
                 "1,000", time("baseline/appends/1000"), 0);
  for (int leaves : {1000, 10000})
    table.addRatio("httpGet, " + std::to_string(leaves) + " plain",
                   time("report/httpGet/" + std::to_string(leaves)), "plain appends",
                   time("baseline/appends/" + std::to_string(leaves)), 3);
}

void addWaitingRows(ResultTable& table) {
  const double period = ZU::ZUOwnerStrong::kPollPeriodMs;
  table.addSection("6. Waiting (real time)");

  std::cerr << "waiting: 50 handovers..." << std::endl;
  std::vector<double> latencies = measureHandovers(50);
  const double middle = median(latencies);
  const double maximum = *std::max_element(latencies.begin(), latencies.end());
  table.addText("handover latency, median of 50", formatNumber(middle, 1) + " ms",
                "polling period " + formatNumber(period, 0) + " ms",
                formatNumber(middle / period, 2), "report", "-");
  table.addText("handover latency, maximum of 50", formatNumber(maximum, 1) + " ms",
                "polling period " + formatNumber(period, 0) + " ms",
                formatNumber(maximum / period, 2), "<= 210 ms",
                maximum <= period + 10 ? "yes" : "no");

  std::cerr << "waiting: 64 threads for 2 s..." << std::endl;
  const int kSeconds = 2;
  const double cpuMs = measureWaitingCpu(64, kSeconds);
  const double share = cpuMs / (kSeconds * 1e3);
  table.addText("64 threads waiting 2 s, process CPU", formatNumber(cpuMs, 1) + " ms",
                "one core for 2 s", formatNumber(share * 100, 2) + " %", "< 2 %",
                share < 0.02 ? "yes" : "no");
}

void addContentionRows(ResultTable& table) {
  const double period = ZU::ZUOwnerStrong::kPollPeriodMs;
  const int kHoldMs = 20, kSeconds = 2;
  table.addSection("8. Contention: N owners take turns, " + std::to_string(kHoldMs) +
                   " ms holds, 1 s limits, " + std::to_string(kSeconds) + " s each (real time)");
  for (int members : {0, 4}) {
    for (int contenders : {2, 8, 32}) {
      const std::string what =
          (members > 0 ? "group of " + std::to_string(members) : std::string("plain")) +
          ", N = " + std::to_string(contenders);
      std::cerr << "contention: " << what << "..." << std::endl;
      const ContentionResult r = measureContention(contenders, members, kHoldMs, kSeconds);
      const double goal = contenders >= 32 ? 0.05 : contenders >= 8 ? 0.02 : 0;
      table.addText(what + ", process CPU", formatNumber(r.coreShare, 3) + " core", "one core",
                    formatNumber(r.coreShare, 3),
                    goal > 0 ? "<= " + formatNumber(goal, 2) : "report",
                    goal > 0 ? (r.coreShare <= goal ? "yes" : "no") : "-");
      table.addText(what + ", grants", formatNumber(r.grantsPerSecond, 1) + " /s",
                    "handover max " + formatNumber(r.maxHandoverMs, 1) + " ms, " +
                        std::to_string(r.errors) + " timeouts",
                    formatNumber(r.maxHandoverMs / period, 2), "<= 210 ms",
                    r.maxHandoverMs <= period + 10 ? "yes" : "no");
    }
  }
}

void addMemoryRows(ResultTable& table) {
  table.addSection("7. Memory: bytes requested from operator new (calls)");
  const MemoryFootprint footprint = measureFootprints();
  auto add = [&table](const std::string& what, const AllocationCount& count, bool bounded) {
    const bool holds = count.bytes <= 1024;
    table.addText(what, std::to_string(count.bytes) + " B",
                  std::to_string(count.calls) + " allocations", "",
                  bounded ? "<= 1024 B" : "report", bounded ? (holds ? "yes" : "no") : "-");
  };
  add("plain resource", footprint.plainResource, true);
  add("state resource", footprint.stateResource, false);
  add("empty group", footprint.emptyGroup, false);
  add("strong owner", footprint.strongOwner, false);
}

}  // namespace

}  // namespace zubench

int main(int argc, char** argv) {
  using namespace zubench;
  // --rows=LIST picks the parts of the table to measure, from micro, waiting,
  // contention, memory and fleet (default: all of them; fleet only where the
  // fleet library is built).
  std::string rows = "micro,waiting,contention,memory,fleet,manager,service";
  std::vector<char*> args{argv[0]};
  std::string defaults[] = {"--benchmark_repetitions=5",
                            "--benchmark_enable_random_interleaving=true",
                            "--benchmark_min_time=0.1"};
  for (std::string& option : defaults) args.push_back(&option[0]);
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.compare(0, 7, "--rows=") == 0)
      rows = arg.substr(7);
    else
      args.push_back(argv[i]);
  }
  auto wanted = [&rows](const std::string& part) {
    return ("," + rows + ",").find("," + part + ",") != std::string::npos;
  };
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

  registerCycleBenchmarks();
  registerGroupBenchmarks();
  registerReportBenchmarks();
#ifdef ZUBENCH_OBSERVE
  registerObserveBenchmarks();
#endif
  FastestRunReporter times;
  if (wanted("micro")) benchmark::RunSpecifiedBenchmarks(&times);

  ResultTable table;
  if (wanted("micro")) addMicroRows(table, times);
  if (wanted("waiting")) addWaitingRows(table);
  if (wanted("memory")) addMemoryRows(table);
  if (wanted("contention")) addContentionRows(table);
#ifdef ZUBENCH_FLEET
  if (wanted("fleet")) addFleetRows(table);
#endif
#ifdef ZUBENCH_MANAGER
  if (wanted("manager")) addManagerRows(table);
#endif
#ifdef ZUBENCH_SERVICE
  if (wanted("service")) addServiceRows(table, ZUBENCH_ZURESOURCED, ZUBENCH_ZURESOURCECTL);
#endif
  std::cout << "\n";
  table.print(std::cout);
  const int failures = table.failures();
  std::cout << "\n"
            << (failures == 0 ? "every goal holds"
                              : std::to_string(failures) + " goal(s) do not hold")
            << "\n";  // reported, not an error: the exit status stays 0
  benchmark::Shutdown();
  return 0;
}
