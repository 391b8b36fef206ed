// Protocol letters of the daemon's request/reply exchange. Each enumerator's
// value is the character code of its letter, so a request line is built by
// appending the enumerator as a char and a reply is read by comparing its
// status character with these values.
#ifndef TOVLIB_TOVCON_H
#define TOVLIB_TOVCON_H

#include <cstdint>

// First character of a request line.
enum request_packet_code : std::uint32_t {
  req_aux = 'a',
  req_extended = '@',
  req_config = 'A',
  req_bounce = 'B',
  req_info = 'C',
  req_timeout = 'D',
  req_restart = 'E',
  req_pass = 'F',
  req_stop = 'G',
  req_manual = 'H',
  req_automatic = 'I',
  req_chkpw = 'J',
  req_bstop = 'K',
  req_sysdown = 'L',
  req_maint = 'M',
  req_heartbeats = 'N',
  req_servlist = 'O',
  req_hostlist = 'P',
  req_hblist = 'Q',
  req_events = 'R',
  req_getconf = 'S',
  req_getstat = 'T',
  req_repair = 'U',
  req_version = 'V',
  req_block = 'W',
  req_unblock = 'X',
  req_log = 'Y',
  req_requesthandler = 'Z',
  req_sayrunning = '['
};

// Secondary letter of an authenticated request (after 'J').
enum request2_authenticated_code : std::uint32_t { req2a_halt = 'A' };

// Status character of a daemon reply (index 1 of the reply text).
enum response_packet_code : std::uint32_t {
  rep_ok = 'a',
  rep_already = 'b',
  rep_notrun = 'c',
  rep_fail = 'd',
  rep_passfail = 'e',
  rep_stopping = 'f',
  rep_badservice = 'g',
  rep_manual = 'h',
  rep_sysdown = 'i',
  rep_not_broken = 'j',
  rep_busy = 'k',
  rep_args = 'l',
  rep_locked = 'm',
  rep_data = 'n',
  rep_rate_limit = 'o',
  rep_ll_locked = 'p',
  rep_unknown = 'u',
  rep_waiting = 'w',
  rep_atend = 'z'
};

#endif  // TOVLIB_TOVCON_H
