// The named-clusters file: what a bad file is told, what a good one gives,
// and where the file is looked for.
#include "common/clusters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using tovtools::ClusterConfig;
using tovtools::ClusterFile;

// A private directory, and the variables a test sets put back afterwards.
class ClustersTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "clusters_XXXXXX";
    ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
    dir_ = pattern;
    for (const char* name : kVars) {
      const char* value = getenv(name);
      saved_.emplace_back(value ? std::optional<std::string>(value)
                                : std::nullopt);
    }
  }
  void TearDown() override {
    for (std::size_t i = 0; i < saved_.size(); ++i) setVar(kVars[i], saved_[i]);
    fs::remove_all(dir_);
  }
  static void setVar(const char* name, const std::optional<std::string>& v) {
    v ? setenv(name, v->c_str(), 1) : unsetenv(name);
  }
  std::string write(const std::string& name, const std::string& text) {
    const fs::path path = dir_ / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
  }

  static constexpr const char* kVars[] = {"HOME", "XDG_CONFIG_HOME",
                                          "XDG_CONFIG_DIRS"};
  fs::path dir_;
  std::vector<std::optional<std::string>> saved_;
};

struct BadFile {
  std::string text;
  std::string at;  // "line:column"
  std::string says;
};

TEST_F(ClustersTest, BadFilesAreRefusedAtTheirFirstProblem) {
  const std::string a = "[clusters.a]\nhosts = [\"h\"]\n";
  std::string many = "[clusters.a]\nhosts = [\"h\"";
  for (int i = 0; i < 256; ++i) many += ", \"h\"";
  const BadFile rows[] = {
      {"[clusters.a\nhosts = [\"h\"]\n", "1:12", "Error while parsing"},
      {"title = \"x\"\n" + a, "1:1", "title: unknown key"},
      {a + "prot = 1\n", "3:1", "clusters.a.prot: unknown key (known: "},
      {a + "x.y = 1\n", "3:1", "clusters.a.x: unknown key"},
      {"[clusters.\"a b\"]\nhosts = [\"h\"]\n", "1:11",
       "clusters.\"a b\": a cluster's name is 1 to 64"},
      {"[clusters." + std::string(65, 'n') + "]\nhosts = [\"h\"]\n", "1:11",
       "name is 1 to 64"},
      {"[clusters.a]\nhosts = []\n", "2:9", "names 0 hosts; it must name 1"},
      {many + "]\n", "2:9", "names 257 hosts; it must name 1 to 256"},
      {"[clusters.a]\nhosts = [\"h\", \"b:0\"]\n", "2:15",
       "clusters.a.hosts[1]: port \"0\" of \"b:0\" is not a number"},
      {"[clusters.a]\nhosts = [\"h\\n\"]\n", "2:10", "has a control character"},
      {a + "port = 70000\n", "3:8",
       "clusters.a.port: 70000 is not a port from 1 to 65535"},
      {a + "port = 0\n", "3:8", "0 is not a port"},
      {a + "deadline = nan\n", "3:12",
       "clusters.a.deadline: nan is not a number of seconds from 0 to 86400"},
      {a + "deadline = inf\n", "3:12", "inf is not a number of seconds"},
      {a + "deadline = -0.5\n", "3:12", "-0.5 is not a number of seconds"},
      {a + "deadline = 86400.5\n", "3:12", "86400.5 is not a number"},
      {a + "timeout = 0\n", "3:11",
       "clusters.a.timeout: 0 is not a number of seconds from 0.001 to 86400"},
      {a + "password = \"x\"\n", "3:1",
       "clusters.a.password: a password is never written here; put it in a "
       "private file (chmod 600) named by password_file"},
      {a + "port = \"1195\"\n", "3:8",
       "port: must be an integer from 1 to 65535, not a string"},
      {a + "deadline = true\n", "3:12",
       "must be a number of seconds from 0 "
       "to 86400, not a boolean"},
      {a + "user = 5\n", "3:8",
       "clusters.a.user: must be a string, not an "
       "integer"},
      {a + "user = \"ad min\"\n", "3:8", "a user name has no blanks"},
      {a + "user = \"ad\\tmin\"\n", "3:8", "a user name has no blanks"},
      {a + "password_file = \"\"\n", "3:17", "password_file: is empty"},
      {a + "password_file = \"~bob/pw\"\n", "3:17", "only ~/ is understood"},
      {"[clusters.a]\nhosts = \"h\"\n", "2:9",
       "hosts: must be an array of strings, not a string"},
      {"[clusters.a]\nhosts = [1]\n", "2:10",
       "hosts[0]: must be a string, not an integer"},
      {"clusters = 1\n", "1:12", "clusters: must be a table, not an integer"},
      {"[clusters]\na = 1\n", "2:5", "clusters.a: must be a table"},
      {"[clusters.a]\nport = 1\n", "1:1", "clusters.a: hosts is missing"},
      // Keys come back sorted; the problem reported is the first written.
      {a + "timeout = 0\nport = 0\n", "3:11", "timeout"},
  };
  for (const BadFile& row : rows) {
    SCOPED_TRACE(row.text);
    const std::string path = write("bad.toml", row.text);
    ClusterFile file;
    file.path = "untouched";
    std::string why;
    EXPECT_FALSE(tovtools::loadClusterFile(path, file, why));
    EXPECT_THAT(why, testing::StartsWith(path + ":" + row.at + ": "));
    EXPECT_THAT(why, HasSubstr(row.says));
    EXPECT_EQ(why.find('\n'), std::string::npos);
    EXPECT_EQ(file.path, "untouched");
  }
}

