// The host's variant value and decimal text: the text forms that reports and
// tests rely on, and the array operations of the waiters list.
#include <climits>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include <zuhost/zuerror.h>
#include <zuhost/zuos.h>
#include <zuhost/zuvalue.h>

namespace ZU {
// Failures show values in their text form.
void PrintTo(const ZUValue& value, std::ostream* os) { *os << value.serializeToText(); }
}  // namespace ZU

using ZU::ZUValue;

namespace {

/// An array of `elements` (an empty list gives an empty array, not null).
ZUValue array(std::initializer_list<ZUValue> elements) {
  ZUValue value;
  value.arrayPush(ZUValue());
  value.arrayPopFront();
  for (const ZUValue& e : elements) value.arrayPush(e);
  return value;
}

TEST(ValueText, StringsAreQuotedAndEscapedUnambiguously) {
  EXPECT_EQ(ZUValue().serializeToText(), "null");
  EXPECT_EQ(ZUValue("").serializeToText(), R"("")");
  EXPECT_EQ(ZUValue("box/a module").serializeToText(), R"("box/a module")");
  EXPECT_EQ(ZUValue(R"(say "hi" \o/)").serializeToText(), R"("say \"hi\" \\o/")");
  EXPECT_EQ(ZUValue("\n\t\r\x01\x1f\x7f").serializeToText(),
            R"("\n\t\r\u0001\u001f\u007f")");
  EXPECT_EQ(ZUValue(std::string("a\0b", 3)).serializeToText(), R"("a\u0000b")");
  EXPECT_EQ(ZUValue("h\xc3\xa9").serializeToText(), "\"h\xc3\xa9\"");  // bytes pass through
  // A string that looks like an array stays distinguishable from the array.
  EXPECT_NE(ZUValue(R"(a","b)").serializeToText(), array({ZUValue("a"), ZUValue("b")}).serializeToText());
}

TEST(ValueText, ArraysNestWithoutSpaces) {
  EXPECT_EQ(array({}).serializeToText(), "[]");
  const ZUValue nested = array({array({ZUValue("a"), ZUValue()}), ZUValue("b"), array({})});
  EXPECT_EQ(nested.serializeToText(), R"([["a",null],"b",[]])");
}

TEST(ValueArray, PushMakesAnArrayAndPopFrontIsHarmless) {
  ZUValue value;
  value.arrayPopFront();
  EXPECT_FALSE(value.isValid());
  value.arrayPush(ZUValue("first"));
  EXPECT_TRUE(value.isArray());
  value.arrayPush(ZUValue("second"));
  value.arrayPopFront();
  EXPECT_EQ(value, array({ZUValue("second")}));
  value.arrayPopFront();
  value.arrayPopFront();
  EXPECT_EQ(value.serializeToText(), "[]");

  ZUValue text("t");
  EXPECT_THROW(text.arrayPush(ZUValue("x")), ZU::ZUError);
  text.arrayPopFront();
  EXPECT_EQ(text, ZUValue("t"));
}

TEST(ValueEquality, ComparesKindAndContent) {
  EXPECT_EQ(ZUValue(), ZUValue());
  EXPECT_EQ(ZUValue("x"), ZUValue(std::string("x")));
  EXPECT_NE(ZUValue("x"), ZUValue("y"));
  EXPECT_NE(ZUValue(""), ZUValue());
  EXPECT_NE(ZUValue("x"), array({ZUValue("x")}));
  EXPECT_NE(ZUValue(), array({}));
  EXPECT_NE(array({ZUValue("a"), ZUValue("b")}), array({ZUValue("b"), ZUValue("a")}));
}

TEST(DecToString, GivesPlainDecimalText) {
  EXPECT_EQ(ZU::DecToString(0), "0");
  EXPECT_EQ(ZU::DecToString(42), "42");
  EXPECT_EQ(ZU::DecToString(-12), "-12");
  EXPECT_EQ(ZU::DecToString(INT_MAX), "2147483647");
  EXPECT_EQ(ZU::DecToString(INT_MIN), "-2147483648");
}

}  // namespace
