// Takes everything written to a standard stream for as long as it lives, by
// swapping the stream's buffer (the way the library's node probe does).
#ifndef TESTS_SUPPORT_STREAM_CAPTURE_H
#define TESTS_SUPPORT_STREAM_CAPTURE_H

#include <iostream>
#include <sstream>
#include <string>

namespace testsupport {

class StreamCapture {
 public:
  explicit StreamCapture(std::ostream& stream = std::cerr)
      : stream_(stream), saved_(stream.rdbuf(text_.rdbuf())) {}
  ~StreamCapture() { stream_.rdbuf(saved_); }
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;
  std::string text() const { return text_.str(); }

 private:
  std::ostream& stream_;
  std::stringstream text_;
  std::streambuf* saved_;
};

}  // namespace testsupport

#endif  // TESTS_SUPPORT_STREAM_CAPTURE_H
