// dm.cfg from arbitrary bytes: the loader and every list grammar. What is
// saved from any input must load back to itself.
#include <cstdlib>
#include <string>

#include "config/tovak_config.h"
#include "sim_device.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static TempDir dir;
    static const std::string in = dir.path() + "/in.cfg", out = dir.path() + "/out.cfg";
    write_file(in, std::string(reinterpret_cast<const char*>(data), size));
    if (tovak_config_load_file(in.c_str()) != 0)
        abort();
    tovak_config_save_file(out.c_str());
    const std::string saved = read_file(out);
    if (tovak_config_load_file(out.c_str()) != 0)
        abort();
    tovak_config_save_file(out.c_str());
    if (read_file(out) != saved)
        abort();
    return 0;
}
