// The host's value and logger: the text forms that reports and log lines rely on.
#include <climits>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <zuhost/zuerror.h>
#include <zuhost/zuos.h>
#include <zuhost/zuvalue.h>

#include <zuresource/zuvalues.h>

#include "support/logcapture.h"

using ZU::ZUValue;

namespace {

ZUValue array(std::initializer_list<ZUValue> elements) {
  ZUValue value = ZU::emptyArrayValue();
  for (const ZUValue& e : elements) value.arrayPush(e);
  return value;
}

TEST(Value, TextFormIsQuotedEscapedAndUnambiguous) {
  const std::pair<ZUValue, std::string> cases[] = {
      {ZUValue(), "null"},
      {ZUValue(R"(say "hi" \o/)"), R"("say \"hi\" \\o/")"},
      {ZUValue("\n\t\r\x01\x1f\x7f"), R"("\n\t\r\u0001\u001f\u007f")"},
      {ZUValue(std::string("a\0b", 3)), R"("a\u0000b")"},
      {ZUValue("h\xc3\xa9"), "\"h\xc3\xa9\""},
      {array({array({ZUValue("a"), ZUValue()}), ZUValue("b"), array({})}),
       R"([["a",null],"b",[]])"}};
  for (const auto& c : cases) EXPECT_EQ(c.first.serializeToText(), c.second);
  EXPECT_NE(ZUValue(""), ZUValue());
  EXPECT_NE(ZUValue(), array({}));
  EXPECT_EQ(ZU::DecToString(INT_MIN) + ZU::DecToString(INT_MAX), "-21474836482147483647");
}

TEST(Log, StreamLogsOnceAtTheEndOfItsScopeAndTheDefaultWritesStandardError) {
  {
    zutest::LogCapture capture;
    {
      ko::log::LogStream stream(2, "behavior.test", "file.cpp", "fn", 17);
      stream("%d %5.2f|", 42, 3.14159)("%c%%%s", '!', std::string(5000, 'x').c_str());
      EXPECT_TRUE(capture.records().empty()) << "logged before the end of its scope";
    }
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].message, "42  3.14|!%" + std::string(5000, 'x'));
  }
  testing::internal::CaptureStderr();  // the capture has put the default back
  ko::log::log(3, "host.test", "unimplemented notifyConflictVantor\n", "", "f", 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[3] host.test: unimplemented notifyConflictVantor\n");
}

}  // namespace
