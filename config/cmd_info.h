#ifndef VORN_CONFIG_CMD_INFO_H
#define VORN_CONFIG_CMD_INFO_H

#include <cstdint>
#include <string>

// One white-list row: a command the service accepts, its time-out and its HAL function.
struct cmd_info {
    std::string command;
    uint32_t timeout;
    std::string func;
};

#endif