TEST_F(ClustersTest, LimitsOnWhatIsReadAtAll) {
  const std::string pad = "[clusters.a]\nhosts = [\"h\"]\n#";
  const std::string full = pad + std::string((1 << 20) - pad.size(), 'x');
  ClusterFile file;
  std::string why;
  EXPECT_TRUE(tovtools::loadClusterFile(write("full", full), file, why)) << why;
  EXPECT_FALSE(tovtools::loadClusterFile(write("over", full + "x"), file, why));
  EXPECT_THAT(why, HasSubstr("over: larger than 1 MiB"));
  // Every dot of a dotted key is a level of tables the parser recurses into,
  // also where it follows what a string or comment might seem to hide.
  std::string deep = "a";
  for (int i = 0; i < 3000; ++i) deep += ".a";
  for (const std::string& text :
       {deep + " = 1", "x = \"a\n" + deep + " = 1",
        "t = { s = \"\\\"\", " + deep + " = 1 }",
        "t = { s = \"\"\"x\"\"\"\", " + deep + " = 1 }",
        "t = { s = '''x''''', " + deep + " = 1 }"}) {
    EXPECT_FALSE(tovtools::loadClusterFile(write("deep", text), file, why));
    EXPECT_THAT(why, HasSubstr("deep: more than 2048 dots outside strings"))
        << text.substr(0, 30);
  }
  EXPECT_FALSE(tovtools::loadClusterFile(dir_.string(), file, why));
  EXPECT_THAT(why, HasSubstr("Is a directory"));
}

TEST_F(ClustersTest, GoodFileGivesEveryValue) {
  setenv("HOME", "/home/op", 1);
  // Dots in comments and strings are not keys: 2100 of each stay allowed.
  const std::string longHost = "a" + std::string(2100, '.') + "b";
  const std::string edgeName = "edge-1.x_" + std::string(55, 'e');
  std::string wideHosts = "'h'";
  for (int i = 1; i < 256; ++i) wideHosts += ", 'h'";
  const std::string path =
      write("conf/clusters.toml", "# " + std::string(2100, '.') + R"(
[clusters.prod]
hosts = ["10.0.0.11", "10.0.0.12:1195", "[fd00::7]:1195"]
port = 1195
user = "admin"
password_file = "prod.pw"
deadline = 20
timeout = 3

[clusters.")" + edgeName + R"("]
hosts = ["::1", ")" + longHost + R"("]
port = 65535
password_file = "~/tov/pw"
deadline = 0
timeout = 0.001

[clusters.wide]
hosts = [)" + wideHosts + R"(]
port = 1
password_file = '/etc/pw'
deadline = 86400.0
timeout = 86400
)");
  ClusterFile file;
  std::string why;
  ASSERT_TRUE(tovtools::loadClusterFile(path, file, why)) << why;
  EXPECT_EQ(file.path, path);
  ASSERT_EQ(file.clusters.size(), 3u);
  const ClusterConfig& prod = file.clusters.at("prod");
  EXPECT_EQ(prod.name, "prod");
  EXPECT_THAT(prod.hosts,
              ElementsAre("10.0.0.11", "10.0.0.12:1195", "[fd00::7]:1195"));
  EXPECT_EQ(prod.port, 1195);
  EXPECT_EQ(prod.user, "admin");
  EXPECT_EQ(prod.passwordFile, (dir_ / "conf/prod.pw").string());
  EXPECT_EQ(prod.deadline, 20.0);
  EXPECT_EQ(prod.timeout, 3.0);
  EXPECT_EQ(prod.source, path + ":2");
  const ClusterConfig& edge = file.clusters.at(edgeName);
  EXPECT_THAT(edge.hosts, ElementsAre("::1", longHost));
  EXPECT_EQ(edge.port, 65535);
  EXPECT_EQ(edge.user, std::nullopt);
  EXPECT_EQ(edge.passwordFile, "/home/op/tov/pw");
  EXPECT_EQ(edge.deadline, 0.0);
  EXPECT_EQ(edge.timeout, 0.001);
  EXPECT_EQ(edge.source, path + ":10");
  const ClusterConfig& wide = file.clusters.at("wide");
  EXPECT_EQ(wide.hosts.size(), 256u);
  EXPECT_EQ(wide.port, 1);
  EXPECT_EQ(wide.passwordFile, "/etc/pw");
  EXPECT_EQ(wide.deadline, 86400.0);
  EXPECT_EQ(wide.timeout, 86400.0);

  // An empty file names no cluster, and that is no error.
  ASSERT_TRUE(tovtools::loadClusterFile(write("empty", ""), file, why));
  EXPECT_TRUE(file.clusters.empty());
}

