// Text from daemons and the network, made safe to show.
#ifndef TOOLS_COMMON_TEXT_H
#define TOOLS_COMMON_TEXT_H

#include <nlohmann/json.hpp>
#include <string>

namespace tovtools {

// What a terminal would act on, shown as \xNN instead: C0 control characters
// (tab kept; line feed kept when `keepLineFeeds`), DEL, C1 control
// characters and every byte that is not part of well-formed UTF-8. Other
// text, backslashes included, stays as it is.
std::string escapeControls(const std::string& text, bool keepLineFeeds);

// The text with every byte that is not part of well-formed UTF-8 replaced
// by U+FFFD, for formats that must be UTF-8.
std::string validUtf8(const std::string& text);

// Compact or indented JSON that never fails on bytes: text that is not
// well-formed UTF-8 has the offending bytes replaced by U+FFFD.
std::string jsonText(const nlohmann::json& value, int indent = 2);

}  // namespace tovtools

#endif  // TOOLS_COMMON_TEXT_H
