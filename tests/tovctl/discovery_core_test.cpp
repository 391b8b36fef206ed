// The tools' discovery core on answers handed to it one at a time: grouped
// as the library groups the pooled lines, malformed answers skipped whole,
// and the caps.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/discovery.h"
#include "discovery.h"
#include "tovapi/internal_discovery.h"
#include "tovapi/libtovapi.h"

namespace {

using namespace tovtools;
using Datagrams = std::vector<std::string>;

std::string cluster(const std::string& name, const std::string& crc,
                    int bootstrap = 0, const std::string& desc = "d") {
  return "C " + name + " 2 3 " + crc + " 7 1000 42 5 2000 " +
         std::to_string(bootstrap) + " m-" + name + " " + desc;
}

// Node lines first to first + count - 1, one per line.
std::string nodes(int first, int count) {
  std::string text;
  for (int i = first; i < first + count; ++i) {
    text += (text.empty() ? "N n" : "\nN n") + std::to_string(i) + " 127.0." +
            std::to_string(i / 200) + "." + std::to_string(i % 200 + 1) + " 4";
  }
  return text;
}

DiscoverySelection select(const Datagrams& answers, int mode = 0) {
  AnswerSelector selector(mode);
  for (std::size_t i = 0; i < answers.size(); ++i) {
    selector.add({"127.0.0." + std::to_string(i + 1), answers[i]});
  }
  return selector.selection();
}

std::string joined(const std::vector<std::string>& fields) {
  std::string line;
  for (const std::string& f : fields) line += (line.empty() ? "" : " ") + f;
  return line;
}

// The library's raw report of the pooled lines, without its summary, and
// the same rebuilt from the core's records.
std::string libraryRecords(const Datagrams& answers, int mode,
                           unsigned& count) {
  std::vector<std::string> pooled;
  for (const std::string& a : answers) tovUtils::tokenizer(a, pooled, "\n");
  std::ostringstream out;
  count = tov1::discovery::reportAnswers(pooled, mode, false, out);
  const std::string text = out.str();
  return text.substr(0, text.rfind("\n " + std::string(52, '-') + " \n F"));
}

std::string coreRecords(const DiscoverySelection& s) {
  std::string text;
  for (const DiscoveredRecord& r : s.records) {
    text += "\n" + joined(r.cluster) + "\n";
    for (const auto& n : r.nodes) text += joined(n) + "\n";
  }
  return text;
}

TEST(DiscoveryCore, GroupsAnswersAsTheLibraryDoes) {
  const std::string boot = cluster("boot", "b1", 1);
  const struct {
    const char* what;
    Datagrams answers;
    int mode;
  } cases[] = {
      {"node lines continue over datagrams",
       {cluster("a", "1") + "\n" + nodes(1, 2), nodes(3, 2), nodes(5, 1) + "\n",
        cluster("b", "2") + "\n" + nodes(1, 1)},
       0},
      {"a 256-node cluster in four datagrams",
       {cluster("big", "9") + "\n" + nodes(1, 64), nodes(65, 64),
        nodes(129, 64), nodes(193, 64) + "\n" + boot},
       0},
      {"continuing a record the mode leaves out",
       {boot + "\n" + nodes(1, 1), nodes(2, 2) + "\n" + cluster("a", "1"),
        nodes(9, 1)},
       tov1::tov_discover_cluster},
      {"continuing a duplicate, and a bootstrap CRC",
       {cluster("a", "1"), cluster("a2", "1") + "\n" + nodes(1, 1), nodes(2, 1),
        boot, cluster("late", "b1"), boot + "\n" + nodes(3, 1)},
       0},
      {"bootstrap machines only",
       {boot + "\n" + nodes(1, 1), nodes(2, 1), cluster("a", "1"), nodes(3, 1)},
       tov1::tov_discover_bootstrap},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const DiscoverySelection s = select(c.answers, c.mode);
    unsigned count = 0;
    EXPECT_EQ(coreRecords(s), libraryRecords(c.answers, c.mode, count));
    EXPECT_EQ(s.records.size(), count);
    EXPECT_EQ(s.skippedCount + s.dropped, 0u);
    // tovctl prints the records as the library's labelled report does.
    std::vector<std::string> pooled;
    for (const std::string& a : c.answers) tovUtils::tokenizer(a, pooled, "\n");
    std::ostringstream library, tool;
    tov1::discovery::reportAnswers(pooled, c.mode, true, library);
    tovctl::printReport(tool, s, c.mode);
    EXPECT_EQ(tool.str(), library.str());
  }
  // The record belongs to the sender of its cluster line.
  const DiscoverySelection s = select({boot, cluster("a", "1"), nodes(1, 1)});
  EXPECT_EQ(s.records.at(1).sender, "127.0.0.2");
  EXPECT_EQ(s.records.at(1).nodes.size(), 1u);
}

// A malformed answer is skipped whole and leaves no trace: what the answer
// before it left open stays open.
TEST(DiscoveryCore, SkipsMalformedAnswersWhole) {
  const std::string a = cluster("a", "1");
  const std::string full = a + "\n" + nodes(1, 257);
  const struct {
    Datagrams answers;
    std::string reason;             // of the first skipped answer
    std::vector<std::size_t> kept;  // node lines of each record kept
  } cases[] = {
      {{nodes(1, 1), a}, "node line before any cluster line", {0}},
      {{a + "\nX\n" + nodes(1, 1)},
       "node line after a line that is neither a cluster nor a node line",
       {}},
      {{a + "\n" + nodes(1, 1) + "\nV 1", nodes(2, 1)},
       "node line before any cluster line",
       {1}},
      {{a + " extra"}, "cluster line with 14 field(s) instead of 13", {}},
      {{a + "\n" + nodes(1, 1), "N n2", nodes(3, 1)},
       "node line 2 of cluster a has 2 field(s), at least 3 needed",
       {2}},
      {{a + "\n" + nodes(1, 1), "C bad 1 2", nodes(2, 1)},
       "cluster line with 4 field(s) instead of 13",
       {2}},
      {{full}, "cluster a has more than 256 node lines", {}},
      {{a + "\n" + nodes(1, 200), nodes(201, 56), nodes(257, 1), nodes(1, 1)},
       "cluster a has more than 256 node lines",
       {256}},
      {{"X junk", "", a}, "no cluster line", {0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    const DiscoverySelection s = select(c.answers);
    ASSERT_FALSE(s.skipped.empty());
    EXPECT_EQ(s.skipped[0].reason, c.reason);
    std::vector<std::size_t> kept;
    for (const DiscoveredRecord& r : s.records) kept.push_back(r.nodes.size());
    EXPECT_EQ(kept, c.kept);
    EXPECT_EQ(s.dropped, 0u);
  }
  // The first 16 are named with their senders, all are counted.
  const DiscoverySelection many = select(Datagrams(20, "N orphan"));
  EXPECT_EQ(many.skippedCount, 20u);
  ASSERT_EQ(many.skipped.size(), kDiscoveryMaxListedSkips);
  EXPECT_EQ(many.skipped[15].sender, "127.0.0.16");
}

TEST(DiscoveryCore, CapsKeepWholeAnswersAndCountTheRest) {
  Datagrams answers;
  for (int i = 0; i <= 1024; ++i)
    answers.push_back(cluster("c", "x" + std::to_string(i)));
  DiscoverySelection s = select(answers);
  EXPECT_EQ(s.records.size(), kDiscoveryMaxRecords);
  EXPECT_EQ(s.dropped, 1u);
  EXPECT_EQ(s.droppedBytes, answers.back().size());

  // The byte cap, just reached; then node lines of the kept record that no
  // longer fit, and after them a short one that would: no record is shown
  // with a gap.
  const std::string base = cluster("big", "1", 0, "");
  const std::string fill = cluster(
      "big", "1", 0, std::string(kDiscoveryMaxBytes - base.size() - 10, 'd'));
  const std::string more = "\n" + nodes(1, 1), last = "N a b";
  s = select({fill, more, last});
  ASSERT_EQ(s.records.size(), 1u);
  EXPECT_TRUE(s.records[0].nodes.empty());
  EXPECT_EQ(s.dropped, 2u);
  EXPECT_EQ(s.droppedBytes, more.size() + last.size());
  // Without the too-long one, the short one fits.
  s = select({fill, last});
  EXPECT_EQ(s.records.at(0).nodes.size(), 1u);
  EXPECT_EQ(s.dropped, 0u);
  // What the mode leaves out costs nothing.
  s = select({fill, cluster("boot", "2", 1) + "\n" + nodes(1, 3), nodes(4, 1)},
             tov1::tov_discover_cluster);
  EXPECT_EQ(s.records.size() + s.dropped + s.skippedCount, 1u);
}

}  // namespace
