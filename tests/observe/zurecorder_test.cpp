// The recorder: the lines it writes, and what it does when the stream is slow.
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zuobserve/zurecorder.h>

#include "support/resourcehelpers.h"

namespace {

using json = nlohmann::json;

std::vector<json> parseLines(const std::string& text) {
  std::vector<json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line));
  return lines;
}

ZU::ZUEvent event(const std::string& resource) {
  ZU::ZUEvent e = ZU::ZUEvent::make(ZU::ZUEvent::Kind::Lost, resource, nullptr);
  e.reason = "test";
  return e;
}

TEST(Recorder, WritesTheStartThenOneFlushedLinePerEvent) {
  const std::string path = ::testing::TempDir() + "recorder_lines.jsonl";
  auto recorder = boost::make_shared<ZU::ZURecorder>(path);
  ZU::ZUObservers::add(recorder);
  auto r = zutest::makePlain("Arm");
  auto a = zutest::makeOwner("a", "A");
  r->waitFor(a, "reach", 3, {});
  r->release(a);
  recorder->flush();  // the file is complete while the recorder still runs

  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  const std::vector<json> lines = parseLines(text.str());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0]["type"], "start");
  EXPECT_EQ(lines[0]["wallClock"].get<std::string>().size(), 24u);  // 2026-01-01T00:00:00.000Z
  const char* kinds[] = {"requested", "granted", "released"};
  double lastMs = 0;
  for (int i = 0; i < 3; ++i) {
    const json& line = lines[i + 1];
    EXPECT_EQ(line["kind"], kinds[i]);
    EXPECT_EQ(line["resource"], "Arm");
    EXPECT_GE(line["ms"].get<double>(), lastMs);
    lastMs = line["ms"];
  }
  EXPECT_EQ(lines[1]["label"], "reach");
  EXPECT_EQ(lines[1]["timeout"], 3);
  EXPECT_EQ(lines[2]["grant"], "wasFree");
  ZU::ZUObservers::remove(recorder);
}

/// A stream buffer whose writes wait until it is opened: a disk that stalls.
class StalledBuffer : public std::stringbuf {
 public:
  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = false;
    blocked_ = false;
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  void waitUntilBlocked() {
    std::unique_lock<std::mutex> lock(mutex_);
    opened_.wait(lock, [this] { return blocked_; });
  }

 protected:
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      blocked_ = true;
      opened_.notify_all();
      opened_.wait(lock, [this] { return open_; });
    }
    return std::stringbuf::xsputn(s, n);
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = true;  // the start line goes through
  bool blocked_ = false;
};

TEST(Recorder, AFullQueueDropsAndSaysHowManyInTheStream) {
  StalledBuffer buffer;
  std::ostream out(&buffer);
  std::string text;
  {
    ZU::ZURecorder recorder(out, 2);
    buffer.close();
    recorder.onEvent(event("first"));  // taken by the writer, which then stalls
    buffer.waitUntilBlocked();
    for (int i = 0; i < 10; ++i) recorder.onEvent(event("later"));  // 2 queued, 8 dropped
    EXPECT_EQ(recorder.dropped(), 8u);
    buffer.open();
    recorder.flush();
    text = buffer.str();
  }
  const std::vector<json> lines = parseLines(text);
  ASSERT_EQ(lines.size(), 5u) << text;
  EXPECT_EQ(lines[1]["resource"], "first");
  EXPECT_EQ(lines[2]["resource"], "later");
  EXPECT_EQ(lines[3]["resource"], "later");
  EXPECT_EQ(lines[4]["type"], "dropped");
  EXPECT_EQ(lines[4]["count"], 8);
}

TEST(Recorder, AFileThatCannotBeOpenedIsAClearError) {
  const auto error = zutest::errorOf([] { ZU::ZURecorder("/nonexistent/dir/x.jsonl"); });
  ASSERT_TRUE(error);
  EXPECT_NE(error->getDescription().find("/nonexistent/dir/x.jsonl"), std::string::npos);
}

}  // namespace
