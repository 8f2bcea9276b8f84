// zuresource-sim: plays the host middleware around the resource library. It
// reads scenarios (resources, modules, owners, a timeline of actions and
// expectations), runs each for real with one thread per owner, prints the
// event log, the final status page, the expectations and a summary line, and
// exits 0 when every expectation held, 1 when one failed, 2 when a scenario
// was refused (the worst of them).

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <boost/make_shared.hpp>

#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>

#include <zulive/zulivefeed.h>
#include <zuobserve/zujson.h>
#include <zuobserve/zurecorder.h>

#include "cli.h"
#include "live/server.h"
#include "output/junit.h"
#include "output/report.h"
#include "replay/replay.h"
#include "run/eventlog.h"
#include "run/interrupts.h"
#include "run/simulation.h"
#include "scenario/lint.h"
#include "scenario/scenario.h"

namespace {

using zusim::ExitStatus;

// How standard input is named in messages.
const char kStandardInputName[] = "(standard input)";

// Where the text goes: standard output, unless the JSON lines go there.
std::ostream* text = &std::cout;

bool exists(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

/// The bundled default scenario: looked for under the working directory,
/// then up from the executable (a build directory inside the repository),
/// then in the source tree the program was built from.
std::string defaultScenario() {
  const std::string name = "examples/humanoid.json";
  if (exists(name)) return name;
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    std::string dir(exe, static_cast<std::size_t>(n));
    for (int up = 0; up < 5 && dir.rfind('/') != std::string::npos; ++up) {
      dir.erase(dir.rfind('/'));
      if (exists(dir + "/" + name)) return dir + "/" + name;
    }
  }
  return std::string(ZUSIM_SOURCE_DIR) + "/" + name;
}

void printStatus(const std::vector<std::string>& roots) {
  *text << "Status page:" << std::endl;
  for (const std::string& line : zusim::statusPageLines(roots))
    *text << "  " << zusim::escapeControls(line, false) << std::endl;
}

/// Prints the expectations' tally (not when quiet) and each failed one.
void printResults(const zusim::RunRecord& record, const zusim::Options& options,
                  const std::string& file) {
  std::size_t failed = std::count_if(record.results.begin(), record.results.end(),
                                     [](const zusim::ExpectResult& r) { return !r.held; });
  if (!options.quiet)
    *text << "Expectations: " << record.results.size() - failed << " held, " << failed << " failed"
          << std::endl;
  for (const zusim::ExpectResult& r : record.results)
    if (!r.held)
      *text << "  FAILED " << (options.quiet ? file + ": " : "") << r.entry << ": "
            << zusim::escapeControls(r.text, false) << std::endl;
}

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  return static_cast<bool>(file);
}

/// Reads and checks a scenario, from a file or standard input; with
/// --strict, warnings refuse it. Throws ScenarioError.
zusim::Scenario load(const std::string& path, const zusim::Options& options) {
  zusim::Scenario scenario;
  if (path == zusim::kStandardInput) {
    std::ostringstream text;
    text << std::cin.rdbuf();
    scenario = zusim::parseScenario(text.str(), kStandardInputName);
  } else {
    scenario = zusim::loadScenario(path);
  }
  std::vector<zusim::Warning> warnings = zusim::lint(scenario);
  if (!options.quiet || options.strict)
    for (const zusim::Warning& w : warnings)
      std::cerr << (options.strict ? "zuresource-sim: " : "warning: ") << scenario.file << ": "
                << w.entry << ": " << w.text << std::endl;
  if (options.strict && !warnings.empty())
    throw zusim::ScenarioError(scenario.file + ": " + std::to_string(warnings.size()) +
                               " warning(s), refused under --strict");
  return scenario;
}

