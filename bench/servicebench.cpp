#include "servicebench.h"
#include "benchsupport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <nlohmann/json.hpp>

#include <zuclient/zuclient.h>
#include <zumanager/zumanager.h>
#include <zumanager/zuresourcetree.h>
#include <zuservice/zudefaulttree.h>
#include <zuservice/zuserver.h>

extern char** environ;

namespace zubench {

namespace {

using Clock = std::chrono::steady_clock;

/// A fresh folder for the sockets, removed at the end.
struct Folder {
  std::string path;
  Folder() {
    char pattern[] = "/tmp/zubench.XXXXXX";
    path = mkdtemp(pattern) ? pattern : "/tmp";
  }
  ~Folder() {
    const std::string command = "rm -rf '" + path + "'";
    if (std::system(command.c_str()) != 0) {
    }
  }
};

/// The bare echo: every call's one message comes back as it is.
class Echo final : public grpc::CallbackGenericService {
  class Reactor final : public grpc::ServerGenericBidiReactor {
   public:
    Reactor() { StartRead(&message_); }
    void OnReadDone(bool ok) override {
      if (ok) {
        StartWriteAndFinish(&message_, grpc::WriteOptions(), grpc::Status::OK);
      } else {
        Finish(grpc::Status::OK);
      }
    }
    void OnWriteDone(bool) override {}
    void OnDone() override { delete this; }

   private:
    grpc::ByteBuffer message_;
  };
  grpc::ServerGenericBidiReactor* CreateReactor(grpc::GenericCallbackServerContext*) override {
    return new Reactor;
  }
};

/// One blocking call of the echo, as a generated blocking stub makes it.
void echoOnce(grpc::GenericStub& stub, const grpc::ByteBuffer& request) {
  grpc::CompletionQueue queue;
  grpc::ClientContext context;
  auto call = stub.PrepareUnaryCall(&context, "/bench.Echo/Echo", request, &queue);
  call->StartCall();
  grpc::ByteBuffer reply;
  grpc::Status status;
  call->Finish(&reply, &status, reinterpret_cast<void*>(1));
  void* tag = nullptr;
  bool ok = false;
  queue.Next(&tag, &ok);
  queue.Shutdown();
  while (queue.Next(&tag, &ok)) {
  }
}


/// A process started with posix_spawn in a process group of its own.
struct Process {
  pid_t pid = -1;
  Process(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    std::vector<std::string> words = args;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    if (posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ) != 0) pid = -1;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
  void signalGroup(int sig) const {
    if (pid > 0) kill(-pid, sig);
  }
  int wait() {
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    pid = -1;
    return status;
  }
  ~Process() {
    if (pid > 0) {
      signalGroup(SIGKILL);
      wait();
    }
  }
};

/// Waits until the service at `target` answers.
bool answers(const std::string& target) {
  for (int i = 0; i < 500; ++i) {
    try {
      ZU::client::ZUClient client(target);
      client.status();
      return true;
    } catch (const std::exception&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  return false;
}

std::size_t waitCount(ZU::client::ZUClient& client) {
  return nlohmann::json::parse(client.snapshotJson()).at("waits").size();
}

/// Resident memory (kB) and processor time (ms, user + system) of `pid`.
std::pair<long, double> usage(pid_t pid) {
  long rssKb = 0;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) rssKb = std::stol(line.substr(6));
  }
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::stod(field);
  }
  return {rssKb, ticks * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK))};
}

/// Acquire + release of one free resource over the socket, against two
/// round trips of the bare echo on the same server and socket.
void roundTrip(ResultTable& table) {
  Folder folder;
  ZU::ZUManager manager(ZU::parseResourceTree(ZU::service::defaultTreeJson(), "bundled"));
  Echo echo;
  ZU::service::ZUServerOptions options;
  options.listen = "unix:" + folder.path + "/bench.sock";
  options.extend = [&echo](grpc::ServerBuilder& builder) {
    builder.RegisterCallbackGenericService(&echo);
  };
  ZU::service::ZUServer server(manager, options);
  server.start();
  ZU::client::ZUSession session("Bench", {}, options.listen);
  grpc::GenericStub stub(grpc::CreateChannel(options.listen, grpc::InsecureChannelCredentials()));
  const grpc::Slice slice(std::string(40, 'x'));
  const grpc::ByteBuffer request(&slice, 1);
  constexpr int kCount = 500;
  const double echoes = fastest(kCount, [&] {
    echoOnce(stub, request);
    echoOnce(stub, request);
  });
  const double cycle = fastest(kCount, [&] { session.acquire("bench", "Head", 5).release(); });
  table.addRatio("acquire + release over the Unix socket", cycle, "two echo round trips", echoes,
                 2.5);
  session.close();
  server.stop();
}

