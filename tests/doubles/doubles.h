// Recording test doubles of the client's collaborators. A test binary links
// these instead of the real collaborators to see exactly which traces,
// errors and collaborator calls the client makes, and to script the answers.
#ifndef TESTS_DOUBLES_DOUBLES_H
#define TESTS_DOUBLES_DOUBLES_H

#include <functional>
#include <string>
#include <vector>

namespace doubles {

struct RefreshCall {
  std::string address;
  std::string port;
  bool force;
};

struct AuthlineCall {
  std::vector<std::string> authvec;
  std::string binsalt;
  std::string command;
};

struct Recorder {
  // Diagnostics.
  int level = 0;
  std::vector<std::string> writes;                          // write() texts
  std::vector<std::pair<std::string, std::string>> errors;  // error()
  std::vector<int> setErrors;                               // setError()

  // Cache.
  std::vector<RefreshCall> refreshCalls;
  std::function<int(const std::string&, const std::string&, bool)> refresh;
  int pollTime = 0;
  std::vector<std::string> pollTimeCalls;

  // Cluster.
  int serviceCount = 2;
  std::vector<std::string> serviceCountCalls;

  // Reply decoder; null texts are recorded as "<null>".
  std::vector<std::string> statusCalls;
  std::vector<std::string> msgCalls;

  // Authentication.
  std::vector<std::string> getBinCalls;
  std::vector<AuthlineCall> authlineCalls;
  std::string authline = "user 00ff";
  std::function<void()> duringAuthline;  // runs inside generateAuthline

  // Every collaborator call in order, as "object.operation".
  std::vector<std::string> calls;

  // Everything written through write() and error(), joined.
  std::string allText() const;
  bool wrote(const std::string& needle) const;
};

Recorder& rec();
void reset();

// printClassMsg calls, kept in constant-initialised storage because they
// happen during static initialisation, before any test runs.
extern int classMsgCount;
extern char classMsgName[64];
extern bool classMsgFlag;

}  // namespace doubles

#endif  // TESTS_DOUBLES_DOUBLES_H
