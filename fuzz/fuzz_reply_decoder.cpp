// The reply decoder on NUL-terminated copies of arbitrary bytes, at debug
// level 0 and at the most detailed level (whose traces read the buffer too),
// and once on the null pointer that a failed exchange leaves behind.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "tovapi/libtovapi.h"

namespace {

// The result each reply letter stands for, as the decoder documents it.
int expectedStatus(const char* buffer) {
  if (buffer[0] == '\0' || buffer[1] == '\0')
    return -static_cast<int>(tov1::TOV_COMMS_BADRESPONSE);
  switch (buffer[1]) {
    case 'a':
    case 'f':
    case 'n':
    case 'w':
    case 'z':
      return 0;
    case 'b':
      return -static_cast<int>(tov1::TOV_COMMS_ALREADY);
    case 'c':
      return -static_cast<int>(tov1::TOV_COMMS_NOTRUN);
    case 'd':
    case 'h':
      return -static_cast<int>(tov1::TOV_COMMS_FAIL);
    case 'e':
      return -static_cast<int>(tov1::TOV_COMMS_PASSFAIL);
    case 'g':
      return -static_cast<int>(tov1::TOV_COMMS_BADSERVICE);
    case 'i':
      return -static_cast<int>(tov1::TOV_COMMS_SYSDOWN);
    case 'j':
      return -static_cast<int>(tov1::TOV_COMMS_NOT_BROKEN);
    case 'k':
    case 'o':
      return -static_cast<int>(tov1::TOV_COMMS_BUSY);
    case 'l':
      return -static_cast<int>(tov1::TOV_COMMS_ARGS);
    case 'm':
    case 'p':
      return -static_cast<int>(tov1::TOV_COMMS_LOCKED);
    case 'u':
      return -static_cast<int>(tov1::TOV_COMMS_TOVERR);
    default:
      return -static_cast<int>(tov1::TOV_COMMS_BADRESPONSE);
  }
}

void checkNull() {
  FUZZ_REQUIRE(tov1::tovResponse.getTOVResponseStatus(nullptr) ==
               -static_cast<int>(tov1::TOV_COMMS_NORESPONSE));
  FUZZ_REQUIRE(tov1::tovResponse.getTOVResponseMsg(nullptr).empty());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Traces go to standard error; keep them out of the fuzzer's output.
  static fuzzsupport::NullBuf sink;
  std::cerr.rdbuf(&sink);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static bool nullChecked = false;
  if (!nullChecked) {
    checkNull();
    nullChecked = true;
  }
  // Exactly as long as the text and its terminator, so any read past the
  // terminator leaves the allocation.
  std::unique_ptr<char[]> buffer(new char[size + 1]);
  if (size > 0) std::memcpy(buffer.get(), data, size);
  buffer[size] = '\0';
  const std::size_t length = std::strlen(buffer.get());

  for (unsigned level : {0u, 3u}) {
    tov1::tovDebug.setDebugLevel(level);
    const int status = tov1::tovResponse.getTOVResponseStatus(buffer.get());
    FUZZ_REQUIRE(status == expectedStatus(buffer.get()));
    if (status != 0) FUZZ_REQUIRE(tov1::tovDebug.getError() == -status);

    const std::string msg = tov1::tovResponse.getTOVResponseMsg(buffer.get());
    FUZZ_REQUIRE(msg.size() + 2 <= length || msg.empty());
    FUZZ_REQUIRE(msg.find('\n') == std::string::npos);
    if (!msg.empty()) {
      // The message is the tail of the first line, after letter and blank.
      const std::string text(buffer.get(), length);
      const std::size_t at = text[2] == ' ' ? 3 : 2;
      FUZZ_REQUIRE(text.compare(at, msg.size(), msg) == 0);
      const std::size_t end = at + msg.size();
      FUZZ_REQUIRE(
          end == length || text[end] == '\n' ||
          (text[end] == '\r' && (end + 1 == length || text[end + 1] == '\n')));
    }
  }
  tov1::tovDebug.setDebugLevel(0);
  return 0;
}
