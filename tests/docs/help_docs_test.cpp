// Every option a tool's --help lists is in its man page and in the option
// tables of its guide, and every option those name is in --help: a tool's
// option added, renamed or dropped fails here until its docs follow.
// Names are compared (long and short forms), never prose.

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "support/process.h"

namespace {

using testsupport::linesOf;
using testsupport::readFile;
using testsupport::Strings;
using Names = std::set<std::string>;

// Option names in a text: "--long-name" and "-x"; "-vv" or "-1x" are not.
Names optionNames(const std::string& text) {
  static const std::regex name(
      "(^|[^A-Za-z0-9-])(--?[A-Za-z0-9][A-Za-z0-9-]*)");
  Names names;
  for (std::sregex_iterator it(text.begin(), text.end(), name), end; it != end;
       ++it) {
    const std::string n = (*it)[2];
    if (n[1] == '-' || n.size() == 2) names.insert(n);
  }
  return names;
}

// The first word of each line of a block that starts with `title`, up to
// the blank line that ends it ("Options:", "Subcommands:"), as the
// parser prints them.
Strings blockWords(const std::string& help, const std::string& title) {
  Strings words;
  bool in = false;
  for (const std::string& line : linesOf(help)) {
    std::string first;
    std::istringstream(line) >> first;
    if (first.empty()) in = false;
    if (in && line[0] == ' ') words.push_back(first);
    if (first == title) in = true;
  }
  return words;
}

// "-h,--help" and "--port" of the option lines; "Excludes: -6" and the
// like follow the first blank, so they are not taken.
Names helpOptions(const std::string& help) {
  Names names;
  for (const std::string& word : blockWords(help, "Options:")) {
    if (word[0] != '-') continue;
    std::istringstream parts(word);
    for (std::string n; std::getline(parts, n, ',');) names.insert(n);
  }
  return names;
}

// The options of each option table of a guide (first heading cell
// "Option" or "Flag"), by the heading the table stands under.
std::map<std::string, Names> guideOptions(const std::string& path) {
  std::map<std::string, Names> byHeading;
  std::string heading;
  bool fenced = false, inTable = false, options = false;
  for (const std::string& line : linesOf(readFile(path))) {
    if (line.rfind("```", 0) == 0) fenced = !fenced;
    if (fenced) continue;
    if (line.rfind("#", 0) == 0) heading = line.substr(line.find(' ') + 1);
    if (line.rfind("|", 0) != 0) {
      inTable = false;
      continue;
    }
    const std::string first = line.substr(1, line.find('|', 1) - 1);
    if (!inTable)
      options = first == " Option " || first == " Flag ";
    else if (options)
      byHeading[heading].merge(optionNames(first));
    inTable = true;
  }
  return byHeading;
}

// The options a man page sets in bold: on .B, .BR, .BI, .RB and .IB lines
// and in \fB runs.
Names manOptions(const std::string& path) {
  std::string bold;
  for (const std::string& line : linesOf(readFile(path))) {
    if (std::regex_search(line, std::regex("^\\.(B|BR|BI|RB|IB) "))) {
      bold += line + "\n";
    }
    for (auto at = line.find("\\fB"); at != std::string::npos;
         at = line.find("\\fB", at + 3)) {
      bold += line.substr(at + 3, line.find("\\f", at + 3) - at - 3) + "\n";
    }
  }
  return optionNames(std::regex_replace(bold, std::regex("\\\\-"), "-"));
}

// "" when `help` and `docs` name the same options, else what differs.
std::string differ(const Names& help, const Names& docs) {
  std::string missing, unknown;
  for (const std::string& n : help) {
    if (!docs.count(n)) missing += " " + n;
  }
  for (const std::string& n : docs) {
    if (!help.count(n)) unknown += " " + n;
  }
  if (missing.empty() && unknown.empty()) return "";
  return "undocumented:" + missing + "; not in --help:" + unknown;
}

struct Tool {
  std::string name;  // man/NAME.1
  std::string path;
  std::string guide;  // docs/GUIDE
  // The headings whose option tables hold the options of the tool ("") and
  // of a subcommand, when not only "COMMAND ...".
  std::map<std::string, Strings> headings;
};

const std::vector<Tool> tools{
    {"tovctl",
     TOVCTL_PATH,
     "tovctl.md",
     {{"", {"Synopsis"}}, {"status", {"status", "Watching the cluster live"}}}},
    {"tovexporter", TOVEXPORTER_PATH, "exporter.md", {{"", {"Options"}}}},
    {"tovsim", TOVSIM_PATH, "simulator.md", {{"", {"Command line", "Faults"}}}},
};

std::string helpOf(const Tool& tool, const Strings& args) {
  const auto run = testsupport::runProgram(tool.path, args);
  EXPECT_EQ(run.status, 0) << tool.name << " " << args[0] << run.err;
  return run.out;
}

TEST(HelpDocs, OptionsOfHelpGuideAndManPageAreTheSame) {
  const std::string root = TOVAPI_SOURCE_DIR;
  for (const Tool& tool : tools) {
    const auto guide = guideOptions(root + "/docs/" + tool.guide);
    const auto tables = [&](const std::string& command) {
      auto given = tool.headings.find(command);
      const Strings wanted =
          given != tool.headings.end() ? given->second : Strings{command};
      Names names;
      for (const auto& [heading, opts] : guide) {
        for (const std::string& h : wanted) {
          if (heading == h || heading.rfind(h + " ", 0) == 0) {
            names.insert(opts.begin(), opts.end());
          }
        }
      }
      return names;
    };
    const std::string top = helpOf(tool, {"--help"});
    Names all = helpOptions(top);
    const std::string where = tool.name + " vs docs/" + tool.guide;
    EXPECT_EQ(differ(all, tables("")), "") << where;
    for (const std::string& command : blockWords(top, "Subcommands:")) {
      Names own = helpOptions(helpOf(tool, {command, "--help"}));
      own.erase("-h");  // every command's help, documented once
      own.erase("--help");
      EXPECT_EQ(differ(own, tables(command)), "") << where << ", " << command;
      all.merge(own);
    }
    // No option table elsewhere in the guide names an option no help has.
    Names documented;
    for (const auto& entry : guide) {
      documented.insert(entry.second.begin(), entry.second.end());
    }
    EXPECT_EQ(differ(all, documented), "") << where << ", all tables";
    EXPECT_EQ(differ(all, manOptions(root + "/man/" + tool.name + ".1")), "")
        << tool.name << " vs man/" << tool.name << ".1";
  }
}

}  // namespace
