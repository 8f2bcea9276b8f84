// The host logger: LogStream formatting, one record per stream, and the
// default handler's line on standard error.
#include <string>

#include <gtest/gtest.h>

#include <zuhost/zulog.h>

#include "support/logcapture.h"

namespace {

TEST(LogStream, FormatsPrintfStyleAndLogsOnceAtTheEndOfItsScope) {
  zutest::LogCapture capture;
  const std::string longText(5000, 'x');
  {
    ko::log::LogStream stream(2, "behavior.test", "file.cpp", "fn", 17);
    stream("%d %s %5.2f|", 42, "text", 3.14159)("%c%%", '!');
    stream("%s", longText.c_str());
    EXPECT_TRUE(capture.records().empty()) << "logged before the end of its scope";
  }
  { ko::log::LogStream empty(1, "c", "", "", 0); }
  const std::vector<ko::log::Record> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, 2);
  EXPECT_EQ(records[0].category, "behavior.test");
  EXPECT_EQ(records[0].message, "42 text  3.14|!%" + longText);
  EXPECT_EQ(records[0].file, "file.cpp");
  EXPECT_EQ(records[0].function, "fn");
  EXPECT_EQ(records[0].line, 17);
  EXPECT_EQ(records[1].message, "");
}

TEST(LogHandler, IsReplacedAndRestoredAndDefaultsToStandardError) {
  int seen = 0;
  ko::log::Handler previous = ko::log::setHandler([&](const ko::log::Record&) { ++seen; });
  ko::log::log(3, "c", "m", "", "f", 0);
  EXPECT_EQ(seen, 1);
  EXPECT_TRUE(ko::log::setHandler(previous));  // gives back the one we installed
  testing::internal::CaptureStderr();
  ko::log::log(3, "behavior.zuressource", "unimplemented notifyConflictVantor\n", "", "f", 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[3] behavior.zuressource: unimplemented notifyConflictVantor\n");
  EXPECT_EQ(seen, 1);
}

}  // namespace
