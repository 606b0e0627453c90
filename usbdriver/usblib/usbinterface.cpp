#include "usbdriver/usblib/usbinterface.h"

#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/usblib/usbpipe.h"

namespace {

constexpr LONG kAnyLong = -1; // in the platform's parsers

LONG AsSearchKey(UCHAR value) {
    return value == kAnyValue ? kAnyLong : LONG{value};
}

// The length that a report with this many pipes needs at least.
std::size_t InformationBytes(ULONG pipes) {
    return FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes) + pipes * sizeof(USBD_PIPE_INFORMATION);
}

} // namespace

CUsbInterface::~CUsbInterface() {
    Empty();
}

UCHAR CUsbInterface::GetInterfaceNumber() const {
    return m_InterfaceInfo.IsEmpty() ? UCHAR{0} : Info()->InterfaceNumber;
}

UCHAR CUsbInterface::GetAlternateSetting() const {
    return m_InterfaceInfo.IsEmpty() ? UCHAR{0} : Info()->AlternateSetting;
}

UCHAR CUsbInterface::GetInterfaceClass() const {
    return m_InterfaceInfo.IsEmpty() ? UCHAR{0} : Info()->Class;
}

UCHAR CUsbInterface::GetInterfaceSubClass() const {
    return m_InterfaceInfo.IsEmpty() ? UCHAR{0} : Info()->SubClass;
}

ULONG CUsbInterface::GetNumberOfPipes() const {
    return m_InterfaceInfo.IsEmpty() ? ULONG{0} : Info()->NumberOfPipes;
}

void CUsbInterface::Empty() {
    m_InterfaceInfo.Free();
    for (CUsbPipe*& pipe : m_Pipes) {
        delete pipe;
        pipe = nullptr;
    }
    m_InterfaceDescriptor = nullptr;
}

bool CUsbInterface::SetInterfaceInformation(const USBD_INTERFACE_INFORMATION* information) {
    Empty();
    if (information == nullptr) {
        return true;
    }
    const ULONG pipes = information->NumberOfPipes;
    if (pipes > kMaxUsbPipes || information->Length < InformationBytes(pipes)) {
        DbgPrint("CUsbInterface::SetInterfaceInformation() : %d bytes with %d pipes refused\n",
                 information->Length, pipes);
        return false;
    }
    if (!m_InterfaceInfo.Allocate(NonPagedPool, information->Length)) {
        return false;
    }
    RtlCopyMemory(m_InterfaceInfo.Data(), information, information->Length);
    if (!CreatePipes()) {
        Empty();
        return false;
    }
    m_InterfaceDescriptor = m_Device->ParseConfigurationDescriptor(
        nullptr, information->InterfaceNumber, information->AlternateSetting, information->Class,
        information->SubClass, information->Protocol);
    AssociateEndpointDescriptors();
    return true;
}

bool CUsbInterface::CreatePipes() {
    for (ULONG i = 0; i < GetNumberOfPipes(); ++i) {
        m_Pipes[i] = new (NonPagedPool) CUsbPipe(this, Info()->Pipes[i]);
        if (m_Pipes[i] == nullptr) {
            return false;
        }
    }
    return true;
}

// Each search starts at the descriptor found before and finds it again, so that all pipes share the
// setting's first endpoint descriptor. Deliberate: what differs between the endpoints of a setting
// is read from the bus driver's pipe information.
void CUsbInterface::AssociateEndpointDescriptors() {
    if (m_InterfaceDescriptor == nullptr) {
        return;
    }
    PVOID position = m_InterfaceDescriptor;
    for (ULONG i = 0; i < m_InterfaceDescriptor->bNumEndpoints && position != nullptr; ++i) {
        position = m_Device->ParseDescriptors(position, kEndpointDescriptor);
        if (position != nullptr && m_Pipes[i] != nullptr) {
            m_Pipes[i]->SetEndpointDescriptor(static_cast<PUSB_ENDPOINT_DESCRIPTOR>(position));
        }
    }
}

NTSTATUS CUsbInterface::SetAlternateInterface(UCHAR setting) {
    if (!m_InterfaceInfo.IsEmpty() && Info()->AlternateSetting == setting) {
        return STATUS_SUCCESS;
    }
    DbgPrint("CUsbInterface::SetAlternateInterface(%d)\n", setting);
    if (m_InterfaceInfo.IsEmpty()) {
        return STATUS_INTERNAL_ERROR;
    }
    return m_Device->SetAlternateInterface(GetInterfaceNumber(), setting);
}

PUSB_COMMON_DESCRIPTOR CUsbInterface::FindNextDescriptor(const USB_COMMON_DESCRIPTOR* cursor,
                                                         UCHAR type) const {
    if (cursor == nullptr) {
        cursor = reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(m_InterfaceDescriptor);
    }
    if (cursor == nullptr) {
        return nullptr;
    }
    PUSB_COMMON_DESCRIPTOR next = m_Device->FindNextDescriptor(cursor, kAnyDescriptor);
    while (next != nullptr && next->bDescriptorType != kInterfaceDescriptor) {
        if (type == kAnyDescriptor || next->bDescriptorType == type) {
            return next;
        }
        next = m_Device->FindNextDescriptor(next, kAnyDescriptor);
    }
    return nullptr;
}

PUSB_INTERFACE_DESCRIPTOR
CUsbInterface::FindAlternateSetting(const USB_INTERFACE_DESCRIPTOR* cursor,
                                    const AlternateSettingPattern* pattern) const {
    const AlternateSettingPattern keys = pattern != nullptr ? *pattern : AlternateSettingPattern{};
    PVOID start = nullptr;
    if (cursor != nullptr) {
        start = m_Device->FindNextDescriptor(reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(cursor),
                                             kAnyDescriptor);
        if (start == nullptr) {
            return nullptr;
        }
    }
    return m_Device->ParseConfigurationDescriptor(
        start, GetInterfaceNumber(), AsSearchKey(keys.bAlternateSetting),
        AsSearchKey(keys.bInterfaceClass), AsSearchKey(keys.bInterfaceSubClass),
        AsSearchKey(keys.bInterfaceProtocol));
}
