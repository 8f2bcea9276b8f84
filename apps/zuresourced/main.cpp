// zuresourced: the robot's resource service. Loads the robot's resource tree,
// listens on a Unix socket (or TCP), and arbitrates for every client through
// the library, until SIGTERM or SIGINT.

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/make_shared.hpp>

#include <zuclient/zuclient.h>
#include <zumanager/zumanager.h>
#include <zumanager/zuresourcetree.h>
#include <zuobserve/zurecorder.h>
#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>
#include <zuservice/zudefaulttree.h>
#include <zuservice/zuserver.h>
#include <zuservice/zuservicecontract.h>

#include "livepage.h"
#include "notify.h"

namespace {

constexpr char kUsage[] =
    "usage: zuresourced [--listen ADDRESS] [--tree FILE] [--keepalive-ms N] [--max-waits N]\n"
    "                  [--record FILE.jsonl] [--http [ADDR:]PORT]\n"
    "  --listen ADDRESS   unix:/path/to.sock or HOST:PORT (default: unix:$XDG_RUNTIME_DIR/zuresource.sock,\n"
    "                     or unix:/run/zuresource/zuresource.sock as root)\n"
    "  --tree FILE        the robot's resource tree, {\"resources\": [...]} (default: the bundled robot)\n"
    "  --keepalive-ms N   give up a client that leaves pings unanswered this long (default 2000)\n"
    "  --max-waits N      acquire calls run at once; one more is refused until one ends (default 1000)\n"
    "  --record FILE      write every event, as JSON lines, for zuresource-sim --replay\n"
    "  --http [ADDR:]PORT serve the live page, read-only (default address 127.0.0.1;\n"
    "                     port 0: any free port, the one taken is printed)\n";

[[noreturn]] void usage(const std::string& problem) {
  std::cerr << "zuresourced: " << problem << "\n" << kUsage;
  std::exit(2);
}

/// `text` as a number from `low` to `high`, or the usage naming `option`.
long number(const std::string& option, const std::string& text, const char* what, long low,
            long high) {
  char* end = nullptr;
  errno = 0;
  const long n = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || n < low || n > high) {
    usage(option + ": " + what + ", " + std::to_string(low) + " to " + std::to_string(high) +
          ", not \"" + text + "\"");
  }
  return n;
}

/// Whether something answers on the Unix socket at `path`.
bool answers(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  std::string listen = ZU::client::defaultTarget();
  std::string treeFile;
  std::string recordFile;
  long keepaliveMs = ZU::service::contract::kDefaultKeepaliveMs;
  long maxWaits = ZU::service::contract::kDefaultMaxWaits;
  std::string httpHost;
  int httpPort = -1;  // -1: no live page; 0: any free port
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--listen") {
      listen = value();
    } else if (arg == "--tree") {
      treeFile = value();
    } else if (arg == "--record") {
      recordFile = value();
    } else if (arg == "--http") {
      const std::string text = value();
      if (!zuresourced::parseHttpAddress(text, httpHost, httpPort))
        usage("--http: PORT or ADDRESS:PORT, a port 0 to 65535, not \"" + text + "\"");
    } else if (arg == "--keepalive-ms") {
      keepaliveMs = number(arg, value(), "a whole number of milliseconds", 100, 3600000);
    } else if (arg == "--max-waits") {
      maxWaits = number(arg, value(), "a whole number", 1, 100000);
    } else if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      return 0;
    } else {
      usage("unknown argument \"" + arg + "\"");
    }
  }

  ZU::ZUResourceTree tree;
  try {
    tree = treeFile.empty()
               ? ZU::parseResourceTree(ZU::service::defaultTreeJson(), "(bundled robot tree)")
               : ZU::loadResourceTree(treeFile);
  } catch (const std::exception& error) {
    std::cerr << "zuresourced: " << error.what() << "\n";
    return 2;
  }

  // Signals are taken by sigwait below, in this thread only.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const bool unixSocket = listen.rfind("unix:", 0) == 0;
  const std::string path = unixSocket ? listen.substr(5) : std::string();
  if (unixSocket) {
    if (answers(path)) {
      std::cerr << "zuresourced: another service listens on " << path << "\n";
      return 1;
    }
    // The default folder of root's socket may not exist yet.
    const auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) ::mkdir(path.substr(0, slash).c_str(), 0755);
  }

  try {
    ZU::ZUManager manager(tree);
    boost::shared_ptr<ZU::ZURecorder> recording;
    if (!recordFile.empty()) {
      recording = boost::make_shared<ZU::ZURecorder>(recordFile);
      // The first snapshot tells a replay the tree.
      recording->record(ZU::takeSnapshot(manager.roots()));
      ZU::ZUObservers::add(recording);
    }
    // The live page is bound first: when it cannot be, nothing has started.
    zuresourced::LivePage live(manager);
    const int bound = httpPort < 0 ? -1 : live.start(httpHost, httpPort);
    if (httpPort >= 0 && bound < 0) {
      throw std::runtime_error("cannot serve the live page on " + httpHost + ":" +
                               std::to_string(httpPort));
    }
    ZU::service::ZUServerOptions options;
    options.listen = listen;
    options.keepalive = std::chrono::milliseconds(keepaliveMs);
    options.maxWaits = static_cast<std::size_t>(maxWaits);
    ZU::service::ZUServer server(manager, options);
    server.start();
    std::cout << "zuresourced: listening on " << server.address() << std::endl;
    if (bound >= 0) {
      std::cout << "zuresourced: live page on http://" << httpHost << ":" << bound << "/"
                << std::endl;
    }
    zuresourced::notifyServiceManager("READY=1");

    int signal = 0;
    sigwait(&signals, &signal);
    std::cout << "zuresourced: " << strsignal(signal) << ", stopping" << std::endl;
    zuresourced::notifyServiceManager("STOPPING=1");
    live.stop();
    server.stop();
    if (recording) {
      recording->record(ZU::takeSnapshot(manager.roots()));
      ZU::ZUObservers::remove(recording);
      recording->flush();
    }
  } catch (const std::exception& error) {
    std::cerr << "zuresourced: " << error.what() << "\n";
    return 1;
  }
  if (unixSocket) ::unlink(path.c_str());
  return 0;
}
