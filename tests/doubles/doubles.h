// Recording doubles of the client's collaborators: linked instead of the real
// ones, they show which traces, errors and calls the client makes, and let a
// test script the answers.
#ifndef TESTS_DOUBLES_DOUBLES_H
#define TESTS_DOUBLES_DOUBLES_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace doubles {

struct RefreshCall {
  std::string address, port;
  bool force;
};

struct Recorder {
  int level = 0;                                            // debug level
  std::vector<std::string> writes;                          // write() texts
  std::vector<std::pair<std::string, std::string>> errors;  // error()
  std::vector<RefreshCall> refreshCalls;
  std::function<int()> refresh;            // the refresh result, 0 if unset
  std::vector<std::string> pollTimeCalls;  // each answered with 0 s
  int serviceCount = 2;

  // Whether any write() text contains `needle`.
  bool wrote(const std::string& needle) const;
};

Recorder& rec();
void reset();

// printClassMsg calls: constant-initialised, since the global client makes
// one during static initialisation.
extern int classMsgCount;
extern char classMsgName[64];
extern bool classMsgFlag;

}  // namespace doubles

#endif  // TESTS_DOUBLES_DOUBLES_H
