// One bulk endpoint of a MIDI streaming interface, with a port for each of its embedded jacks. An
// IN pipe keeps two reads outstanding; an OUT pipe fills one transfer while the other is in flight.
//
// Construction, Start, Stop and destruction run at PASSIVE_LEVEL, one at a time. DoOutput runs
// below DISPATCH_LEVEL; the output mutex lets one port's writer at a time through. Completions run
// at DISPATCH_LEVEL on any processor; the input lock lets one of the two reads of an IN pipe at a
// time through. A transfer belongs to whoever waited for its event (OUT) or got its completion (IN)
// until it is submitted, to the bus from there to its completion. Nothing is allocated after
// construction.
#pragma once

#include "usbdriver/midipacket.h"
#include "usbdriver/midiport.h"
#include "usbdriver/shared.h"

class CUsbPipe;

class UsbMidiPipe : public PoolObject {
public:
    // The base behaviour takes input for a plain stream of MIDI bytes, once decoded, and gives it
    // to port 0. What is public here and virtual is for pipes that speak something of their own.
    explicit UsbMidiPipe(CUsbPipe* pipe);
    UsbMidiPipe(const UsbMidiPipe&) = delete;
    UsbMidiPipe& operator=(const UsbMidiPipe&) = delete;

    // --- What kinds of pipes differ in ----------------------------------------------------------

    // Whether the pipe wants to see a message that goes out, or decides who hears one that came in.
    virtual bool HooksMessage(std::span<const UCHAR> message);
    // F0 01 x y F7 from a vendor-format pin; on: y is not 0.
    virtual void VendorSysexCommand(bool on);
    // An ordinary pin's message that HooksMessage accepted, after it was sent.
    virtual void TakeHookedMessage(std::span<const UCHAR> message);
    // Packs the port's next message; returns how many of its pending bytes that took.
    virtual std::size_t EncodeMidiPacket(UsbMidiPort& port, MidiPacketBuffer& packets) = 0;
    // A transfer has come in. DISPATCH_LEVEL, one at a time.
    virtual void HandleUsbMidiPacketIn(std::span<const UCHAR> transfer);
    // The MIDI bytes of a transfer, for the base behaviour.
    virtual std::span<const UCHAR> DecodeInput(std::span<const UCHAR> transfer) = 0;
    // Sends one transfer with what the ports have pending, one message of each in turn. Waits up to
    // 1 s for a free transfer; sends nothing when there is none by then.
    virtual void DoOutput();
    virtual void OutputHook();
    // Stops. A completion may still come meanwhile: who overrides what it calls stops in a
    // destructor of its own, before there is only the base to be called.
    virtual ~UsbMidiPipe();

    // --- Ports ----------------------------------------------------------------------------------

    std::size_t PortCount() const { return m_PortCount; }
    // `index` is below PortCount. Null when there was no memory for the port.
    UsbMidiPort* GetPort(std::size_t index) const { return m_Ports[index]; }

    // --- Life -----------------------------------------------------------------------------------

    // Clears a halt, then reads, or lets writers write. A pipe that runs is stopped first.
    void Start();
    void Stop(); // returns when every transfer has come back

    bool IsInput() const;
    ULONG CurrentFrame() const;                          // of the bus, 1 ms; 0 when it can't be had
    PFAST_MUTEX OutputMutex() { return &m_OutputMutex; } // guards the ports' pending output

protected:
    bool IsAllocated() const; // everything that a transfer needs
    void AddPort();
    void RemovePorts();
    CUsbPipe* UsbPipe() const { return m_UsbPipe; }

private:
    static constexpr std::size_t kTransfers = 2;

    struct Transfer {
        KEVENT idle;        // signalled while it is not in flight and the pipe runs
        PIRP irp = nullptr; // owned
        _URB_BULK_OR_INTERRUPT_TRANSFER urb = {};
        PoolBuffer buffer; // of one packet of the endpoint
    };

    static NTSTATUS NTAPI IrpCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context);
    static std::span<const UCHAR> Received(const Transfer& transfer);
    void Completed(Transfer& transfer);
    void AbortTransfers();
    bool ClaimIdle(Transfer& transfer);
    std::size_t PackOutput(std::span<UCHAR> buffer);
    void SubmitUrb(Transfer& transfer, std::size_t length);
    void BuildUrb(Transfer& transfer, std::size_t length) const;

    UsbMidiPort* m_Ports[kMaxMidiCables] = {}; // owned
    std::size_t m_PortCount = 0;
    std::size_t m_CurrentTransfer = 0; // the one that DoOutput fills next; output mutex
    FAST_MUTEX m_OutputMutex;
    KSPIN_LOCK m_InputLock;
    CUsbPipe* const m_UsbPipe;         // not owned
    const std::size_t m_TransferBytes; // of the largest transfer
    Transfer m_Transfers[kTransfers];
    PendingIrps m_PendingIrps;
    Shared<bool> m_Running;      // written by Start and Stop
    UsbMidiParser m_InputParser; // of the base behaviour; input lock
};

// A pipe that speaks USB-MIDI event packets. A pipe that can't be used, for want of jacks, memory
// or room for a packet, has no ports.
class UsbMidiClassPipe final : public UsbMidiPipe {
public:
    explicit UsbMidiClassPipe(CUsbPipe* pipe);
    ~UsbMidiClassPipe() override { Stop(); }

    std::size_t EncodeMidiPacket(UsbMidiPort& port, MidiPacketBuffer& packets) override;
    void HandleUsbMidiPacketIn(std::span<const UCHAR> transfer) override;
    std::span<const UCHAR> DecodeInput(std::span<const UCHAR> transfer) override;

private:
    std::size_t CountJacks() const;

    UsbMidiPort* m_CableMap[kMaxMidiCables] = {};  // by cable number; null: no such port
    UsbMidiParser m_OutputParsers[kMaxMidiCables]; // by cable number; output mutex
};
