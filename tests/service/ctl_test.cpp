// zuresourcectl against a real zuresourced: `run` with commands that
// succeed, fail and are wanted, and the reads.

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zuclient/zuclient.h>

#include "support/childprocess.h"
#include "support/runningservice.h"
#include "support/snapshot.h"

namespace {

using namespace std::chrono_literals;
using zutest::ChildProcess;
using zutest::RunningService;

class CtlTest : public ::testing::Test {
 protected:
  RunningService service{ZURESOURCED};
  void SetUp() override { ASSERT_TRUE(service.listening()); }
  /// zuresourcectl with `args`, against the service.
  std::unique_ptr<ChildProcess> ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {"--service", service.target()});
    return std::make_unique<ChildProcess>(ZURESOURCECTL, args);
  }
};

struct RunRow {
  const char* name;
  std::vector<std::string> args;
  int exitStatus;
};

// Head is held by another session throughout.
const RunRow kRunRows[] = {
    {"command succeeds", {"run", "-r", "Arms,Legs", "--", "sh", "-c", "exit 0"}, 0},
    {"command fails: its own status", {"run", "-r", "Arms", "--", "sh", "-c", "exit 3"}, 3},
    {"command not found", {"run", "-r", "Arms", "--", "/nonexistent/command"}, 127},
    {"busy past the time limit", {"run", "-r", "Arms,Head", "--timeout", "1", "--", "true"}, 75},
    {"busy, in the no-wait list", {"run", "-r", "Head", "--no-wait", "Head", "--", "true"}, 75},
    {"unknown resource", {"run", "-r", "Tail", "--", "true"}, 65},
    {"no command", {"run", "-r", "Arms"}, 2},
    {"negative timeout", {"run", "-r", "Arms", "--timeout", "-1", "--", "true"}, 2},
};

TEST_F(CtlTest, RunExitsWithTheCommandsStatusOrSaysWhyNot) {
  ZU::client::ZUSession other("Other", {}, service.target());
  auto head = other.acquire("other", "Head", 1);
  for (const RunRow& row : kRunRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ctl(row.args)->wait(), row.exitStatus);
    // Whatever happened, nothing stays held but Head.
    EXPECT_EQ(zutest::heldIn(other.snapshotJson()), (zutest::Held{{"Head", {"other"}}}));
  }
}

// A command whose resources another owner wants: kept by default, given
// back with --yield (the command gets SIGTERM).
TEST_F(CtlTest, WantedResourcesAreKeptOrYielded) {
  for (const bool yield : {false, true}) {
    SCOPED_TRACE(yield ? "--yield" : "keep");
    std::vector<std::string> args{"run", "-r", "Arms", "--"};
    if (yield) args.insert(args.begin() + 3, "--yield");
    args.insert(args.end(), {"sh", "-c", "echo started; exec sleep 60"});
    auto run = ctl(args);
    ASSERT_EQ(run->line(), "started");
    ZU::client::ZUSession waiter("Waiter", {}, service.target());
    if (yield) {
      auto arms = waiter.acquire("waiter", "Arms", 30);
      EXPECT_EQ(run->wait(), 128 + SIGTERM);
    } else {
      EXPECT_THROW(waiter.acquire("waiter", "Arms", 1), ZU::client::ZUWaitError);
      EXPECT_FALSE(run->ended());
      // A signal to zuresourcectl goes on to the command.
      run->signal(SIGTERM);
      EXPECT_EQ(run->wait(), 128 + SIGTERM);
    }
  }
}

TEST_F(CtlTest, ReadsAnswerInTextAndJson) {
  ZU::client::ZUSession holder("Holder", {}, service.target());
  auto head = holder.acquire("holder", "Head", 1);
  auto status = ctl({"status"});
  EXPECT_EQ(status->lineStartingWith("------Head"), "------Head -> Holder eStrong null 0");
  EXPECT_EQ(status->wait(), 0);

  using nlohmann::json;
  EXPECT_TRUE(json::parse(ctl({"status", "--json"})->line()).is_array());
  EXPECT_EQ(json::parse(ctl({"snapshot"})->line()).at("type"), "snapshot");
  EXPECT_EQ(ctl({"explain", "holder", "Head"})->line(), "Head: already held by holder");
  EXPECT_TRUE(json::parse(ctl({"explain", "holder", "Head", "--json"})->line()).is_array());

  // The events from the first on: the grant of Head is among them.
  auto watch = ctl({"watch", "--from", "1"});
  bool granted = false;
  while (!granted) {
    const std::string line = watch->line();
    if (line.empty()) break;
    const auto event = json::parse(line);
    granted = event.at("kind") == "granted" && event.at("resource") == "Head";
  }
  EXPECT_TRUE(granted);
}

}  // namespace
