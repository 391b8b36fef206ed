// Text from daemons made safe to show: what a terminal would act on and
// bytes that are not well-formed UTF-8 become \xNN; the rest stays.
#include "common/text.h"

#include <gtest/gtest.h>

namespace {

TEST(Text, ControlsAndMalformedUtf8AreShownAsHex) {
  struct Row {
    std::string in, shown;
  };
  const std::vector<Row> rows{
      {"plain a\\b\ttab", "plain a\\b\ttab"},
      {"a\nb\rc", "a\\x0ab\\x0dc"},
      {"\x1b[2J\x7f", "\\x1b[2J\\x7f"},
      {"\xc2\x9b"
       "1m",
       "\\xc2\\x9b1m"},  // C1 CSI
      {"caf\xc3\xa9", "caf\xc3\xa9"},
      {"\xc3\xa9!", "\xc3\xa9!"},
      {"\xe9t\xc3", "\\xe9t\\xc3"},         // Latin-1, a cut sequence
      {"\xc1\xbf", "\\xc1\\xbf"},           // overlong
      {"\xe0\x9f\xbf", "\\xe0\\x9f\\xbf"},  // overlong
      {"\xe0\xa0\x80", "\xe0\xa0\x80"},     // U+0800
      {"\xed\x9f\xbf", "\xed\x9f\xbf"},     // U+D7FF
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},  // a surrogate
      {"\xef\xbf\xbd", "\xef\xbf\xbd"},     // U+FFFD
      {"\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf"},
      {"\xf0\x90\x80\x80", "\xf0\x90\x80\x80"},
      {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},  // U+10FFFF
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"\xf5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},
      {"\xe2\x82", "\\xe2\\x82"},
      {"\xe2(\xa1", "\\xe2(\\xa1"},
      {"\xf0\x90(\x80", "\\xf0\\x90(\\x80"},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(tovtools::escapeControls(r.in, false), r.shown) << r.shown;
  }
  EXPECT_EQ(tovtools::escapeControls("a\nb\x01", true), "a\nb\\x01");
  EXPECT_EQ(tovtools::validUtf8("a\xe9\xc3\xa9\xed\xa0\x80"),
            "a\xef\xbf\xbd\xc3\xa9\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
  EXPECT_EQ(tovtools::jsonText({{"k", "\xff"}}, -1),
            "{\"k\":\"\xef\xbf\xbd\"}");
}

}  // namespace
