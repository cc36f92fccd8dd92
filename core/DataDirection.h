#ifndef VORN_CORE_DATADIRECTION_H
#define VORN_CORE_DATADIRECTION_H

// What a payload carries.
enum DataDirection { DATA_REQUEST = 1, DATA_RESPONSE = 2 };

// Which way a message travels through a service's queues.
enum MsgDirection { MSG_REQUEST = 1, MSG_RESPONSE = 2 };

#endif
