// How a tool is told where a daemon is and how to prove who it is.
#ifndef TOOLS_COMMON_ACCESS_H
#define TOOLS_COMMON_ACCESS_H

#include <string>

namespace tovtools {

// Splits "host", "host:port", "[v6]" or "[v6]:port"; a bare IPv6 address
// (more than one colon) is a host. `port` is left alone when none is given.
// False, with the reason, for an empty host or a bad port.
bool splitHostPort(const std::string& text, std::string& host, int& port,
                   std::string& why);

// The first line of a file (or of standard input for "-"), without its line
// end. A file that others may read is refused, with the reason: the password
// in it is as good as the operator's.
bool readPasswordFile(const std::string& path, std::string& line,
                      std::string& why);

}  // namespace tovtools

#endif  // TOOLS_COMMON_ACCESS_H
