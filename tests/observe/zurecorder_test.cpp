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

TEST(Recorder, AFileThatCannotBeOpenedOrWrittenIsAClearError) {
  for (const char* path : {"/nonexistent/dir/x.jsonl", "/dev/full"}) {
    const auto error = zutest::errorOf([&] { ZU::ZURecorder recorder(path); });
    ASSERT_TRUE(error) << path;
    EXPECT_NE(error->getDescription().find(path), std::string::npos);
  }
}

// A disk that fills during the recording: the recording ends there, said
// once, and nothing waits for lines that can never be written.
TEST(Recorder, AWriteThatFailsEndsTheRecordingAndSaysWhy) {
  std::ostringstream out;
  auto recorder = boost::make_shared<ZU::ZURecorder>(out);
  out.setstate(std::ios::badbit);  // as a write to a full disk leaves it
  auto r = zutest::makePlain("Arm");
  auto a = zutest::makeOwner("a", "A");
  ZU::ZUObservers::add(recorder);
  r->waitFor(a, "", -1, {});
  r->release(a);
  ZU::ZUObservers::remove(recorder);
  recorder->flush();
  EXPECT_EQ(recorder->failure(), "cannot write the stream");
}

}  // namespace
