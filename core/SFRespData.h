#ifndef VORN_CORE_SFRESPDATA_H
#define VORN_CORE_SFRESPDATA_H

#include <cstdint>

#include "core/DataDirection.h"
#include "core/VornExport.h"

// A response payload with its result code.
class VORN_EXPORT SFRespData {
public:
    SFRespData(int result, char const* data, unsigned int length, unsigned int direction);
    // Leaves result at 1001, so a use after destruction reads as a failure.
    ~SFRespData();
    SFRespData(const SFRespData&) = delete;
    SFRespData& operator=(const SFRespData&) = delete;

    SFRespData* Clone();

    char* data;
    uint32_t length;
    DataDirection direction;
    int32_t result;
};

#endif
