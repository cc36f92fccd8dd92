#include "core/SFRespData.h"

#include <cstring>

#include "core/ErrorCode.h"

// An empty payload records DATA_RESPONSE as its direction; the result is kept in every case.
SFRespData::SFRespData(int res, char const* bytes, unsigned int size, unsigned int dir)
    : data(nullptr), length(0), direction(DATA_RESPONSE), result(res) {
    if (bytes == nullptr || size == 0) return;
    data = new char[size + 1]();
    memcpy(data, bytes, size);
    length = size;
    direction = static_cast<DataDirection>(dir);
}

SFRespData::~SFRespData() {
    // Written through a volatile lvalue so the optimiser cannot drop it as a store to a dying
    // object: a use after destruction must read as a failure.
    *static_cast<volatile int32_t*>(&result) = ERR_NORMAL;
    delete[] data;
    data = nullptr;
    length = 0;
}

SFRespData* SFRespData::Clone() {
    SFRespData* copy = new SFRespData(result, data, length, direction);
    copy->direction = direction;
    return copy;
}
