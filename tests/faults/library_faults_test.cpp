// The fault matrix through the library: tovcomms and serviceCommand against
// each fault, with the result code, the recorded error, what went to
// std::cerr, the caller's buffer and the process's descriptors checked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

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
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CallResult, result, lastError, err,
                                   bufferKept, replyLength, replyStatus)

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
    run.exchange.result =
        tovNet.tovcomms(buffer, host, port, f.request, auth, "");
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
    tovCache.refreshCache(host, port, false);
  }
  tovDebug.setError(TOV_OK);
  {
    CerrCapture capture;
    run.service.result =
        tovNet.serviceCommand(host, port, "B", auth, 0, kAttempts, "");
    run.service.err = capture.text();
  }
  run.service.lastError = tovDebug.getError();

  tovCache.clearCache();
  run.fdsAfter = openDescriptors();
  return run;
}

void expectCall(const char* what, const CallResult& got, const Expect& want,
                const std::string& host, const std::string& port) {
  SCOPED_TRACE(what);
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

  expectCall("tovcomms", run.exchange, f.exchange, host, port);
  if (f.exchange.code != 0) {
    EXPECT_TRUE(run.exchange.bufferKept) << "buffer changed on failure";
  } else {
    EXPECT_FALSE(run.exchange.bufferKept) << "no reply handed over";
    EXPECT_EQ(run.exchange.replyStatus, f.replyStatus);
    if (f.replyLength != 0) {
      EXPECT_EQ(run.exchange.replyLength, f.replyLength);
    }
  }
  expectCall("serviceCommand", run.service, f.service, host, port);
}

INSTANTIATE_TEST_SUITE_P(Faults, LibrarySide, testing::ValuesIn(faultTable()),
                         [](const testing::TestParamInfo<Fault>& info) {
                           return info.param.name;
                         });

}  // namespace

}  // namespace faults
