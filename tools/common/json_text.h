// JSON text of the tools' outputs (replay files, dhcpsnoopctl --json).
#pragma once

#include <string>

namespace jsontext {

// text as a JSON string: quoted, with quotes, backslashes and control
// characters escaped; other bytes (UTF-8 included) as they are.
std::string quoted(const std::string& text);

}  // namespace jsontext
