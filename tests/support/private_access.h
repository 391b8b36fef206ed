// Read access to the client's private timeout fields and its private connect
// operation from tests, through explicit instantiation (which is exempt from
// access checking), without widening the public class.
#ifndef TESTS_SUPPORT_PRIVATE_ACCESS_H
#define TESTS_SUPPORT_PRIVATE_ACCESS_H

#include "tovapi/libtovapi.h"

namespace privileged {

template <typename Tag, typename Tag::type Member>
struct Grant {
  friend typename Tag::type get(Tag) { return Member; }
};

struct TimeoutSec {
  using type = int tov1::TOVNet::*;
  friend type get(TimeoutSec);
};
struct TimeoutUsec {
  using type = int tov1::TOVNet::*;
  friend type get(TimeoutUsec);
};
struct ConnectTimeout {
  using type = int (tov1::TOVNet::*)(int, const sockaddr*, socklen_t, int, int);
  friend type get(ConnectTimeout);
};

template struct Grant<TimeoutSec, &tov1::TOVNet::timeoutSec>;
template struct Grant<TimeoutUsec, &tov1::TOVNet::timeoutUsec>;
template struct Grant<ConnectTimeout, &tov1::TOVNet::connectTimeout>;

inline int& timeoutSec(tov1::TOVNet& net) { return net.*get(TimeoutSec{}); }
inline int& timeoutUsec(tov1::TOVNet& net) { return net.*get(TimeoutUsec{}); }
inline int connectTimeout(tov1::TOVNet& net, int fd, const sockaddr* addr,
                          socklen_t len, int sec, int usec) {
  return (net.*get(ConnectTimeout{}))(fd, addr, len, sec, usec);
}

}  // namespace privileged

#endif  // TESTS_SUPPORT_PRIVATE_ACCESS_H
