// The host's value, error and logger: the text forms that reports, errors and
// log lines rely on.
#include <climits>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>
#include <zuhost/zuos.h>
#include <zuhost/zuvalue.h>

#include "support/logcapture.h"

using ::testing::HasSubstr;
using ZU::ZUValue;

namespace {

ZUValue array(std::initializer_list<ZUValue> elements) {
  ZUValue value;
  value.arrayPush(ZUValue());
  value.arrayPopFront();  // an empty array, not an invalid value
  for (const ZUValue& e : elements) value.arrayPush(e);
  return value;
}

TEST(Value, TextFormIsQuotedEscapedAndUnambiguous) {
  const std::pair<ZUValue, std::string> cases[] = {
      {ZUValue(), "null"},
      {ZUValue(""), R"("")"},
      {ZUValue(R"(say "hi" \o/)"), R"("say \"hi\" \\o/")"},
      {ZUValue("\n\t\r\x01\x1f\x7f"), R"("\n\t\r\u0001\u001f\u007f")"},
      {ZUValue(std::string("a\0b", 3)), R"("a\u0000b")"},
      {ZUValue("h\xc3\xa9"), "\"h\xc3\xa9\""},
      {array({array({ZUValue("a"), ZUValue()}), ZUValue("b"), array({})}),
       R"([["a",null],"b",[]])"}};
  for (const auto& c : cases) EXPECT_EQ(c.first.serializeToText(), c.second);
  EXPECT_NE(ZUValue(R"(a","b)").serializeToText(),
            array({ZUValue("a"), ZUValue("b")}).serializeToText());
  EXPECT_NE(ZUValue(""), ZUValue());
  EXPECT_NE(ZUValue(), array({}));
  EXPECT_NE(ZUValue("x"), array({ZUValue("x")}));
  EXPECT_EQ(ZU::DecToString(INT_MIN) + ZU::DecToString(0) + ZU::DecToString(INT_MAX),
            "-214748364802147483647");
}

TEST(Value, PushMakesAnArrayAndPopFrontIsHarmless) {
  ZUValue value, text("t");
  value.arrayPopFront();
  EXPECT_FALSE(value.isValid());
  for (const char* element : {"first", "second"}) value.arrayPush(ZUValue(element));
  value.arrayPopFront();
  EXPECT_EQ(value, array({ZUValue("second")}));
  value.arrayPopFront();
  value.arrayPopFront();
  EXPECT_EQ(value, array({}));
  EXPECT_THROW(text.arrayPush(ZUValue("x")), ZU::ZUError);
  text.arrayPopFront();
  EXPECT_EQ(text, ZUValue("t"));
}

TEST(Error, TellsEveryFieldInOneLine) {
  const char* const fields[] = {"ResourceManager", "waitResource", "timeouted on Head", "a.cpp",
                                "123"};
  const ZU::ZUError error(fields[0], fields[1], fields[2], fields[3], 123);
  const std::string text = error.toString();
  for (const char* field : fields) EXPECT_THAT(text, HasSubstr(field));
  EXPECT_THAT(text, ::testing::Not(HasSubstr("\n")));
  EXPECT_EQ(error.what(), text);
}

TEST(Log, StreamLogsOnceAtTheEndOfItsScopeAndTheDefaultWritesStandardError) {
  {
    zutest::LogCapture capture;
    const std::string longText(5000, 'x');
    {
      ko::log::LogStream stream(2, "behavior.test", "file.cpp", "fn", 17);
      stream("%d %s %5.2f|", 42, "text", 3.14159)("%c%%%s", '!', longText.c_str());
      EXPECT_TRUE(capture.records().empty()) << "logged before the end of its scope";
    }
    ASSERT_EQ(capture.records().size(), 1u);
    const ko::log::Record r = capture.records()[0];
    EXPECT_EQ(r.message, "42 text  3.14|!%" + longText);
    EXPECT_EQ(r.category, "behavior.test");
    EXPECT_EQ(r.file + ":" + r.function + ":" + std::to_string(r.line), "file.cpp:fn:17");
    EXPECT_EQ(r.level, 2);
  }
  testing::internal::CaptureStderr();  // the capture has put the default back
  ko::log::log(3, "behavior.zuressource", "unimplemented notifyConflictVantor\n", "", "f", 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[3] behavior.zuressource: unimplemented notifyConflictVantor\n");
}

}  // namespace
