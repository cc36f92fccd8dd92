#ifndef VORN_SERVICE_CMD_ENTRY_H
#define VORN_SERVICE_CMD_ENTRY_H

#include "core/DataDirection.h"
#include "core/SFMessage.h"
#include "core/SFRespData.h"

typedef SFRespData* (*CmdHandler)(SFMessage* msg, void* service);

// One row of a service's command table.
struct cmd_entry {
    DataDirection direction;
    int timeout;
    char command[128];
    CmdHandler handler;
    void* soFunc;
    char soFuncName[128];
};

#endif
