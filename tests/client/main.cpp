// Runs the client suite; notes first what happened before main() started.
#include <gtest/gtest.h>

#include "client_fixture.h"

int main(int argc, char** argv) {
  clienttest::classMsgCallsBeforeMain = doubles::classMsgCount;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
