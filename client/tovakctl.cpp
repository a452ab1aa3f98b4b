// tovakctl: one command to tovakd per run; see tovakctl --help.
#include <iostream>
#include <string>
#include <vector>

#include "tovakctl_cmds.h"

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    return tovakctl_main(args, std::cout, std::cerr);
}
