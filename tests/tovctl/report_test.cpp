// How tovctl shows daemon fields: as JSON numbers only when they are whole
// decimal numbers, and in tables whose columns line up (escaped on a
// terminal only: DaemonTextNeverDrivesTheTerminal).
#include "report.h"

#include <gtest/gtest.h>

namespace {

TEST(Report, FieldsAreNumbersOnlyWhenWholeDecimals) {
  using nlohmann::json;
  const std::pair<const char*, json> cases[] = {
      {"12", 12},
      {"-3", -3},
      {"0", 0},
      {"-", "-"},
      {"", ""},
      {"+5", "+5"},
      {" 7", " 7"},
      {"1e3", "1e3"},
      {"0x10", "0x10"},
      {"12a", "12a"},
      {"99999999999999999999", "99999999999999999999"},
  };
  for (const auto& [field, want] : cases) {
    EXPECT_EQ(tovctl::numberOrText(field), want) << field;
  }
}

TEST(Report, TableColumnsLineUpWithNoTrailingBlanks) {
  EXPECT_EQ(tovctl::tableLines({{"A", "BB", "C"}, {"ccc", "d", ""}, {"e"}}),
            (std::vector<std::string>{"A    BB  C", "ccc  d", "e"}));
}

}  // namespace
