// dhcpsnoopctl: the operator's side of dhcpsnoopd's control socket.
#include <iostream>

#include "tools/ctl/ctl.h"

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    int rc = ctl::ctlMain(args, std::cout, std::cerr);
    std::cout.flush();
    return rc;
}