/// Runs one scenario; fills in its suite and returns its exit status. A
/// signal stops the run as its stopAt would.
int runOne(const std::string& path, const zusim::Options& options, zusim::SuiteResult& suite,
           zusim::Interrupts& interrupts) {
  suite.file = path == zusim::kStandardInput ? kStandardInputName : path;
  auto began = std::chrono::steady_clock::now();
  zusim::Scenario scenario;
  try {
    scenario = load(path, options);
  } catch (const zusim::ScenarioError& e) {
    std::cerr << "zuresource-sim: " << e.what() << std::endl;
    suite.refused = e.what();
    return ExitStatus::kRefused;
  }
  suite.title = scenario.title;
  if (options.checkOnly) {
    // A cut-off and an etcd restart each end in a second step of their own.
    const auto given = std::count_if(
        scenario.actions.begin(), scenario.actions.end(), [](const zusim::ActionEntry& a) {
          return a.kind != zusim::ActionKind::Reconnect && a.kind != zusim::ActionKind::EtcdUp;
        });
    *text << scenario.file << ": " << scenario.resources.size() << " resources, "
          << scenario.owners.size() << " owners, " << given << " actions, "
          << scenario.expectations.size() << " expectations: accepted" << std::endl;
    return ExitStatus::kAllHeld;
  }
  if (!scenario.robots.empty() && !options.record.empty()) {
    suite.refused = scenario.file + ": --record does not record scenarios with robots";
    std::cerr << "zuresource-sim: " << suite.refused << std::endl;
    return ExitStatus::kRefused;
  }
  zusim::EventLog log(options.quiet ? nullptr : text);
  std::unique_ptr<zusim::Simulation> made;
  try {
    made = std::make_unique<zusim::Simulation>(scenario, log, options.etcd);
  } catch (const zusim::ScenarioError& e) {
    suite.refused = e.what();
  } catch (const ZU::ZUError& e) {
    suite.refused = scenario.file + ": " + e.getDescription();
  }
  if (!made) {
    std::cerr << "zuresource-sim: " << suite.refused << std::endl;
    return ExitStatus::kRefused;
  }
  if (!options.quiet) {
    *text << "Scenario: " << zusim::escapeControls(scenario.title, false)
          << (scenario.title == scenario.file ? "" : " (" + scenario.file + ")") << std::endl;
    if (!scenario.description.empty())
      *text << zusim::escapeControls(scenario.description, false) << std::endl;
  }
  zusim::Simulation& simulation = *made;
  interrupts.onInterrupt([&simulation] { simulation.stopNow(); });
  if (interrupts.signal()) simulation.stopNow();  // came while the stage was built
  struct Forget {
    zusim::Interrupts& interrupts;
    ~Forget() { interrupts.onInterrupt({}); }
  } forget{interrupts};
  std::unique_ptr<zusim::LiveServer> server;
  auto feed = boost::make_shared<ZU::ZULiveFeed>();
  if (options.port >= 0) {
    server = std::make_unique<zusim::LiveServer>(scenario, simulation, log);
    server->stream(*feed, [&simulation, &feed] {
      return ZU::zujson::snapshotJson(ZU::takeSnapshot(simulation.roots()), feed->start()).dump();
    });
    int port = server->start(options.port);
    if (port < 0) {
      std::cerr << "zuresource-sim: cannot serve on 127.0.0.1:" << options.port << std::endl;
      suite.refused = suite.file + ": cannot serve on 127.0.0.1:" + std::to_string(options.port);
      return ExitStatus::kRefused;
    }
    *text << "Live status page: http://127.0.0.1:" << port << "/" << std::endl;
  }

  // Observers of the library's events: a recording, JSON lines, the live
  // page's stream. Each is registered for the run only.
  std::vector<boost::shared_ptr<ZU::ZUObserver>> observers;
  boost::shared_ptr<ZU::ZURecorder> recording;
  try {
    if (!options.record.empty()) {
      recording = boost::make_shared<ZU::ZURecorder>(options.record);
      recording->record(ZU::takeSnapshot(simulation.roots()));
      observers.push_back(recording);
    }
    if (options.jsonl == zusim::kStandardInput)
      observers.push_back(boost::make_shared<ZU::ZURecorder>(std::cout));
    else if (!options.jsonl.empty())
      observers.push_back(boost::make_shared<ZU::ZURecorder>(options.jsonl));
  } catch (const ZU::ZUError& e) {
    suite.refused = e.getDescription();
    std::cerr << "zuresource-sim: " << suite.refused << std::endl;
    return ExitStatus::kRefused;
  }
  if (server) observers.push_back(feed);
  for (const auto& o : observers) ZU::ZUObservers::add(o);
  zusim::RunRecord record;
  try {
    record = simulation.run();
  } catch (const zusim::ScenarioError& e) {  // the system refused a thread
    for (const auto& o : observers) ZU::ZUObservers::remove(o);
    suite.refused = e.what();
    std::cerr << "zuresource-sim: " << suite.refused << std::endl;
    return ExitStatus::kRefused;
  }
  if (recording) recording->record(ZU::takeSnapshot(simulation.roots()));
  for (const auto& o : observers) ZU::ZUObservers::remove(o);
  suite.results = record.results;
  suite.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  if (!options.quiet) printStatus(record.finalStatus);
  printResults(record, options, scenario.file);
  int status = record.allHeld() ? ExitStatus::kAllHeld : ExitStatus::kSomeFailed;
  if (!options.report.empty()) {
    if (!writeFile(options.report, zusim::renderReport(scenario, log.events(), record))) {
      std::cerr << "zuresource-sim: cannot write " << options.report << std::endl;
      status = ExitStatus::kRefused;
    } else if (!options.quiet) {
      *text << "Report: " << options.report << std::endl;
    }
  }
  if (server) {
    server->finished(status);
    interrupts.sleepFor(options.lingerSeconds);
    server->stop();
  }
  return status;
}

