// Port names as people write them ("1/0/5", "po2"): what every platform's
// usStr2Up and the configuration file accept. Host-side helper shared by
// the platform implementations; the module never includes it.
#pragma once

#include <string>

#include "platform/port.h"

namespace porttext {

// "U/S/P" (kind 1) or "poN" (kind 2), each number 0..255 in at most three
// digits, nothing after it. Leading blanks and tabs are skipped. On success
// *handle is set; it is left alone otherwise.
bool parse(const char* text, up* handle);

// The platform's name of a port (usUp2Str), or the handle in hex where it
// has none: what the daemon shows of a binding's port.
std::string name(up handle);

}  // namespace porttext
