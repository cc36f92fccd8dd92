#ifndef VORN_CORE_SFDATA_H
#define VORN_CORE_SFDATA_H

#include <cstdint>

#include "core/DataDirection.h"
#include "core/VornExport.h"

// A byte payload, always followed by one zero byte; null data and length 0 when empty.
class VORN_EXPORT SFData {
public:
    SFData(char const* data, unsigned int length, unsigned int direction);
    ~SFData();
    SFData(const SFData&) = delete;
    SFData& operator=(const SFData&) = delete;

    // A deep copy owned by the caller.
    SFData* Clone();

    char* data;
    uint32_t length;
    DataDirection direction;
};

#endif
