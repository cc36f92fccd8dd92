#ifndef VORN_CORE_SF_RESPONSE_H
#define VORN_CORE_SF_RESPONSE_H

#include <cstdint>

// The fixed-size reply record a service's response thread fills and the front end writes out.
struct sf_response {
    uint32_t length;
    char text[3172];
    int32_t direction;
};

// A raw byte source for SFService::OnHandleResponse(bool, response_info*, sf_response*).
struct response_info {
    char bytes[3172];
};

#endif
