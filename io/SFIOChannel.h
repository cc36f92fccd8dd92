#ifndef VORN_IO_SFIOCHANNEL_H
#define VORN_IO_SFIOCHANNEL_H

#include "core/VornExport.h"

// One descriptor of a device node or file, with operations that retry on interruption and on a
// temporarily unavailable device.
class VORN_EXPORT SFIOChannel {
public:
    SFIOChannel();
    virtual ~SFIOChannel();
    SFIOChannel(const SFIOChannel&) = delete;
    SFIOChannel& operator=(const SFIOChannel&) = delete;

    int Open(char const* path, bool plain);
    int Read(char* buffer, int length);
    int Write(char const* data, int length);
    int Close();

private:
    int m_nFd;
};

#endif
