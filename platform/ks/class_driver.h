// The kernel streaming class driver of a machine: which drivers have registered with it.
//
// Everything else that it knows hangs in the device objects that it makes. Drivers and applications
// reach it through the published routines and requests; there is nothing to call here.
#pragma once

#include "platform/nt/kernel.h"
#include "platform/nt/machine.h"

#include <map>
#include <mutex>

namespace kelvane::ks {

class ClassDriver : public nt::Service {
public:
    explicit ClassDriver(nt::Machine&) {}
    static ClassDriver& current() { return nt::Machine::current().service<ClassDriver>(); }

    void add(DRIVER_OBJECT* driver, const KSDEVICE_DESCRIPTOR* descriptor);
    void remove(DRIVER_OBJECT* driver);
    // Null for a driver that gave none.
    const KSDEVICE_DESCRIPTOR* descriptorOf(DRIVER_OBJECT* driver);

private:
    std::mutex m_mutex;
    std::map<DRIVER_OBJECT*, const KSDEVICE_DESCRIPTOR*> m_descriptors;
};

} // namespace kelvane::ks
