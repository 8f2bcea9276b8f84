#include "cli.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <sys/stat.h>

namespace zusim {

const char kStandardInput[] = "-";

namespace {

const int kLastPort = 65535;
const int kLongestLinger = 24 * 3600;

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

/// Refuses a path that cannot be written, before anything runs. An existing
/// file is left as it is until it is replaced.
void checkWritable(const std::string& option, const std::string& path) {
  if (path == kStandardInput) return;
  struct stat st;
  bool existed = stat(path.c_str(), &st) == 0;
  if (existed && !S_ISREG(st.st_mode))
    throw CommandLineError(option + " " + path + ": not a regular file");
  bool writable = static_cast<bool>(std::ofstream(path, std::ios::app));
  if (!existed) std::remove(path.c_str());
  if (!writable) throw CommandLineError(option + " " + path + ": cannot be written");
}

struct OptionEntry {
  const char* name;
  const char* value;  // what it takes, or null for a switch
  const char* fallback;
  const char* help;
  std::function<void(Options&, const std::string&)> set;
};

const std::vector<OptionEntry>& optionTable() {
  static const std::vector<OptionEntry> all = {
      {"--report", "FILE.html", "none",
       "write a self-contained HTML report with a timeline chart (one scenario, or the "
       "replayed run)",
       [](Options& o, const std::string& v) { o.report = v; }},
      {"--junit", "FILE.xml", "none",
       "write the results as JUnit XML: a test suite per scenario, a test case per expectation",
       [](Options& o, const std::string& v) { o.junit = v; }},
      {"--jsonl", "FILE|-", "none",
       "write the library's events as JSON lines (the recorder's format) to FILE, or to "
       "standard output for - (the text log then goes to standard error)",
       [](Options& o, const std::string& v) { o.jsonl = v; }},
      {"--record", "FILE.jsonl", "none",
       "record the run for --replay: a snapshot of the resources, then every event (one "
       "scenario)",
       [](Options& o, const std::string& v) { o.record = v; }},
      {"--replay", "FILE.jsonl", "none",
       "replay a recording (of the recorder on a robot, or of --record): re-issue its requests, "
       "releases, switches, state changes and stops at their times and compare the decisions; "
       "exit status 1 at the first divergence, which is printed with both sides",
       [](Options& o, const std::string& v) { o.replay = v; }},
      {"--to-scenario", "FILE.json", "none",
       "with --replay: write the recording as a scenario, with expectations from the recorded "
       "outcomes",
       [](Options& o, const std::string& v) { o.toScenario = v; }},
      {"--etcd", "URL[,URL]...", "a local etcd, started for scenarios with fleet resources",
       "play fleet resources on the etcd cluster at these client URLs (http://host:port; "
       "repeatable); each run keeps its keys under a prefix of its own",
       [](Options& o, const std::string& v) {
         std::istringstream urls(v);
         for (std::string url; std::getline(urls, url, ',');) {
           if (url.compare(0, 7, "http://") != 0 || url.size() == 7)
             throw CommandLineError("--etcd needs http://host:port URLs, not \"" + url + "\"");
           o.etcd.push_back(url);
         }
       }},
      {"--serve", "PORT", "off",
       "serve the live status page on http://127.0.0.1:PORT/ while the scenario runs (PORT 0: "
       "any free port, printed at the start; one scenario)",
       [](Options& o, const std::string& v) { o.port = number(v, "--serve", kLastPort); }},
      {"--linger", "SECONDS", "0", "keep serving the final page SECONDS after the end",
       [](Options& o, const std::string& v) {
         o.lingerSeconds = number(v, "--linger", kLongestLinger);
       }},
      {"--quiet", nullptr, "off", "print only failed expectations and the summary",
       [](Options& o, const std::string&) { o.quiet = true; }},
      {"--check", nullptr, "off",
       "read and check each scenario (warnings too), or the recording of --replay, then exit "
       "without running it",
       [](Options& o, const std::string&) { o.checkOnly = true; }},
      {"--strict", nullptr, "off", "refuse a scenario that draws warnings (exit status 2)",
       [](Options& o, const std::string&) { o.strict = true; }},
      {"--version", nullptr, "", "print the version and exit",
       [](Options& o, const std::string&) { o.version = true; }},
      {"--help", nullptr, "", "print this help and exit (also -h)",
       [](Options& o, const std::string&) { o.help = true; }},
  };
  return all;
}

/// The *.json files in `folder`, in name order.
std::vector<std::string> scenariosIn(const std::string& folder) {
  std::vector<std::string> out;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error))
    if (entry.is_regular_file() && entry.path().extension() == ".json")
      out.push_back(entry.path().string());
  if (error) throw CommandLineError(folder + ": cannot be listed: " + error.message());
  if (out.empty()) throw CommandLineError(folder + ": holds no .json scenario");
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace

Options parseCommandLine(const std::vector<std::string>& args, const std::string& fallback) {
  Options o;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const std::string name = arg == "-h" ? "--help" : arg;
    auto option = std::find_if(optionTable().begin(), optionTable().end(),
                               [&](const OptionEntry& s) { return name == s.name; });
    if (option != optionTable().end()) {
      if (option->value && i + 1 >= args.size()) throw CommandLineError(arg + " needs a value");
      option->set(o, option->value ? args[++i] : std::string());
    } else if (arg != kStandardInput && arg.compare(0, 1, "-") == 0) {
      throw CommandLineError("unknown option " + arg);
    } else if (arg != kStandardInput && std::filesystem::is_directory(arg)) {
      for (const std::string& file : scenariosIn(arg)) o.scenarios.push_back(file);
    } else {
      if (arg == kStandardInput &&
          std::count(o.scenarios.begin(), o.scenarios.end(), kStandardInput))
        throw CommandLineError("standard input (-) can be read once");
      o.scenarios.push_back(arg);
    }
  }
  if (o.help || o.version) return o;
  if (!o.toScenario.empty() && o.replay.empty())
    throw CommandLineError("--to-scenario needs --replay");
  if (!o.replay.empty() && !o.scenarios.empty())
    throw CommandLineError("--replay runs a recording, not scenarios");
  if (!o.replay.empty() &&
      (!o.junit.empty() || !o.jsonl.empty() || !o.record.empty() || o.port >= 0))
    throw CommandLineError("--replay takes --report, --to-scenario and --quiet only");
  if (o.scenarios.empty() && o.replay.empty()) o.scenarios.push_back(fallback);
  bool oneFile = !o.report.empty() || !o.record.empty() ||
                 !(o.jsonl.empty() || o.jsonl == kStandardInput) || o.port >= 0;
  if (o.scenarios.size() > 1 && oneFile)
    throw CommandLineError("--report, --record, --jsonl FILE and --serve take one scenario, not " +
                           std::to_string(o.scenarios.size()));
  if (!o.toScenario.empty()) checkWritable("--to-scenario", o.toScenario);
  if (!o.report.empty()) checkWritable("--report", o.report);
  if (!o.junit.empty()) checkWritable("--junit", o.junit);
  if (!o.jsonl.empty()) checkWritable("--jsonl", o.jsonl);
  if (!o.record.empty()) checkWritable("--record", o.record);
  return o;
}

