#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace ZU {

/// A local etcd cluster for tests, benchmarks and simulations: Debian's etcd
/// binary, each member on free ports of 127.0.0.1, all data in a temporary
/// folder that goes with the object. Members can be killed, stopped and
/// started again (with their data) to play failures.
///
/// Thread safety: not thread safe; one thread controls it.
class ZUEtcdServer {
 public:
  /// Starts `members` members as one cluster and waits until each serves.
  /// Throws ZUError when etcd is missing or does not serve within 30 s.
  explicit ZUEtcdServer(int members = 1);
  /// Kills every member still running and removes the folder.
  ~ZUEtcdServer();
  ZUEtcdServer(const ZUEtcdServer&) = delete;
  ZUEtcdServer& operator=(const ZUEtcdServer&) = delete;

  /// Every member's client URL, in member order.
  std::vector<std::string> endpoints() const;
  /// Ends member `member` at once (SIGKILL), or politely (SIGTERM).
  void kill(int member);
  void stop(int member);
  /// Starts a member that was killed or stopped, with its data, and waits
  /// until it serves (in a cluster, until the cluster has a leader).
  void start(int member);

 private:
  struct Member {
    std::string name;
    int clientPort = 0;
    int peerPort = 0;
    pid_t pid = -1;
  };
  void spawn(Member& member);
  void awaitServing(const Member& member) const;
  void end(Member& member, int signal);

  std::string folder_;
  std::string initialCluster_;
  std::vector<Member> members_;
};

}  // namespace ZU
