// The fault matrix through the library: tovcomms and serviceCommand against
// each fault, with the result code, the recorded error, what went to
// std::cerr, the caller's buffer and the process's descriptors checked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/deadline.h"
#include "fault_table.h"
#include "netns/netns_lab.h"
#include "support/stream_capture.h"
#include "tovapi/libtovapi.h"

namespace faults {

// What one library call left behind.
struct CallResult {
  int result = 0;
  int lastError = 0;       // tovDebug.getError() right after the call
  std::string err;         // what the call wrote to std::cerr
  bool bufferKept = true;  // the caller's pointer and its bytes unchanged
  std::size_t replyLength = 0;
  int replyStatus = 0;  // decoded reply, as a result code
  double seconds = 0;   // how long the call took
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CallResult, result, lastError, err,
                                   bufferKept, replyLength, replyStatus,
                                   seconds)

struct LibraryRun {
  CallResult exchange;
  CallResult service;
  int fdsBefore = 0;
  int fdsAfter = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(LibraryRun, exchange, service, fdsBefore,
                                   fdsAfter)

namespace {

using namespace tov1;
using testing::HasSubstr;

using CerrCapture = testsupport::StreamCapture;
using Clock = std::chrono::steady_clock;

// One call, within the row's deadline when it has one: what a tool does to
// a daemon that never lets go.
template <typename Call>
int timedCall(const Fault& f, double& seconds, Call call) {
  const auto start = Clock::now();
  tovtools::Deadline deadline(f.deadline);
  int result;
  {
    tovtools::Deadline::Guard guard(deadline);
    result = call();
  }
  seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return result;
}

LibraryRun observeLibrary(const Fault& f, const std::string& host,
                          const std::string& port) {
  tovDebug.setDebugLevel(0);
  tovNet.setTimeout(kTimeoutSec);
  tovCache.clearCache();
  const std::vector<std::string> auth = tovAuth.genObject(
      "admin", f.wrongPassword ? "not-the-password" : "secret", "");

  LibraryRun run;
  run.fdsBefore = openDescriptors();

  char sentinel[] = "untouched";
  char* buffer = sentinel;
  tovDebug.setError(TOV_OK);
  {
    CerrCapture capture;
    run.exchange.result = timedCall(f, run.exchange.seconds, [&] {
      return tovNet.tovcomms(buffer, host, port, f.request, auth, "");
    });
    run.exchange.err = capture.text();
  }
  run.exchange.lastError = tovDebug.getError();
  if (buffer == sentinel) {
    run.exchange.bufferKept = std::strcmp(sentinel, "untouched") == 0;
  } else {
    run.exchange.bufferKept = false;
    run.exchange.replyLength = std::strlen(buffer);
    CerrCapture quiet;
    run.exchange.replyStatus = -tovResponse.getTOVResponseStatus(buffer);
    delete[] buffer;
  }

  {
    // The service number is checked against the cache entry of the address;
    // without this the entry would be read from port 1195.
    CerrCapture quiet;
    double ignored;
    timedCall(f, ignored,
              [&] { return tovCache.refreshCache(host, port, false); });
  }
  tovDebug.setError(TOV_OK);
  {
    CerrCapture capture;
    run.service.result = timedCall(f, run.service.seconds, [&] {
      return tovNet.serviceCommand(host, port, "B", auth, 0, kAttempts, "");
    });
    run.service.err = capture.text();
  }
  run.service.lastError = tovDebug.getError();

  tovCache.clearCache();
  run.fdsAfter = openDescriptors();
  return run;
}

void expectCall(const char* what, const CallResult& got, const Expect& want,
                const Fault& f, const std::string& host,
                const std::string& port) {
  SCOPED_TRACE(what);
  if (f.deadline > 0) {
    EXPECT_LT(got.seconds, f.deadline + 1);
  }
  if (want.code == kAnyFailure) {
    EXPECT_LT(got.result, 0);
    return;
  }
  EXPECT_EQ(got.result, -want.code);
  EXPECT_EQ(got.lastError, want.code);
  if (want.text.empty()) {
    EXPECT_EQ(got.err, "");
  } else {
    // One diagnostic line, naming what went wrong.
    EXPECT_THAT(got.err, HasSubstr(fill(want.text, host, port)));
    EXPECT_EQ(got.err.find('\n'), got.err.size() - 1) << got.err;
  }
}

class LibrarySide : public testing::TestWithParam<Fault> {};

TEST_P(LibrarySide, GivesTheRowsCodeAndMessage) {
  const Fault& f = GetParam();
  std::string host = "127.0.0.1";
  std::string port;
  LibraryRun run;

  std::string skip;
  if (!runAgainstTarget(
          f, host, port,
          [&f](const std::string& h, const std::string& p) {
            return observeLibrary(f, h, p);
          },
          run, skip))
    GTEST_SKIP() << skip;

  EXPECT_EQ(run.fdsAfter, run.fdsBefore) << "descriptors leaked";

  expectCall("tovcomms", run.exchange, f.exchange, f, host, port);
  if (f.exchange.code != 0) {
    EXPECT_TRUE(run.exchange.bufferKept) << "buffer changed on failure";
  } else {
    EXPECT_FALSE(run.exchange.bufferKept) << "no reply handed over";
    EXPECT_EQ(run.exchange.replyStatus, f.replyStatus);
    if (f.replyLength != 0) {
      EXPECT_EQ(run.exchange.replyLength, f.replyLength);
    }
  }
  expectCall("serviceCommand", run.service, f.service, f, host, port);
}

// A deadline ends a call through the library's own failure path: the socket
// is closed, the process's streams and the client's settings are intact, and
// the next call in the same process works.
TEST(LibraryAfterADeadline, StaysUsableInTheSameProcess) {
  Fault stall;
  stall.simArgs = {"--reply-delay", "600000"};
  stall.deadline = 1;
  auto silent = startSimulator(stall);
  auto healthy = startSimulator(Fault{});
  tovDebug.setDebugLevel(0);
  tovNet.setTimeout(kTimeoutSec);
  const int fdsBefore = openDescriptors();
  for (int round = 0; round < 2; ++round) {
    char* reply = nullptr;
    double seconds = 0;
    {
      CerrCapture quiet;
      EXPECT_EQ(timedCall(stall, seconds,
                          [&] {
                            return tovNet.tovcomms(reply, "127.0.0.1",
                                                   silent->portStr(), "V 0", {},
                                                   "");
                          }),
                -static_cast<int>(TOV_SOCK_RECV));
    }
    EXPECT_LT(seconds, 2);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(openDescriptors(), fdsBefore);
    EXPECT_TRUE(std::cerr.good());
    EXPECT_EQ(
        tovNet.tovcomms(reply, "127.0.0.1", healthy->portStr(), "V 0", {}, ""),
        0);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(reply, 2), "Vn");
    delete[] reply;
  }
}

INSTANTIATE_TEST_SUITE_P(Faults, LibrarySide, testing::ValuesIn(faultTable()),
                         [](const testing::TestParamInfo<Fault>& info) {
                           return info.param.name;
                         });

}  // namespace

}  // namespace faults
