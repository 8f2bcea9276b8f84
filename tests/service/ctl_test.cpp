// zuresourcectl against a real zuresourced: `run` with commands that
// succeed, fail and are wanted, and the reads.

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zuclient/zuclient.h>

#include "support/childprocess.h"
#include "support/runningservice.h"

namespace {

using namespace std::chrono_literals;
using zutest::ChildProcess;
using zutest::RunningService;

std::vector<std::string> ctl(const RunningService& service, std::vector<std::string> args) {
  args.insert(args.begin(), {"--service", service.target()});
  return args;
}

class CtlTest : public ::testing::Test {
 protected:
  RunningService service{ZURESOURCED};
  void SetUp() override { ASSERT_TRUE(service.listening()); }
};

struct RunRow {
  const char* name;
  std::vector<std::string> args;  // after "run"
  int exitStatus;
};

// Head is held by another session throughout.
const RunRow kRunRows[] = {
    {"command succeeds", {"-r", "Arms,Legs", "--", "sh", "-c", "exit 0"}, 0},
    {"command fails: its own status", {"-r", "Arms", "--", "sh", "-c", "exit 3"}, 3},
    {"command not found", {"-r", "Arms", "--", "/nonexistent/command"}, 127},
    {"busy past the time limit", {"-r", "Arms,Head", "--timeout", "1", "--", "true"}, 75},
    {"busy, in the no-wait list", {"-r", "Head", "--no-wait", "Head", "--", "true"}, 75},
    {"unknown resource", {"-r", "Tail", "--", "true"}, 65},
    {"no command", {"-r", "Arms"}, 2},
    {"negative timeout", {"-r", "Arms", "--timeout", "-1", "--", "true"}, 2},
};

TEST_F(CtlTest, RunExitsWithTheCommandsStatusOrSaysWhyNot) {
  ZU::client::ZUSession other("Other", {}, service.target());
  auto head = other.acquire("other", "Head", 1);
  for (const RunRow& row : kRunRows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> args{"run"};
    args.insert(args.end(), row.args.begin(), row.args.end());
    ChildProcess run(ZURESOURCECTL, ctl(service, args));
    EXPECT_EQ(run.wait(), row.exitStatus);
    // Whatever happened, nothing stays held but Head.
    const auto snapshot = nlohmann::json::parse(other.snapshotJson());
    for (const auto& r : snapshot.at("resources")) {
      if (r.at("kind") != "plain") continue;
      const auto expected = r.at("name") == "Head" ? nlohmann::json::array({"other"})
                                                   : nlohmann::json::array();
      EXPECT_EQ(r.at("holders"), expected) << r.at("name");
    }
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
    ChildProcess run(ZURESOURCECTL, ctl(service, args));
    ASSERT_EQ(run.line(), "started");
    ZU::client::ZUSession waiter("Waiter", {}, service.target());
    if (yield) {
      auto arms = waiter.acquire("waiter", "Arms", 30);
      EXPECT_EQ(run.wait(), 128 + SIGTERM);
    } else {
      EXPECT_THROW(waiter.acquire("waiter", "Arms", 1), ZU::client::ZUWaitError);
      EXPECT_FALSE(run.ended());
      // A signal to zuresourcectl goes on to the command.
      run.signal(SIGTERM);
      EXPECT_EQ(run.wait(), 128 + SIGTERM);
    }
  }
}

TEST_F(CtlTest, ReadsAnswerInTextAndJson) {
  ZU::client::ZUSession holder("Holder", {}, service.target());
  auto head = holder.acquire("holder", "Head", 1);
  ChildProcess status(ZURESOURCECTL, ctl(service, {"status"}));
  EXPECT_EQ(status.lineStartingWith("------Head"), "------Head -> Holder eStrong null 0");
  EXPECT_EQ(status.wait(), 0);

  ChildProcess values(ZURESOURCECTL, ctl(service, {"status", "--json"}));
  EXPECT_TRUE(nlohmann::json::parse(values.line()).is_array());
  ChildProcess snapshot(ZURESOURCECTL, ctl(service, {"snapshot"}));
  EXPECT_EQ(nlohmann::json::parse(snapshot.line()).at("type"), "snapshot");
  ChildProcess explain(ZURESOURCECTL, ctl(service, {"explain", "holder", "Head"}));
  EXPECT_EQ(explain.line(), "Head: already held by holder");
  ChildProcess explainJson(ZURESOURCECTL, ctl(service, {"explain", "holder", "Head", "--json"}));
  EXPECT_TRUE(nlohmann::json::parse(explainJson.line()).is_array());

  // The events from the first on: the grant of Head is among them.
  ChildProcess watch(ZURESOURCECTL, ctl(service, {"watch", "--from", "1"}));
  bool granted = false;
  while (!granted) {
    const std::string line = watch.line();
    if (line.empty()) break;
    const auto event = nlohmann::json::parse(line);
    granted = event.at("kind") == "granted" && event.at("resource") == "Head";
  }
  EXPECT_TRUE(granted);
}

}  // namespace
