// Device control requests as the I/O manager builds them, by the transfer method of their code.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/irps.h"

namespace kelvane::nt {

struct ControlRequest {
    ULONG code = 0;
    void* input = nullptr;
    ULONG inputBytes = 0;
    void* output = nullptr;
    ULONG outputBytes = 0;
    bool internal = false;
};

IRP* buildControl(DEVICE_OBJECT* device, const ControlRequest& request);

} // namespace kelvane::nt
