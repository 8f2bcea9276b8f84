// The recorder's own promises: a full queue drops and says so in the stream;
// a file it cannot open is a clear error. (The form of the lines is checked
// against the schema by recording_matches_schema.)
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zuobserve/zurecorder.h>

#include "support/resourcehelpers.h"

namespace {

TEST(Recorder, AFullQueueDropsAndSaysHowManyInTheStream) {
  std::ostringstream out;
  {
    auto recorder = boost::make_shared<ZU::ZURecorder>(out, 0);  // no room: every event drops
    auto r = zutest::makePlain("Arm");
    auto a = zutest::makeOwner("a", "A");
    ZU::ZUObservers::add(recorder);
    r->waitFor(a, "", -1, {});  // requested, granted
    r->release(a);              // released
    ZU::ZUObservers::remove(recorder);
    EXPECT_EQ(recorder->dropped(), 3u);
    recorder->flush();
  }
  std::istringstream lines(out.str());
  std::string start, dropped, rest;
  std::getline(lines, start);
  std::getline(lines, dropped);
  EXPECT_FALSE(std::getline(lines, rest)) << out.str();
  EXPECT_EQ(nlohmann::json::parse(start)["type"], "start");
  EXPECT_EQ(nlohmann::json::parse(dropped)["count"], 3) << dropped;
}

TEST(Recorder, AFileThatCannotBeOpenedIsAClearError) {
  const auto error = zutest::errorOf([] { ZU::ZURecorder("/nonexistent/dir/x.jsonl"); });
  ASSERT_TRUE(error);
  EXPECT_NE(error->getDescription().find("/nonexistent/dir/x.jsonl"), std::string::npos);
}

}  // namespace
