// zuresourcectl: the command-line client of the robot's resource service.
// Reads (status, snapshot, explain, watch) and `run`, which holds resources
// while a command runs, like flock(1).

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zuclient/zuclient.h>

extern char** environ;

namespace {

using ZU::client::ZUServiceError;

// Exit statuses, besides a command's own under `run`.
constexpr int kUsage = 2;            // a bad command line
constexpr int kRefused = 65;         // the service refused the request (unknown name, ...)
constexpr int kUnavailable = 69;     // the service cannot be reached, stopped, or gave us up
constexpr int kNotObtained = 75;     // the resources could not be had (time limit, busy, stopped)
constexpr int kCannotRun = 126;      // the command exists but cannot be run
constexpr int kCommandNotFound = 127;

constexpr char kUsageText[] =
    "usage: zuresourcectl [--service ADDRESS] COMMAND ...\n"
    "  status [--json]                      every root's status lines (--json: status values)\n"
    "  snapshot                             the arbitration at this moment, as JSON\n"
    "  explain OWNER RESOURCE [--no-wait A,B] [--json]\n"
    "                                       what an acquire of OWNER would do now\n"
    "  watch [--from SEQUENCE]              the events as JSON lines, until interrupted\n"
    "  run -r A,B [--owner NAME] [--module NAME] [--timeout S] [--no-wait A,B] [--yield]\n"
    "      -- COMMAND ARGS...               hold A and B while COMMAND runs\n"
    "exit status: 0 done (run: COMMAND's own), 2 bad command line, 65 refused by the service,\n"
    "  69 service unavailable or session lost, 75 resources not obtained, 126/127 COMMAND\n"
    "  cannot be run / not found\n";

[[noreturn]] void usage(const std::string& problem) {
  std::cerr << "zuresourcectl: " << problem << "\n" << kUsageText;
  std::exit(kUsage);
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> names;
  std::stringstream in(text);
  std::string name;
  while (std::getline(in, name, ',')) {
    if (name.empty()) usage("an empty name in the list \"" + text + "\"");
    names.push_back(name);
  }
  if (names.empty()) usage("an empty list");
  return names;
}

int exitFor(const ZUServiceError& error) {
  std::cerr << "zuresourcectl: " << error.what() << "\n";
  switch (error.code()) {
    case grpc::StatusCode::UNAVAILABLE:
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      return kUnavailable;
    default:
      return kRefused;
  }
}

/// The status text with one line per resource ("<br />" ends each).
std::string statusLines(std::string text) {
  const std::string br = "<br />";
  for (auto at = text.find(br); at != std::string::npos; at = text.find(br, at + 1)) {
    text.replace(at, br.size(), "\n");
  }
  return text;
}

// --- run ------------------------------------------------------------------------

std::atomic<pid_t> gChild{0};

void forward(int signal) {
  const pid_t child = gChild.load();
  if (child > 0) kill(child, signal);
}

struct RunOptions {
  std::vector<std::string> resources;
  std::string owner;  // empty: "<module>/run"
  std::string module;
  int timeout = 0;
  std::vector<std::string> noWait;
  bool yield = false;
  std::vector<std::string> command;
};

int run(const std::string& target, const RunOptions& options) {
  std::atomic<bool> lost{false};
  std::atomic<bool> yielded{false};
  std::atomic<bool> toldKeeping{false};
  std::atomic<bool> closing{false};  // we end the session ourselves
  // Set before the command starts; the handlers read it.
  ZU::client::ZUSession::Handlers handlers;
  handlers.onWanted = [&](const std::string& resource, const std::string&) {
    if (options.yield) {
      if (!yielded.exchange(true)) {
        std::cerr << "zuresourcectl: " << resource
                  << " is wanted by another owner: stopping the command (--yield)\n";
        forward(SIGTERM);
      }
    } else if (!toldKeeping.exchange(true)) {
      std::cerr << "zuresourcectl: " << resource
                << " is wanted by another owner; keeping it (--yield gives it back)\n";
    }
  };
  handlers.onLost = [&](const std::string& resource, const std::string&, const std::string& by,
                        const std::string& reason) {
    if (!lost.exchange(true)) {
      std::cerr << "zuresourcectl: lost " << resource << " to " << by << " (" << reason
                << "): stopping the command\n";
      forward(SIGTERM);
    }
  };
  handlers.onEnded = [&](const grpc::Status& status) {
    if (closing.load()) return;
    if (!lost.exchange(true)) {
      std::cerr << "zuresourcectl: the session ended (" << status.error_message()
                << "): the resources are gone, stopping the command\n";
      forward(SIGTERM);
    }
  };
  const std::string module =
      options.module.empty() ? "zuresourcectl-" + std::to_string(getpid()) : options.module;
  // Owner names are hierarchical by prefix: "zuresourcectl-12" would be an
  // ancestor of "zuresourcectl-123"'s owner and be handed its resources.
  const std::string owner = options.owner.empty() ? module + "/run" : options.owner;
  std::unique_ptr<ZU::client::ZUSession> session;
  std::vector<ZU::client::ZUAcquisition> held;
  // Ending the session ourselves, whichever way run() returns, is no loss.
  struct Closing {
    std::atomic<bool>& closing;
    ~Closing() { closing = true; }
  } closeQuietly{closing};
  try {
    session = std::make_unique<ZU::client::ZUSession>(module, handlers, target);
    for (const auto& resource : options.resources) {
      held.push_back(session->acquire(owner, resource, options.timeout, options.noWait));
      if (!held.back().notObtained().empty()) {
        std::string names;
        for (const auto& n : held.back().notObtained()) names += (names.empty() ? "" : ",") + n;
        std::cerr << "zuresourcectl: not obtained (busy, in the no-wait list): " << names << "\n";
        return kNotObtained;
      }
    }
  } catch (const ZU::client::ZUWaitError& error) {
    std::cerr << "zuresourcectl: not obtained: " << error.description() << "\n";
    return kNotObtained;
  } catch (const ZUServiceError& error) {
    return exitFor(error);
  }

  std::vector<char*> argv;
  std::vector<std::string> words = options.command;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  // The command starts with the signal mask and dispositions we were given.
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &previous);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &previous);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t child = 0;
  const int failed = posix_spawnp(&child, argv[0], nullptr, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (failed == 0) {
    gChild = child;
    struct sigaction action {};
    action.sa_handler = forward;
    sigemptyset(&action.sa_mask);
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(s, &action, nullptr);
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (failed != 0) {
    std::cerr << "zuresourcectl: cannot run " << options.command[0] << ": " << std::strerror(failed)
              << "\n";
    return failed == ENOENT ? kCommandNotFound : kCannotRun;
  }
  // A wanted notice that came before the command started stops it now.
  if (options.yield && yielded.load()) kill(child, SIGTERM);
  if (lost.load()) kill(child, SIGTERM);

  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  gChild = 0;
  const int commandStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  // Give back in reverse order, then end the session.
  try {
    while (!held.empty()) {
      if (!held.back().lost()) held.back().release();
      held.pop_back();
    }
  } catch (const ZUServiceError& error) {
    std::cerr << "zuresourcectl: giving back: " << error.what() << "\n";
  }
  closing = true;
  const bool wasLost = lost.load();
  session.reset();
  if (wasLost) return kUnavailable;
  return commandStatus;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string target = ZU::client::defaultTarget();
  std::size_t i = 0;
  auto value = [&](const std::string& option) -> std::string {
    if (i + 1 >= args.size()) usage(option + " needs a value");
    return args[++i];
  };
  for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
    if (args[i] == "--service") {
      target = value("--service");
    } else if (args[i] == "--help") {
      std::cout << kUsageText;
      return 0;
    } else {
      usage("unknown option " + args[i]);
    }
  }
  if (i >= args.size()) usage("no command");
  const std::string command = args[i++];

  try {
    if (command == "status" || command == "snapshot" || command == "explain" ||
        command == "watch") {
      bool json = false;
      std::vector<std::string> positional;
      std::vector<std::string> noWait;
      std::uint64_t from = 0;
      for (; i < args.size(); ++i) {
        if (args[i] == "--json") {
          json = true;
        } else if (args[i] == "--no-wait" && command == "explain") {
          noWait = splitList(value("--no-wait"));
        } else if (args[i] == "--from" && command == "watch") {
          const std::string text = value("--from");
          char* end = nullptr;
          errno = 0;
          from = std::strtoull(text.c_str(), &end, 10);
          if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0) {
            usage("--from: a sequence number, not \"" + text + "\"");
          }
        } else if (args[i].rfind("--", 0) == 0) {
          usage("unknown option " + args[i] + " of " + command);
        } else {
          positional.push_back(args[i]);
        }
      }
      const std::size_t wanted = command == "explain" ? 2 : 0;
      if (positional.size() != wanted) usage(command + ": wrong number of arguments");
      ZU::client::ZUClient client(target);
      if (command == "status") {
        std::cout << (json ? client.statusValuesJson() + "\n" : statusLines(client.status()));
      } else if (command == "snapshot") {
        std::cout << client.snapshotJson() << "\n";
      } else if (command == "explain") {
        const auto answer = client.explain(positional[0], positional[1], noWait);
        std::cout << (json ? answer.first : answer.second) << "\n";
      } else {
        const grpc::Status status = client.watch(from, [](std::uint64_t, const std::string& json) {
          std::cout << json << std::endl;
          return static_cast<bool>(std::cout);
        });
        if (!status.ok()) throw ZUServiceError(status);
      }
      return 0;
    }
    if (command == "run") {
      RunOptions options;
      for (; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--") {
          options.command.assign(args.begin() + static_cast<long>(i) + 1, args.end());
          break;
        } else if (a == "-r" || a == "--resources") {
          options.resources = splitList(value(a));
        } else if (a == "--owner") {
          options.owner = value(a);
        } else if (a == "--module") {
          options.module = value(a);
        } else if (a == "--timeout") {
          const std::string text = value(a);
          char* end = nullptr;
          errno = 0;
          const long seconds = std::strtol(text.c_str(), &end, 10);
          if (text.empty() || *end != '\0' || errno != 0 || seconds < 0 || seconds > 86400) {
            usage("--timeout: whole seconds, 0 (no limit) to 86400, not \"" + text + "\"");
          }
          options.timeout = static_cast<int>(seconds);
        } else if (a == "--no-wait") {
          options.noWait = splitList(value(a));
        } else if (a == "--yield") {
          options.yield = true;
        } else {
          usage("run: unknown argument " + a + " (the command comes after --)");
        }
      }
      if (options.resources.empty()) usage("run: -r RESOURCES is needed");
      if (options.command.empty()) usage("run: no command after --");
      return run(target, options);
    }
  } catch (const ZUServiceError& error) {
    return exitFor(error);
  }
  usage("unknown command " + command);
}
