// Small helpers shared by the fuzz targets.
#ifndef TOVAPI_FUZZ_SUPPORT_H
#define TOVAPI_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>
#include <streambuf>

namespace fuzzsupport {

// A stream buffer that accepts and drops everything, so that the formatting
// code still runs but nothing reaches a terminal.
class NullBuf : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// A broken invariant is a finding: report it on the raw standard error (the
// C++ streams may be silenced) and abort so that the fuzzer keeps the input.
[[noreturn]] inline void fail(const char* what, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, what);
  std::abort();
}

}  // namespace fuzzsupport

#define FUZZ_REQUIRE(cond) \
  ((cond) ? (void)0 : ::fuzzsupport::fail(#cond, __FILE__, __LINE__))

#endif  // TOVAPI_FUZZ_SUPPORT_H
