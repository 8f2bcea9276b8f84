#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <zufleet/zuetcdclient.h>
#include <zufleettesting/zuetcdserver.h>

extern char** environ;

namespace ZU {

namespace {
const char* const kFile = "fleet/testing/zufleettesting/zuetcdserver";
const int kStartLimitMs = 30000;

// A port of 127.0.0.1 that nothing listens on now.
int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    if (fd >= 0) ::close(fd);
    throw ZUError("ZUEtcdServer", "freePort", "no free port on 127.0.0.1", kFile, __LINE__);
  }
  ::close(fd);
  return ntohs(address.sin_port);
}

std::string url(int port) { return "http://127.0.0.1:" + std::to_string(port); }
}  // namespace

ZUEtcdServer::ZUEtcdServer(int members) {
  std::string pattern = (std::filesystem::temp_directory_path() / "zuetcd-XXXXXX").string();
  if (!::mkdtemp(&pattern[0]))
    throw ZUError("ZUEtcdServer", "ZUEtcdServer", "cannot make a temporary folder", kFile,
                  __LINE__);
  folder_ = pattern;
  for (int i = 0; i < members; ++i) {
    Member member;
    member.name = "m" + std::to_string(i);
    member.clientPort = freePort();
    member.peerPort = freePort();
    initialCluster_ += (i ? "," : "") + member.name + "=" + url(member.peerPort);
    members_.push_back(member);
  }
  try {
    for (Member& member : members_) spawn(member);
    for (const Member& member : members_) awaitServing(member);
  } catch (...) {
    for (Member& member : members_) end(member, SIGKILL);
    std::filesystem::remove_all(folder_);
    throw;
  }
}

ZUEtcdServer::~ZUEtcdServer() {
  for (Member& member : members_) end(member, SIGKILL);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::vector<std::string> ZUEtcdServer::endpoints() const {
  std::vector<std::string> urls;
  for (const Member& member : members_) urls.push_back(url(member.clientPort));
  return urls;
}

void ZUEtcdServer::kill(int member) { end(members_.at(member), SIGKILL); }

void ZUEtcdServer::stop(int member) { end(members_.at(member), SIGTERM); }

void ZUEtcdServer::start(int member) {
  Member& m = members_.at(member);
  if (m.pid > 0) return;
  spawn(m);
  awaitServing(m);
}

void ZUEtcdServer::spawn(Member& member) {
  const std::string data = folder_ + "/" + member.name;
  std::vector<std::string> args = {"etcd",
                                   "--name=" + member.name,
                                   "--data-dir=" + data,
                                   "--listen-client-urls=" + url(member.clientPort),
                                   "--advertise-client-urls=" + url(member.clientPort),
                                   "--listen-peer-urls=" + url(member.peerPort),
                                   "--initial-advertise-peer-urls=" + url(member.peerPort),
                                   "--initial-cluster=" + initialCluster_,
                                   "--initial-cluster-token=" + folder_,
                                   "--initial-cluster-state=new"};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::string log = data + ".log";
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  // etcd starts with no signal blocked or ignored, whatever the caller's
  // thread blocks (a program that waits for its signals in a thread of its
  // own blocks them everywhere else), so that stop() and kill() end it.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int failed = posix_spawnp(&pid, "etcd", &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failed)
    throw ZUError("ZUEtcdServer", "start", "cannot run etcd (is Debian's etcd-server installed?)",
                  kFile, __LINE__);
  member.pid = pid;
}

void ZUEtcdServer::awaitServing(const Member& member) const {
  ZUEtcdClient client({url(member.clientPort)}, 1000);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartLimitMs);
  for (;;) {
    try {
      client.range("/", ZUEtcdClient::prefixEnd("/"), 0, 1);  // needs a leader
      return;
    } catch (const ZUEtcdError& e) {
      int status = 0;
      if (::waitpid(member.pid, &status, WNOHANG) == member.pid)
        throw ZUError(
            "ZUEtcdServer", "start",
            "etcd " + member.name + " ended at once; see " + folder_ + "/" + member.name + ".log",
            kFile, __LINE__);
      if (std::chrono::steady_clock::now() > deadline)
        throw ZUError("ZUEtcdServer", "start",
                      "etcd " + member.name + " does not serve: " + e.getDescription(), kFile,
                      __LINE__);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
}

void ZUEtcdServer::end(Member& member, int signal) {
  if (member.pid <= 0) return;
  ::kill(member.pid, signal);
  ::waitpid(member.pid, nullptr, 0);
  member.pid = -1;
}

}  // namespace ZU
