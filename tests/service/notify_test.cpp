// zuresourced under a service manager: it says READY=1 on $NOTIFY_SOCKET
// only once its socket answers, STOPPING=1 when it begins to stop, and runs
// the same when nobody listens there. And the unit that starts it.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <zuclient/zuclient.h>

#include "support/childprocess.h"

namespace {

using zutest::ChildProcess;
using zutest::TempDir;

/// A datagram socket standing in for the service manager's.
class ManagerSocket {
 public:
  /// Binds `name`: a path, or an abstract name when it starts with '@'.
  explicit ManagerSocket(const std::string& name) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&address), size) == 0;
  }
  ~ManagerSocket() { ::close(fd_); }
  bool bound() const { return bound_; }
  /// The next datagram, or "" when none came for long.
  std::string receive() {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, 30000) != 1) return {};
    char buffer[256];
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
  }

 private:
  int fd_ = -1;
  bool bound_ = false;
};

/// Starts zuresourced on a socket in `dir` with NOTIFY_SOCKET set to `notify`.
std::unique_ptr<ChildProcess> startService(const std::string& dir, const std::string& notify) {
  ::setenv("NOTIFY_SOCKET", notify.c_str(), 1);
  auto process = std::make_unique<ChildProcess>(
      ZURESOURCED, std::vector<std::string>{"--listen", "unix:" + dir + "/zuresource.sock"});
  ::unsetenv("NOTIFY_SOCKET");
  return process;
}

// The manager's socket a path or an abstract name.
TEST(NotifyTest, ReadyOnlyOnceItAnswersAndStoppingOnTerm) {
  for (const bool abstract : {false, true}) {
    TempDir dir;
    const std::string name =
        abstract ? "@zutest-notify-" + std::to_string(::getpid()) : dir.path() + "/notify";
    ManagerSocket manager(name);
    ASSERT_TRUE(manager.bound()) << name;
    auto service = startService(dir.path(), name);
    ASSERT_EQ(manager.receive(), "READY=1") << name;
    // Ready means a client is served now, not after some retry.
    EXPECT_NO_THROW(ZU::client::ZUClient("unix:" + dir.path() + "/zuresource.sock").status());
    service->signal(SIGTERM);
    EXPECT_EQ(manager.receive(), "STOPPING=1") << name;
    EXPECT_EQ(service->wait(), 0) << name;
  }
}

// A manager socket that is gone, or a name that is no socket at all, is ignored.
TEST(NotifyTest, UnreachableManagerIsIgnored) {
  for (const std::string notify : {"/nonexistent/notify", "not-a-socket-name", "@"}) {
    TempDir dir;
    auto service = startService(dir.path(), notify);
    EXPECT_FALSE(service->lineStartingWith("zuresourced: listening").empty()) << notify;
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0) << notify;
  }
}

// systemd waits for READY=1 only with Type=notify, and starts the program
// where it is installed.
TEST(ServiceUnitTest, IsNotifyAndStartsTheInstalledProgram) {
  std::ifstream file(ZURESOURCED_UNIT);
  ASSERT_TRUE(file) << ZURESOURCED_UNIT;
  std::string type, execStart, runtimeDirectory, line;
  while (std::getline(file, line)) {
    if (line.rfind("Type=", 0) == 0) type = line.substr(5);
    if (line.rfind("ExecStart=", 0) == 0) execStart = line.substr(10);
    if (line.rfind("RuntimeDirectory=", 0) == 0) runtimeDirectory = line.substr(17);
  }
  EXPECT_EQ(type, "notify");
  EXPECT_EQ(execStart.substr(0, execStart.find(' ')), ZURESOURCED_INSTALLED);
  // The socket the unit names is in the folder systemd makes for it.
  EXPECT_NE(execStart.find("unix:/run/" + runtimeDirectory + "/"), std::string::npos) << execStart;
}

}  // namespace
