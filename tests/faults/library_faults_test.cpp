// The fault matrix through the library: tovcomms and serviceCommand against
// each fault, with what they return, record, write and leave behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <iostream>

#include "common/deadline.h"
#include "fault_table.h"
#include "support/stream_capture.h"
#include "tovapi/libtovapi.h"

namespace faults {

namespace {

using namespace tov1;

constexpr int kUnchecked = -2;  // run within the deadline, check nothing

// Runs one call within `deadline` seconds unless that is 0 (what a tool does
// to a daemon that never lets go) and checks its result, the error it
// recorded and its line on std::cerr. Returns how long it took.
template <typename Call>
double check(const char* what, double deadline, const Expect& want,
             const std::string& host, const std::string& port, Call call) {
  SCOPED_TRACE(what);
  tovDebug.setError(TOV_OK);
  const auto start = std::chrono::steady_clock::now();
  int result;
  std::string err;
  {
    testsupport::StreamCapture capture;
    tovtools::Deadline limit(deadline);
    tovtools::Deadline::Guard guard(limit);
    result = call();
    err = capture.text();
  }
  const std::chrono::duration<double> took =
      std::chrono::steady_clock::now() - start;
  if (want.code == kUnchecked) return took.count();
  if (deadline > 0) {
    // Ends with the deadline: not before it, and not long after.
    EXPECT_LT(took.count(), 2 * deadline + 1);
    EXPECT_GE(took.count(), want.code != 0 ? deadline - 0.01 : 0);
  }
  if (want.code == kAnyFailure) {
    EXPECT_LT(result, 0);
  } else {
    EXPECT_EQ(result, -want.code);
    EXPECT_EQ(tovDebug.getError(), want.code);
    // Nothing at all, or one line naming what went wrong.
    EXPECT_EQ(err.empty(), want.text.empty()) << err;
    EXPECT_THAT(err, testing::HasSubstr(fill(want.text, host, port)));
    EXPECT_EQ(err.find('\n'), err.empty() ? err.npos : err.size() - 1) << err;
  }
  return took.count();
}

void observe(const Fault& f, const std::string& host, const std::string& port) {
  tovDebug.setDebugLevel(0);
  tovNet.setTimeout(kTimeoutSec);
  tovCache.clearCache();
  const double deadline = f.stalls ? kDeadlineSec : 0;
  const std::vector<std::string> auth = tovAuth.genObject(
      "admin", f.wrongPassword ? "not-the-password" : "secret", "");
  const int fdsBefore = openDescriptors();

  char sentinel[] = "untouched";
  char* buffer = sentinel;
  const double seconds = check(
      "tovcomms", deadline, f.exchange, host, port,
      [&] { return tovNet.tovcomms(buffer, host, port, f.request, auth, ""); });
  if (f.target == Target::Blackhole) {
    // The connect waits out the client's timeout, and no more.
    EXPECT_GE(seconds, kTimeoutSec - 0.05);
    EXPECT_LT(seconds, 5 * kTimeoutSec);
  }
  if (f.exchange.code != 0) {
    EXPECT_EQ(buffer, sentinel) << "buffer changed on failure";
    EXPECT_STREQ(sentinel, "untouched");
  } else if (buffer != sentinel) {
    if (f.replyLength != 0) {
      EXPECT_EQ(std::strlen(buffer), f.replyLength);
    }
    testsupport::StreamCapture quiet;
    EXPECT_EQ(-tovResponse.getTOVResponseStatus(buffer), f.replyStatus);
    delete[] buffer;
  } else {
    ADD_FAILURE() << "no reply handed over";
  }

  // The service number is checked against the address's cache entry, which
  // would otherwise be read from port 1195.
  check("refreshCache", deadline, {kUnchecked, ""}, host, port,
        [&] { return tovCache.refreshCache(host, port, false); });
  check("serviceCommand", deadline, f.service, host, port,
        [&] { return tovNet.serviceCommand(host, port, "B", auth, 0, 3, ""); });
  tovCache.clearCache();
  EXPECT_EQ(openDescriptors(), fdsBefore) << "descriptors leaked";
  if (f.target == Target::NoRoute) {
    // Discovery cannot even send its probe (and leaves its socket open).
    testsupport::StreamCapture quiet(std::cout);
    EXPECT_EQ(tovNet.discoverClusters(host, 0, true), TOV_SOCK_SEND);
  }
  if (f.stalls) {
    // The calls cut short leave the library usable.
    EXPECT_TRUE(std::cerr.good());
    auto healthy = startSimulator({});
    EXPECT_EQ(tovCache.refreshCache("127.0.0.1", healthy->portStr(), false), 0);
  }
}

TEST_P(FaultRow, ThroughTheLibrary) {
  const std::string skip = onTarget(GetParam(), observe);
  if (!skip.empty()) GTEST_SKIP() << skip;
}

}  // namespace

}  // namespace faults
