// tovakctl: commands to tovakd; see tovakctl --help.
#include <iostream>

#include "tovakctl.h"

int main(int argc, char** argv)
{
    ctl_catch_interrupt();
    return tovakctl_main(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
