// One command-line convention for the three tools: the same validators
// (seconds, ports, whole numbers), the same usage line and each tool's
// documented status, and help without the parser's type annotations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "tovctl_fixture.h"

namespace {

using namespace tovctltest;

struct Tool {
  std::string name;
  std::string path;
  int usage;  // the exit status of a usage error
};

const Tool& tool(const std::string& name) {
  static const std::vector<Tool> tools{
      {"tovctl", TOVCTL_PATH, 100},
      {"tovsim", simtest::tovsimPath(), 2},
#ifdef TOVEXPORTER_PATH
      {"tovexporter", TOVEXPORTER_PATH, 2},
#endif
  };
  for (const Tool& t : tools) {
    if (t.name == name) return t;
  }
  static const Tool none{"", "", 0};
  return none;
}

TEST(CommandLines, BadNumbersGiveTheUsageLineAndTheToolsStatus) {
  const std::string seconds = "\" is not a number of seconds from ";
  struct Case {
    const char* tool;
    Args args;
    std::string option, value, range;
  };
  const std::vector<Case> cases{
      {"tovctl",
       {"-t", "nan", "services"},
       "--timeout",
       "nan",
       seconds + "0.001 to 86400"},
      {"tovctl",
       {"--deadline", "inf", "info"},
       "--deadline",
       "inf",
       seconds + "0 to 86400"},
      {"tovctl",
       {"--deadline", "-1", "info"},
       "--deadline",
       "-1",
       seconds + "0 to 86400"},
      {"tovctl",
       {"-p", "65536", "info"},
       "--port",
       "65536",
       "\" is not a port from 1 to 65535"},
      {"tovctl",
       {"-p", "http", "info"},
       "--port",
       "http",
       "\" is not a port from 1 to 65535"},
      {"tovctl",
       {"-a", "0", "info"},
       "--attempts",
       "0",
       "\" is not a whole number from 1 to 100"},
      {"tovctl",
       {"status", "--watch", "--count", "1.5"},
       "--count",
       "1.5",
       "\" is not a whole number from 1 to 1000000"},
      {"tovexporter",
       {"-t", "nan"},
       "--timeout",
       "nan",
       seconds + "0.001 to 86400"},
      {"tovexporter",
       {"--deadline", "nan"},
       "--deadline",
       "nan",
       seconds + "0 to 86400"},
      {"tovexporter",
       {"--deadline", "-inf"},
       "--deadline",
       "-inf",
       seconds + "0 to 86400"},
      {"tovexporter",
       {"-p", "0"},
       "--port",
       "0",
       "\" is not a port from 1 to 65535"},
      {"tovexporter",
       {"-d", "x"},
       "--debug",
       "x",
       "\" is not a whole number from 0 to 3"},
      {"tovsim",
       {"--read-timeout", "nan"},
       "--read-timeout",
       "nan",
       seconds + "0.01 to 3600"},
      {"tovsim",
       {"--read-timeout", "3601"},
       "--read-timeout",
       "3601",
       seconds + "0.01 to 3600"},
      {"tovsim",
       {"--udp-port", "-1"},
       "--udp-port",
       "-1",
       "\" is not a port from 0 to 65535"},
      {"tovsim",
       {"--max-connections", "4097"},
       "--max-connections",
       "4097",
       "\" is not a whole number from 1 to 4096"},
      {"tovsim",
       {"--split-salt", "0x10"},
       "--split-salt",
       "0x10",
       "\" is not a whole number from 0 to 3600000"},
      {"tovsim",
       {"--salt", "0BADC0DE"},
       "--salt",
       "0BADC0DE",
       "\" is not 8 hex digits (0-9, a-f)"},
  };
  for (const Case& c : cases) {
    const Tool& t = tool(c.tool);
    if (t.path.empty()) continue;  // not built here
    SCOPED_TRACE(t.name + " " + testing::PrintToString(c.args));
    const Outcome r = runProgram(t.path, c.args);
    EXPECT_EQ(r.status, t.usage);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, t.name + ": usage: " + c.option + ": \"" + c.value +
                         c.range + " (see " + t.name + " --help)\n");
  }
}

TEST(CommandLines, HelpShowsTypeNamesNotTheParsersAnnotations) {
  std::vector<std::pair<std::string, Args>> helps;
  for (const char* name : {"tovctl", "tovsim", "tovexporter"}) {
    if (!tool(name).path.empty()) helps.push_back({name, {"--help"}});
  }
  for (const char* command :
       {"discover", "probe", "resolve", "family", "bounce", "maintenance",
        "log", "heartbeats", "info", "status", "check", "send", "codes"}) {
    helps.push_back({"tovctl", {command, "--help"}});
  }
  const std::regex annotation(":U?INT|:FLOAT|\\bTEXT\\b| in \\[|:\\{");
  for (const auto& [name, args] : helps) {
    SCOPED_TRACE(name + " " + testing::PrintToString(args));
    const Outcome r = runProgram(tool(name).path, args);
    EXPECT_EQ(r.status, 0);
    std::smatch found;
    EXPECT_FALSE(std::regex_search(r.out, found, annotation)) << found.str();
  }
  // Another refused command line of each: the same one-line form.
  for (const char* name : {"tovctl", "tovsim", "tovexporter"}) {
    const Tool& t = tool(name);
    if (t.path.empty()) continue;
    const Outcome r = runProgram(t.path, {"--frobnicate", "services"});
    EXPECT_EQ(r.status, t.usage);
    EXPECT_THAT(r.err,
                testing::MatchesRegex(
                    t.name + ": usage: [^\n]*--frobnicate[^\n]* \\(see " +
                    t.name + " --help\\)\n"));
  }
}

}  // namespace