/// A client holding ten resources killed with SIGKILL: ms until its ten
/// waiters are granted.
double killedHolder(const std::string& zuresourced, const std::string& zuresourcectl) {
  Folder folder;
  const std::string tree = folder.path + "/tree.json";
  {
    std::ofstream out(tree);
    out << "{\"resources\": [";
    for (int i = 0; i < 10; ++i) out << (i ? "," : "") << "{\"name\": \"R" << i << "\"}";
    out << "]}\n";
  }
  const std::string target = "unix:" + folder.path + "/zuresource.sock";
  Process service({zuresourced, "--listen", target, "--tree", tree});
  if (!answers(target)) return -1;
  Process holder({zuresourcectl, "--service", target, "run", "-r", "R0,R1,R2,R3,R4,R5,R6,R7,R8,R9",
                  "--", "sleep", "600"});
  ZU::client::ZUClient reader(target);
  // The holder holds all ten (the last one taken is R9).
  for (int i = 0; i < 3000 && reader.status().find("R9 -> ") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::vector<std::unique_ptr<ZU::client::ZUSession>> sessions;
  std::vector<std::future<Clock::time_point>> grants;
  for (int i = 0; i < 10; ++i) {
    sessions.push_back(
        std::make_unique<ZU::client::ZUSession>("W" + std::to_string(i), ZU::client::ZUSession::Handlers(), target));
    auto* s = sessions.back().get();
    grants.push_back(std::async(std::launch::async, [s, i] {
      auto held = s->acquire("w" + std::to_string(i) + "/", "R" + std::to_string(i), 60);
      const auto at = Clock::now();
      held.detach();
      return at;
    }));
  }
  for (int i = 0; i < 6000 && waitCount(reader) < 10; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const Clock::time_point killed = Clock::now();
  holder.signalGroup(SIGKILL);
  Clock::time_point last = killed;
  for (auto& g : grants) last = std::max(last, g.get());
  sessions.clear();
  service.signalGroup(SIGTERM);
  service.wait();
  return msBetween(killed, last);
}

/// 1,000 sessions connected and idle, 100 of their owners waiting: the
/// service's resident memory and processor time over 5 s.
std::pair<long, double> crowd(const std::string& zuresourced) {
  Folder folder;
  const std::string target = "unix:" + folder.path + "/zuresource.sock";
  Process service({zuresourced, "--listen", target});
  if (!answers(target)) return {-1, -1};
  ZU::client::ZUSession holder("Holder", {}, target);
  auto head = holder.acquire("holder", "Head", 5);
  std::vector<std::unique_ptr<ZU::client::ZUSession>> sessions;
  for (int i = 0; i < 1000; ++i) {
    sessions.push_back(std::make_unique<ZU::client::ZUSession>(
        "C" + std::to_string(i), ZU::client::ZUSession::Handlers(), target));
  }
  std::vector<std::future<void>> waits;
  for (int i = 0; i < 100; ++i) {
    auto* s = sessions[static_cast<std::size_t>(i)].get();
    waits.push_back(std::async(std::launch::async, [s, i] {
      try {
        s->acquire("c" + std::to_string(i) + "/", "Head", 0);
      } catch (const std::exception&) {
      }
    }));
  }
  for (int i = 0; i < 1500 && waitCount(holder) < 100; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const auto before = usage(service.pid);
  const Clock::time_point start = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(5));
  const auto after = usage(service.pid);
  const double share = (after.second - before.second) / msBetween(start, Clock::now());
  for (auto& s : sessions) s->close();
  for (auto& w : waits) w.get();
  sessions.clear();
  service.signalGroup(SIGTERM);
  service.wait();
  return {after.first, share};
}

}  // namespace

void addServiceRows(ResultTable& table, const std::string& zuresourced,
                    const std::string& zuresourcectl) {
  table.addSection("11. The service (zuresourced, over a Unix socket)");
  std::cerr << "service: round trips..." << std::endl;
  roundTrip(table);
  std::cerr << "service: a holder of 10 resources killed..." << std::endl;
  std::vector<double> served;
  for (int i = 0; i < 3; ++i) served.push_back(killedHolder(zuresourced, zuresourcectl));
  const double ms = median(served);
  table.addText("holder of 10 killed -> its 10 waiters granted, median of 3",
                formatNumber(ms, 1) + " ms", "", "", "<= 300 ms", ms >= 0 && ms <= 300 ? "yes" : "no");
  std::cerr << "service: 1,000 idle clients, 100 waits..." << std::endl;
  const auto [rssKb, share] = crowd(zuresourced);
  table.addText("1,000 idle clients + 100 waits: service RSS",
                formatNumber(static_cast<double>(rssKb) / 1024.0, 1) + " MB", "", "", "<= 200 MB",
                rssKb >= 0 && rssKb <= 200 * 1024 ? "yes" : "no");
  table.addText("1,000 idle clients + 100 waits: service CPU", formatNumber(share * 100, 2) + " %",
                "one core", "", "<= 1 %", share >= 0 && share <= 0.01 ? "yes" : "no");
}

}  // namespace zubench
