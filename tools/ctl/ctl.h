// dhcpsnoopctl as a function: arguments in, exit code out (0 done, 1 the
// command was refused, 2 the daemon could not be reached).
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace ctl {

constexpr const char* kDefaultControlPath = "/run/dhcpsnoop/dhcpsnoopd.sock";

int ctlMain(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace ctl
