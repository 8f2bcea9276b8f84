// zuresource-sim: plays the host middleware around the resource library. It
// reads a scenario (resources, modules, owners, a timeline of actions and
// expectations), runs it for real with one thread per owner, prints the event
// log and the final status page, and exits 0 when every expectation held,
// 1 when one failed, 2 when the scenario was refused.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <sys/stat.h>

#include "eventlog.h"
#include "report.h"
#include "scenario.h"
#include "server.h"
#include "simulation.h"

namespace {

const char kUsage[] =
    "usage: zuresource-sim [SCENARIO.json] [--report FILE.html] [--serve PORT [--linger SECONDS]]\n"
    "  SCENARIO.json   the scenario to run (default: the bundled examples/humanoid.json)\n"
    "  --report FILE   write a self-contained HTML report with a timeline chart\n"
    "  --serve PORT    serve the live status page on http://127.0.0.1:PORT/ while the\n"
    "                  scenario runs (PORT 0: any free port, printed at the start)\n"
    "  --linger S      keep serving the final page S seconds after the end\n"
    "  --check         read and check the scenario, then exit without running it\n"
    "exit status: 0 every expectation held, 1 some failed, 2 bad scenario or arguments\n";

/// A mistake on the command line, as opposed to one in the scenario.
class CommandLineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

const int kLastPort = 65535;

struct Options {
  std::string scenario;
  std::string report;
  int port = -1;
  int lingerSeconds = 0;
  bool checkOnly = false;
};

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

/// The whole of `text` as a number from 0 to `most`.
int number(const std::string& text, const std::string& option, int most) {
  std::size_t used = 0;
  long value = -1;
  try {
    value = std::stol(text, &used);
  } catch (const std::exception&) {
  }
  if (used != text.size() || value < 0 || value > most)
    throw CommandLineError(option + " needs a number from 0 to " + std::to_string(most) +
                           ", not \"" + text + "\"");
  return static_cast<int>(value);
}

/// Refuses a report path that cannot be written, before anything runs. An
/// existing file is left as it is until the report replaces it.
void checkWritable(const std::string& path) {
  struct stat st;
  bool existed = stat(path.c_str(), &st) == 0;
  if (existed && !S_ISREG(st.st_mode))
    throw CommandLineError("--report " + path + ": not a regular file");
  bool writable = static_cast<bool>(std::ofstream(path, std::ios::app));
  if (!existed) std::remove(path.c_str());
  if (!writable) throw CommandLineError("--report " + path + ": cannot be written");
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw CommandLineError(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--report")
      o.report = value();
    else if (arg == "--serve")
      o.port = number(value(), arg, kLastPort);
    else if (arg == "--linger")
      o.lingerSeconds = number(value(), arg, 24 * 3600);
    else if (arg == "--check")
      o.checkOnly = true;
    else if (arg.compare(0, 1, "-") == 0)
      throw CommandLineError("unknown option " + arg);
    else if (o.scenario.empty())
      o.scenario = arg;
    else
      throw CommandLineError("one scenario at a time (" + o.scenario + ", " + arg + ")");
  }
  if (!o.report.empty()) checkWritable(o.report);
  if (o.scenario.empty()) o.scenario = defaultScenario();
  return o;
}

void printStatus(const std::vector<std::string>& roots) {
  std::cout << "Status page:" << std::endl;
  for (const std::string& line : zusim::statusPageLines(roots))
    std::cout << "  " << zusim::escapeControls(line, false) << std::endl;
}

int printResults(const zusim::RunRecord& record) {
  int failed = 0;
  for (const zusim::ExpectResult& r : record.results) failed += r.held ? 0 : 1;
  std::cout << "Expectations: " << record.results.size() - failed << " held, " << failed
            << " failed" << std::endl;
  for (const zusim::ExpectResult& r : record.results)
    if (!r.held)
      std::cout << "  FAILED " << r.entry << ": " << zusim::escapeControls(r.text, false)
                << std::endl;
  return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  zusim::Scenario scenario;
  try {
    for (int i = 1; i < argc; ++i)
      if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
        std::cout << kUsage;
        return 0;
      }
    options = parse(argc, argv);
  } catch (const CommandLineError& e) {
    std::cerr << "zuresource-sim: " << e.what() << std::endl << kUsage;
    return 2;
  }
  try {
    scenario = zusim::loadScenario(options.scenario);
  } catch (const zusim::ScenarioError& e) {
    std::cerr << "zuresource-sim: " << e.what() << std::endl;
    return 2;
  }
  if (options.checkOnly) {
    std::cout << scenario.file << ": " << scenario.resources.size() << " resources, "
              << scenario.owners.size() << " owners, " << scenario.actions.size() << " actions, "
              << scenario.expectations.size() << " expectations: accepted" << std::endl;
    return 0;
  }

  std::cout << "Scenario: " << zusim::escapeControls(scenario.title, false)
            << (scenario.title == scenario.file ? "" : " (" + scenario.file + ")") << std::endl;
  if (!scenario.description.empty())
    std::cout << zusim::escapeControls(scenario.description, false) << std::endl;
  zusim::EventLog log(&std::cout);
  zusim::Simulation simulation(scenario, log);
  std::unique_ptr<zusim::LiveServer> server;
  if (options.port >= 0) {
    server = std::make_unique<zusim::LiveServer>(scenario, simulation, log);
    int port = server->start(options.port);
    if (port < 0) {
      std::cerr << "zuresource-sim: cannot serve on 127.0.0.1:" << options.port << std::endl;
      return 2;
    }
    std::cout << "Live status page: http://127.0.0.1:" << port << "/" << std::endl;
  }

  zusim::RunRecord record = simulation.run();
  printStatus(record.finalStatus);
  int status = printResults(record);
  if (!options.report.empty()) {
    if (!zusim::writeReport(options.report, scenario, log.events(), record)) {
      std::cerr << "zuresource-sim: cannot write " << options.report << std::endl;
      status = 2;
    } else {
      std::cout << "Report: " << options.report << std::endl;
    }
  }
  if (server) {
    server->finished(status);
    std::this_thread::sleep_for(std::chrono::seconds(options.lingerSeconds));
    server->stop();
  }
  return status;
}