std::string usage() {
  std::ostringstream out;
  out << "usage: zuresource-sim [OPTIONS] [SCENARIO.json | FOLDER | -]...\n"
         "  Runs each scenario in turn: a file, every *.json file of a folder, or - for\n"
         "  standard input; with none, the bundled examples/humanoid.json. Each prints its\n"
         "  event log, final status page and expectations, then one summary line.\n"
         "  The scenario format, with every action and expectation: docs/simulator.md.\n"
         "options (default in brackets):\n";
  const std::size_t indent = 24, width = 80;
  for (const OptionEntry& s : optionTable()) {
    std::string line = std::string("  ") + s.name + (s.value ? std::string(" ") + s.value : "");
    // A name too long for its column gets a line of its own.
    line = line.size() + 1 < indent ? line + std::string(indent - line.size(), ' ')
                                    : line + "\n" + std::string(indent, ' ');
    std::istringstream words(std::string(s.help) +
                             (*s.fallback ? " [" + std::string(s.fallback) + "]" : ""));
    std::size_t column = indent;
    out << line;
    for (std::string word; words >> word; column += word.size() + 1) {
      if (column + word.size() > width && column > indent) {
        out << "\n" << std::string(indent, ' ');
        column = indent;
      } else if (column > indent) {
        out << ' ';
      }
      out << word;
    }
    out << "\n";
  }
  out << "exit status (the worst of all scenarios):\n"
         "  0  every expectation held\n"
         "  1  an expectation failed (each is listed with what was found), or a replay\n"
         "     diverged from its recording\n"
         "  2  a scenario or recording was refused before it ran (its file, entry and\n"
         "     fault are named), a file could not be written, or the command line is wrong\n"
         "  130, 143  interrupted (Ctrl-C, SIGTERM): the running scenario stopped as at its\n"
         "     stopAt, its etcd ended; a second signal ends the program at once\n";
  return out.str();
}

std::string versionLine() { return std::string("zuresource-sim ") + ZUSIM_VERSION; }

}  // namespace zusim
