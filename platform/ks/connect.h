// What an application asks for when it opens a pin: the file name is the pin class's GUID as text,
// a backslash, and the bytes of a KSPIN_CONNECT with its KSDATAFORMAT.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::ks {

struct Filter;

struct ConnectRequest {
    KSPIN_CONNECT* connect = nullptr; // an aligned copy, with the format right behind
    KSDATAFORMAT* format = nullptr;
    const KSPIN_DESCRIPTOR_EX* descriptor = nullptr;

    void free();
};

// Checks everything that the class driver judges. STATUS_OBJECT_NAME_NOT_FOUND: not a pin's name;
// STATUS_INVALID_BUFFER_SIZE: too short for what it claims to hold; STATUS_INVALID_PARAMETER: no
// such pin, or one that takes no connections; STATUS_NO_MATCH: interface, medium or format is none
// of the pin's; STATUS_NOT_SUPPORTED: the pin's flags ask for what this class driver lacks.
NTSTATUS readConnectRequest(IRP& irp, const Filter& filter, ConnectRequest& request);

} // namespace kelvane::ks
