// The symbolic names of the library's result codes, for every tool that
// reports them.
#ifndef TOOLS_COMMON_CODENAMES_H
#define TOOLS_COMMON_CODENAMES_H

#include <string>

namespace tovtools {

// "TOV_COMMS_FAIL" for 22; "" for the reserved code 56 and for values outside
// the codes.
std::string codeName(int code);

}  // namespace tovtools

#endif  // TOOLS_COMMON_CODENAMES_H
