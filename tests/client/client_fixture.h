// Common ground of the client suite: a clean recorder and a fresh debug level
// for every test, and helpers to capture the standard streams.
#ifndef TESTS_CLIENT_CLIENT_FIXTURE_H
#define TESTS_CLIENT_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>

#include "doubles/doubles.h"
#include "support/stream_capture.h"
#include "tovapi/libtovapi.h"

namespace tov1 {
int getIpFamily(int family);
}

namespace clienttest {

extern int classMsgCallsBeforeMain;

// What the diagnostics object hands back for a recorded failure.
constexpr int fail(tov1::tov_error_enum code) {
  return -static_cast<int>(code);
}

using Capture = testsupport::StreamCapture;

class ClientTest : public testing::Test {
 protected:
  void SetUp() override {
    doubles::reset();
    tov1::Debug::useColour = false;
  }
  doubles::Recorder& rec() { return doubles::rec(); }
  tov1::TOVNet net;
};

}  // namespace clienttest

#endif  // TESTS_CLIENT_CLIENT_FIXTURE_H
