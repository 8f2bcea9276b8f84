#pragma once

// The simulator's command line: its options with their defaults, the help
// text that lists them, and the scenarios named (files, folders, standard
// input).

#include <stdexcept>
#include <string>
#include <vector>

namespace zusim {

/// A mistake on the command line, as opposed to one in a scenario.
class CommandLineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Exit statuses, the worst of several runs winning.
enum ExitStatus { kAllHeld = 0, kSomeFailed = 1, kRefused = 2 };

/// The name that stands for standard input in place of a scenario file.
extern const char kStandardInput[];

struct Options {
  std::vector<std::string> scenarios;  // in order; folders expanded; kStandardInput
  std::string report;                  // empty: none, and so on
  std::string junit;
  std::string jsonl;  // kStandardInput: standard output
  std::string record;
  std::string replay;  // a recording to replay instead of scenarios
  std::string toScenario;
  std::vector<std::string> etcd;  // the fleet's etcd client URLs; empty: the simulator's own
  int port = -1;                  // negative: no live page
  int lingerSeconds = 0;
  bool quiet = false;
  bool strict = false;
  bool checkOnly = false;
  bool help = false;
  bool version = false;
};

/// Parses `args` (without the program's name). A folder stands for its
/// *.json files in name order; with no scenario named, `fallback` runs.
/// Options that write one file or serve one page take a single scenario.
/// Files to be written are checked before anything runs. Throws
/// CommandLineError.
Options parseCommandLine(const std::vector<std::string>& args, const std::string& fallback);

/// The help text: every option with its default, and the exit statuses.
std::string usage();

/// "zuresource-sim 0.1.0".
std::string versionLine();

}  // namespace zusim
