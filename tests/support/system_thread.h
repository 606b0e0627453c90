// A thread of the machine's own.
#pragma once

#include "platform/nt/kernel.h"

#include <functional>
#include <utility>

namespace kelvane::tests {

// Runs `body` as a system thread; the destructor waits for its end.
class SystemThread {
public:
    explicit SystemThread(std::function<void()> body) : m_body(std::move(body)) {
        PsCreateSystemThread(&m_handle, 0, nullptr, nullptr, nullptr, run, this);
    }
    ~SystemThread() {
        ZwWaitForSingleObject(m_handle, FALSE, nullptr);
        ZwClose(m_handle);
    }
    SystemThread(const SystemThread&) = delete;
    SystemThread& operator=(const SystemThread&) = delete;

private:
    static void NTAPI run(PVOID self) {
        static_cast<SystemThread*>(self)->m_body();
        PsTerminateSystemThread(STATUS_SUCCESS);
    }
    std::function<void()> m_body;
    HANDLE m_handle = nullptr;
};

} // namespace kelvane::tests
