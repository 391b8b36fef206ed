#include "common/access.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

namespace tovtools {

bool splitHostPort(const std::string& text, std::string& host, int& port,
                   std::string& why) {
  std::string name = text;
  std::string portText;
  if (!text.empty() && text[0] == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string::npos ||
        (close + 1 < text.size() && text[close + 1] != ':')) {
      why = "\"" + text + "\" is not [ADDRESS] or [ADDRESS]:PORT";
      return false;
    }
    name = text.substr(1, close - 1);
    if (close + 1 < text.size()) portText = text.substr(close + 2);
    if (close + 1 < text.size() && portText.empty()) {
      why = "\"" + text + "\" has an empty port";
      return false;
    }
  } else if (std::count(text.begin(), text.end(), ':') == 1) {
    const std::size_t colon = text.find(':');
    name = text.substr(0, colon);
    portText = text.substr(colon + 1);
    if (portText.empty()) {
      why = "\"" + text + "\" has an empty port";
      return false;
    }
  }
  if (name.empty()) {
    why = "the host is empty";
    return false;
  }
  if (!portText.empty()) {
    const bool digits =
        portText.size() <= 5 &&
        std::all_of(portText.begin(), portText.end(),
                    [](char c) { return c >= '0' && c <= '9'; });
    const int value = digits ? std::stoi(portText) : 0;
    if (value < 1 || value > 65535) {
      why = "port \"" + portText + "\" of \"" + text +
            "\" is not a number from 1 to 65535";
      return false;
    }
    port = value;
  }
  host = name;
  return true;
}

bool readPasswordFile(const std::string& path, std::string& line,
                      std::string& why) {
  line.clear();
  auto cannot = [&why, &path] {
    why = "cannot read password file " + path + ": " + std::strerror(errno);
    return false;
  };
  if (path == "-") {
    std::getline(std::cin, line);
  } else {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return cannot();
    if ((st.st_mode & (S_IRGRP | S_IROTH)) != 0) {
      char mode[8];
      std::snprintf(mode, sizeof mode, "%04o",
                    static_cast<unsigned>(st.st_mode & 07777));
      why = "password file " + path + " can be read by others (mode " + mode +
            "); make it private with: chmod 600 " + path;
      return false;
    }
    std::ifstream in(path);
    if (!in) return cannot();
    std::getline(in, line);
    if (in.bad()) return cannot();
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

}  // namespace tovtools
