// A robot's day recorded by the service (--record) replays in the simulator
// with the same decisions.

#include <string>

#include <gtest/gtest.h>

#include "support/childprocess.h"
#include "support/runningservice.h"

namespace {

using zutest::ChildProcess;

TEST(Record, TheServicesRecordingReplaysInTheSimulator) {
  zutest::TempDir folder;
  const std::string recording = folder.path() + "/day.jsonl";
  {
    zutest::RunningService service(ZURESOURCED, {"--record", recording});
    ASSERT_TRUE(service.listening());
    auto ctl = [&](std::vector<std::string> args) {
      args.insert(args.begin(), {"--service", service.target(), "run"});
      return args;
    };
    // Wave holds the arms a while; Hug waits behind it, then takes the arms
    // and the head.
    ChildProcess wave(ZURESOURCECTL, ctl({"-r", "Arms", "--module", "Wave", "--owner", "wave",
                                          "--", "sh", "-c", "echo held; sleep 1"}));
    ASSERT_EQ(wave.line(), "held");
    ChildProcess hug(ZURESOURCECTL, ctl({"-r", "Arms,Head", "--module", "Hug", "--owner", "hug",
                                         "--timeout", "30", "--", "true"}));
    EXPECT_EQ(hug.wait(), 0);
    EXPECT_EQ(wave.wait(), 0);
  }  // SIGTERM: the recording ends with a snapshot
  ChildProcess replay(ZURESOURCE_SIM, {"--replay", recording});
  EXPECT_NE(replay.lineStartingWith("Replay agrees"), "");
  EXPECT_EQ(replay.wait(), 0);
}

}  // namespace
