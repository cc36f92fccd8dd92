// Builds the configuration from the installed library and prints the misc service's record.
#include <iostream>

#include "vorn_core.h"

int main() {
    ConfigManager cfg;
    CommonConfig* misc = cfg.GetConfig(MISC_SERVICE);
    if (!misc) return 1;
    std::cout << misc->ToString() << std::endl;
    return 0;
}