TEST_F(ClustersTest, SearchOrderAndWhatIsSaidWhenNothingIsFound) {
  const std::string d = dir_.string();
  setenv("HOME", (d + "/home").c_str(), 1);
  unsetenv("XDG_CONFIG_HOME");
  setenv("XDG_CONFIG_DIRS", (d + "/a/:relative:" + d + "/b").c_str(), 1);
  const std::string home = d + "/home/.config/tov/clusters.toml";
  const std::string inA = d + "/a/tov/clusters.toml";
  const std::string inB = d + "/b/tov/clusters.toml";
  EXPECT_THAT(tovtools::clusterFileCandidates(""),
              ElementsAre(home, inA, inB, "/etc/tov/clusters.toml"));
  EXPECT_THAT(tovtools::clusterFileCandidates("x.toml"), ElementsAre("x.toml"));
  setenv("XDG_CONFIG_HOME", "relative", 1);
  EXPECT_EQ(tovtools::clusterFileCandidates("")[0], home);
  setenv("XDG_CONFIG_HOME", (d + "/xdg").c_str(), 1);
  EXPECT_EQ(tovtools::clusterFileCandidates("")[0],
            d + "/xdg/tov/clusters.toml");
  unsetenv("XDG_CONFIG_HOME");
  unsetenv("HOME");
  unsetenv("XDG_CONFIG_DIRS");
  EXPECT_THAT(
      tovtools::clusterFileCandidates(""),
      ElementsAre("/etc/xdg/tov/clusters.toml", "/etc/tov/clusters.toml"));
  setenv("XDG_CONFIG_DIRS", "/etc/", 1);
  EXPECT_THAT(tovtools::clusterFileCandidates(""),
              ElementsAre("/etc/tov/clusters.toml"));
  setenv("HOME", (d + "/home").c_str(), 1);
  setenv("XDG_CONFIG_DIRS", (d + "/a:" + d + "/b").c_str(), 1);

  ClusterFile file;
  ClusterConfig cluster;
  std::string why;
  if (!fs::exists("/etc/tov/clusters.toml")) {
    EXPECT_TRUE(tovtools::findClusterFile("", file, why));
    EXPECT_EQ(file.path, "");
    EXPECT_FALSE(tovtools::findCluster("", "prod", cluster, why));
    EXPECT_EQ(why, "no cluster file for cluster \"prod\"; looked for " + home +
                       ", " + inA + ", " + inB + ", /etc/tov/clusters.toml");
  }
  // Each file found hides those after it.
  for (const std::string& place : {inB, inA, home}) {
    const std::string name = fs::path(place).parent_path().string();
    write(place.substr(d.size() + 1),
          "[clusters.c]\nhosts = [\"" + name +
              "\"]\n[clusters.b]\nhosts = [\"x\"]\n");
    ASSERT_TRUE(tovtools::findCluster("", "c", cluster, why)) << why;
    EXPECT_THAT(cluster.hosts, ElementsAre(name));
  }
  EXPECT_FALSE(tovtools::findCluster("", "nope", cluster, why));
  EXPECT_EQ(why, home + ": no cluster \"nope\"; it has b, c");
  const std::string mine = write("mine.toml", "");
  EXPECT_FALSE(tovtools::findCluster(mine, "c", cluster, why));
  EXPECT_EQ(why, mine + ": no cluster \"c\"; it names none");
  EXPECT_FALSE(tovtools::findClusterFile(d + "/missing", file, why));
  EXPECT_EQ(why, "cannot read " + d + "/missing: No such file or directory");
  // A bad file found is an error, not a reason to look further.
  write(home.substr(d.size() + 1), "port = 1\n");
  EXPECT_FALSE(tovtools::findClusterFile("", file, why));
  EXPECT_THAT(why, HasSubstr(home + ":1:1: port: unknown key"));
}

}  // namespace