/// Replays a recording: 0 when the decisions agree, 1 at the first
/// divergence, 2 when it cannot be read or made a scenario.
int replayRecording(const zusim::Options& options) {
  try {
    zusim::Recording recording = zusim::Recording::read(options.replay);
    nlohmann::ordered_json document = recording.toScenario();
    if (!options.toScenario.empty()) {
      if (!writeFile(options.toScenario, document.dump(2) + "\n"))
        throw zusim::ScenarioError(options.toScenario + ": cannot be written");
      *text << "Scenario written: " << options.toScenario << std::endl;
    }
    zusim::Scenario scenario =
        zusim::parseScenario(document.dump(), options.replay + " (as a scenario)");
    if (options.checkOnly) {
      *text << "ok      " << options.replay << ": " << recording.events.size()
            << " events, accepted" << std::endl;
      return ExitStatus::kAllHeld;
    }
    if (recording.cut)
      *text << "The recording is cut at line " << recording.cutLine << ", after "
            << std::lround(recording.cutMs) << " ms: replayed up to there" << std::endl;
    zusim::EventLog log(options.quiet ? nullptr : text);
    zusim::RunRecord record;
    std::vector<zusim::RecordedEvent> replayed = zusim::replay(scenario, log, record);
    if (!options.quiet) printStatus(record.finalStatus);
    printResults(record, options, options.replay);
    if (!options.report.empty() &&
        !writeFile(options.report, zusim::renderReport(scenario, log.events(), record)))
      throw zusim::ScenarioError(options.report + ": cannot be written");
    std::string divergence = zusim::firstDivergence(recording, replayed);
    if (divergence.empty()) {
      *text << "Replay agrees with " << options.replay << std::endl;
      return ExitStatus::kAllHeld;
    }
    *text << "Replay diverges from " << options.replay << " " << divergence << std::endl;
    return ExitStatus::kSomeFailed;
  } catch (const zusim::ScenarioError& e) {
    std::cerr << "zuresource-sim: " << e.what() << std::endl;
    return ExitStatus::kRefused;
  }
}

/// "ok      examples/groups.json: 11 expectations held"
std::string summaryLine(const zusim::SuiteResult& suite, int status, bool checkOnly) {
  std::size_t failed = std::count_if(suite.results.begin(), suite.results.end(),
                                     [](const zusim::ExpectResult& r) { return !r.held; });
  if (!suite.refused.empty()) return "REFUSED " + suite.refused;  // it names the file
  if (checkOnly) return "ok      " + suite.file + ": accepted";
  std::string tally = failed ? std::to_string(failed) + " of " +
                                   std::to_string(suite.results.size()) + " expectations failed"
                             : std::to_string(suite.results.size()) + " expectations held";
  return std::string(status == ExitStatus::kAllHeld ? "ok      " : "FAILED  ") + suite.file + ": " +
         tally;
}

}  // namespace

int main(int argc, char** argv) {
  zusim::Options options;
  try {
    options =
        zusim::parseCommandLine(std::vector<std::string>(argv + 1, argv + argc), defaultScenario());
  } catch (const zusim::CommandLineError& e) {
    std::cerr << "zuresource-sim: " << e.what() << std::endl << zusim::usage();
    return ExitStatus::kRefused;
  }
  if (options.help || options.version) {
    std::cout << (options.help ? zusim::usage() : zusim::versionLine() + "\n");
    return ExitStatus::kAllHeld;
  }
  if (options.jsonl == zusim::kStandardInput) text = &std::cerr;
  if (!options.replay.empty()) return replayRecording(options);
  zusim::Interrupts interrupts;  // before any other thread
  int worst = ExitStatus::kAllHeld;
  std::vector<zusim::SuiteResult> suites(options.scenarios.size());
  std::vector<int> statuses;
  for (std::size_t i = 0; i < options.scenarios.size(); ++i) {
    if (i > 0 && !options.quiet) *text << std::endl;
    statuses.push_back(runOne(options.scenarios[i], options, suites[i], interrupts));
    worst = std::max(worst, statuses.back());
    if (interrupts.signal()) {  // the rest are not run
      suites.resize(statuses.size());
      worst = 128 + interrupts.signal();
      break;
    }
  }
  if (!options.quiet) *text << std::endl;
  for (std::size_t i = 0; i < suites.size(); ++i)
    *text << summaryLine(suites[i], statuses[i], options.checkOnly) << std::endl;
  if (!options.junit.empty() && !writeFile(options.junit, zusim::renderJUnit(suites))) {
    std::cerr << "zuresource-sim: cannot write " << options.junit << std::endl;
    worst = ExitStatus::kRefused;
  }
  return worst;
}
