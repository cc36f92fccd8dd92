#include "core/SFData.h"

#include <cstring>

// An empty payload records DATA_REQUEST as its direction, so that no field is left unset.
SFData::SFData(char const* bytes, unsigned int size, unsigned int dir)
    : data(nullptr), length(0), direction(DATA_REQUEST) {
    if (bytes == nullptr || size == 0) return;
    data = new char[size + 1]();
    memcpy(data, bytes, size);
    length = size;
    direction = static_cast<DataDirection>(dir);
}

SFData::~SFData() {
    delete[] data;
    data = nullptr;
    length = 0;
}

SFData* SFData::Clone() {
    SFData* copy = new SFData(data, length, direction);
    copy->direction = direction;
    return copy;
}
