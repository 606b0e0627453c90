// What a bus error sets off: the pipe is aborted and reset outside the completion path, and the
// stream stays stopped until the device starts it again.
#include "usbdriver/audstream.h"

// Before each start: recovery from the run before has ended, and the next one has its work item.
void UsbAudioStream::PrepareRecovery() {
    WaitForRecovery();
    PDEVICE_OBJECT const device = m_Interface->GetDevice()->LowerDevice();
    if (m_RecoveryWorkItem == nullptr && device != nullptr) {
        m_RecoveryWorkItem = IoAllocateWorkItem(device);
    }
}

void UsbAudioStream::TriggerErrorRecovery() {
    DbgPrint("Called in %s() line %d \n", "UsbAudioStream::TriggerErrorRecovery", __LINE__);
    if (m_Pipe == nullptr) {
        DbgPrint("m_pipe not set in %s() line %d \n", "UsbAudioStream::TriggerErrorRecovery",
                 __LINE__);
        return;
    }
    // Two transfers may fail at once, and a work item is queued only once at a time.
    if (m_RecoveryWorkItem == nullptr || InterlockedExchange(&m_RecoveryQueued, 1) != 0) {
        return;
    }
    m_Recovery.CountIn();
    IoQueueWorkItem(m_RecoveryWorkItem, InterruptErrorRecoveryWorkItem, DelayedWorkQueue, this);
}

void NTAPI UsbAudioStream::InterruptErrorRecoveryWorkItem(PDEVICE_OBJECT, PVOID context) {
    DbgPrint("Called in %s() line %d \n", "UsbAudioStream::InterruptErrorRecoveryWorkItem",
             __LINE__);
    static_cast<UsbAudioStream*>(context)->RecoverPipe();
}

// The pipe stays valid for as long as this runs: clean-up and the next start wait for its end.
void UsbAudioStream::RecoverPipe() {
    if (m_Pipe != nullptr) {
        m_Pipe->Abort();
        m_Pipe->Reset();
    }
    StopStreaming();
    InterlockedExchange(&m_RecoveryQueued, 0);
    m_Recovery.CountOut();
}

void UsbAudioStream::WaitForRecovery() {
    m_Recovery.Wait();
}
