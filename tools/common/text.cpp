#include "text.h"

namespace tovtools {

namespace {

bool continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Length of the well-formed UTF-8 sequence at `i`, or 0.
std::size_t sequenceAt(const std::string& s, std::size_t i) {
  const auto at = [&s](std::size_t k) {
    return static_cast<unsigned char>(s[k]);
  };
  const unsigned char c = at(i);
  std::size_t len;
  unsigned char lo = 0x80;
  unsigned char hi = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    len = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    len = 3;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;  // no surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    len = 4;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (i + len > s.size()) return 0;
  if (at(i + 1) < lo || at(i + 1) > hi) return 0;
  for (std::size_t k = 2; k < len; ++k) {
    if (!continuation(at(i + k))) return 0;
  }
  return len;
}

void appendHex(std::string& out, unsigned char c) {
  static const char kDigits[] = "0123456789abcdef";
  out += "\\x";
  out += kDigits[c >> 4];
  out += kDigits[c & 0x0F];
}

}  // namespace

std::string escapeControls(const std::string& text, bool keepLineFeeds) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      const bool keep =
          c >= 0x20 ? c != 0x7F : c == '\t' || (c == '\n' && keepLineFeeds);
      if (keep) {
        out += static_cast<char>(c);
      } else {
        appendHex(out, c);
      }
      ++i;
      continue;
    }
    const std::size_t len = sequenceAt(text, i);
    // U+0080..U+009F are the C1 controls (CSI among them).
    const bool c1 =
        len == 2 && c == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    if (len == 0 || c1) {
      appendHex(out, c);
      if (c1) appendHex(out, static_cast<unsigned char>(text[i + 1]));
      i += c1 ? 2 : 1;
      continue;
    }
    out.append(text, i, len);
    i += len;
  }
  return out;
}

std::string validUtf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const std::size_t len = c < 0x80 ? 1 : sequenceAt(text, i);
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text, i, len);
      i += len;
    }
  }
  return out;
}

std::string jsonText(const nlohmann::json& value, int indent) {
  return value.dump(indent, ' ', false,
                    nlohmann::json::error_handler_t::replace);
}

}  // namespace tovtools
