// Captures everything written to std::cerr while alive, the same way the
// node probe does: by swapping the stream's buffer.
#ifndef TESTS_COLLAB_DIAG_CAPTURE_H
#define TESTS_COLLAB_DIAG_CAPTURE_H

#include <iostream>
#include <sstream>
#include <string>

#include "support/stream_capture.h"
#include "tovapi/libtovapi.h"

using CerrCapture = testsupport::StreamCapture;

// Leaves the process-wide diagnostic settings as each test found them.
class DiagState {
 public:
  DiagState()
      : level_(tov1::tovDebug.getDebugLevel()),
        colour_(tov1::Debug::useColour) {}
  ~DiagState() {
    tov1::tovDebug.setDebugLevel(static_cast<unsigned>(level_));
    tov1::Debug::useColour = colour_;
  }
  DiagState(const DiagState&) = delete;
  DiagState& operator=(const DiagState&) = delete;

 private:
  int level_;
  bool colour_;
};

#endif  // TESTS_COLLAB_DIAG_CAPTURE_H
