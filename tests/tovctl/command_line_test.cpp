// One command-line convention for the three tools: the same validators
// (seconds, ports, whole numbers), the same usage line and each tool's
// documented status, and help without the parser's type annotations that
// lists each command's exit statuses.

#include <array>
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
  const std::string sec = "\" is not a number of seconds from ";
  const std::string port = "\" is not a port from ";
  const std::string whole = "\" is not a whole number from ";
  // The tool, its arguments, and what follows "usage: ".
  const std::vector<std::array<std::string, 3>> rows{
      {"tovctl", "-t nan services",
       "--timeout: \"nan" + sec + "0.001 to 86400"},
      {"tovctl", "--deadline inf info",
       "--deadline: \"inf" + sec + "0 to 86400"},
      {"tovctl", "--deadline -1 info", "--deadline: \"-1" + sec + "0 to 86400"},
      {"tovctl", "-p 65536 info", "--port: \"65536" + port + "1 to 65535"},
      {"tovctl", "-p http info", "--port: \"http" + port + "1 to 65535"},
      {"tovctl", "-a 0 info", "--attempts: \"0" + whole + "1 to 100"},
      {"tovctl", "status --watch --count 1.5",
       "--count: \"1.5" + whole + "1 to 1000000"},
      {"tovexporter", "-t nan", "--timeout: \"nan" + sec + "0.001 to 86400"},
      {"tovexporter", "--deadline nan",
       "--deadline: \"nan" + sec + "0 to 86400"},
      {"tovexporter", "--deadline -inf",
       "--deadline: \"-inf" + sec + "0 to 86400"},
      {"tovexporter", "-p 0", "--port: \"0" + port + "1 to 65535"},
      {"tovexporter", "-d x", "--debug: \"x" + whole + "0 to 3"},
      {"tovsim", "--read-timeout nan",
       "--read-timeout: \"nan" + sec + "0.01 to 3600"},
      {"tovsim", "--read-timeout 3601",
       "--read-timeout: \"3601" + sec + "0.01 to 3600"},
      {"tovsim", "--udp-port -1", "--udp-port: \"-1" + port + "0 to 65535"},
      {"tovsim", "--max-connections 4097",
       "--max-connections: \"4097" + whole + "1 to 4096"},
      {"tovsim", "--split-salt 0x10",
       "--split-salt: \"0x10" + whole + "0 to 3600000"},
      {"tovsim", "--salt 0BADC0DE",
       "--salt: \"0BADC0DE\" is not 8 hex digits (0-9, a-f)"},
  };
  for (const auto& [name, args, says] : rows) {
    const Tool& t = tool(name);
    if (t.path.empty()) continue;  // not built here
    SCOPED_TRACE(name + " " + args);
    const Outcome r = runProgram(t.path, testsupport::words(args));
    EXPECT_EQ(r.status, t.usage);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              name + ": usage: " + says + " (see " + name + " --help)\n");
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
  helps.push_back({"tovctl", {"help", "check"}});
  const std::regex annotation(":U?INT|:FLOAT|\\bTEXT\\b| in \\[|:\\{");
  for (const auto& [name, args] : helps) {
    SCOPED_TRACE(name + " " + testing::PrintToString(args));
    const Outcome r = runProgram(tool(name).path, args);
    EXPECT_EQ(r.status, 0);
    std::smatch found;
    EXPECT_FALSE(std::regex_search(r.out, found, annotation)) << found.str();
    // Each command's exit statuses; the check's are a monitoring plugin's.
    const bool check =
        args.size() == 2 && (args[0] == "check" || args[1] == "check");
    if (args.size() == 2) {
      EXPECT_EQ(r.out.find("\n  98  ") != std::string::npos, !check);
      for (const char* status :
           {"\n  1  WARNING ", "\n  3  UNKNOWN ", "-c ,,~:"}) {
        EXPECT_EQ(r.out.find(status) != std::string::npos, check) << status;
      }
    }
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
