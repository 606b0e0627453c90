#include "platform/usb/usb_library.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <span>
#include <tuple>

namespace kelvane::usb {

namespace {

// The kernel's own view of a device, which needs no permission.
class DeviceFolder {
public:
    explicit DeviceFolder(libusb_device* device) {
        std::array<std::uint8_t, 7> ports{}; // hubs are at most so deep (USB 2.0, 4.1.1)
        const int depth = libusb_get_port_numbers(device, ports.data(), ports.size());
        const unsigned bus = libusb_get_bus_number(device);
        if (depth > 0) {
            m_path = fmt::format(
                "/sys/bus/usb/devices/{}-{}/", bus,
                fmt::join(ports.begin(), ports.begin() + static_cast<std::ptrdiff_t>(depth), "."));
        } else {
            m_path = fmt::format("/sys/bus/usb/devices/usb{}/", bus);
        }
    }

    std::string text(const char* name) const {
        std::ifstream file(m_path + name);
        std::string line;
        std::getline(file, line);
        return line;
    }
    std::vector<std::byte> bytes(const char* name) const {
        std::ifstream file(m_path + name, std::ios::binary);
        const std::vector<char> all((std::istreambuf_iterator<char>(file)),
                                    std::istreambuf_iterator<char>());
        const auto view = std::as_bytes(std::span(all));
        return {view.begin(), view.end()};
    }

private:
    std::string m_path;
};

std::optional<devices::Speed> speedOf(libusb_device* device) {
    const int speed = libusb_get_device_speed(device);
    if (speed >= LIBUSB_SPEED_HIGH) {
        return devices::Speed::High;
    }
    return speed == LIBUSB_SPEED_FULL ? std::optional(devices::Speed::Full) : std::nullopt;
}

// Of a library that is open. What is listed may outlive its lister, and a device its context not.
using Context = std::shared_ptr<libusb_context>;

ListedDevice describe(libusb_device* device, const Context& context) {
    ListedDevice listed;
    listed.device = {libusb_ref_device(device), [context](libusb_device* last) {
                         libusb_unref_device(last);
                     }};
    listed.bus = libusb_get_bus_number(device);
    listed.address = libusb_get_device_address(device);
    libusb_device_descriptor descriptor{};
    libusb_get_device_descriptor(device, &descriptor);
    listed.vendor = descriptor.idVendor;
    listed.product = descriptor.idProduct;
    listed.speed = speedOf(device);
    const DeviceFolder folder(device);
    listed.serial = folder.text("serial");
    listed.manufacturer = folder.text("manufacturer");
    listed.name = folder.text("product");
    listed.descriptors = folder.bytes("descriptors");
    listed.node = fmt::format("/dev/bus/usb/{:03}/{:03}", listed.bus, listed.address);
    listed.permitted = access(listed.node.c_str(), R_OK | W_OK) == 0;
    return listed;
}

class LibUsb : public UsbLibrary {
public:
    // A computer without USB has a library that can't start, or one that finds nothing.
    LibUsb() {
        libusb_context* context = nullptr;
        if (libusb_init(&context) == LIBUSB_SUCCESS) {
            m_context = {context, libusb_exit};
        }
    }

    std::vector<ListedDevice> list() override {
        std::vector<ListedDevice> found;
        if (m_context == nullptr) {
            return found;
        }
        libusb_device** devices = nullptr;
        const ssize_t count = libusb_get_device_list(m_context.get(), &devices);
        if (count < 0) {
            throw LibraryError(fmt::format("the USB devices of this computer can't be listed: {}",
                                           libusb_strerror(static_cast<libusb_error>(count))));
        }
        for (ssize_t i = 0; i < count; ++i) {
            found.push_back(describe(devices[i], m_context));
        }
        libusb_free_device_list(devices, 1);
        std::ranges::sort(found, {}, [](const ListedDevice& device) {
            return std::tuple(device.bus, device.address);
        });
        return found;
    }

    int open(libusb_device* device, libusb_device_handle** handle) override {
        return libusb_open(device, handle);
    }
    void close(libusb_device_handle* handle) override { libusb_close(handle); }
    int getConfiguration(libusb_device_handle* handle, int* value) override {
        return libusb_get_configuration(handle, value);
    }
    int setConfiguration(libusb_device_handle* handle, int value) override {
        return libusb_set_configuration(handle, value);
    }
    int kernelDriverActive(libusb_device_handle* handle, int interface) override {
        return libusb_kernel_driver_active(handle, interface);
    }
    int detachKernelDriver(libusb_device_handle* handle, int interface) override {
        return libusb_detach_kernel_driver(handle, interface);
    }
    int attachKernelDriver(libusb_device_handle* handle, int interface) override {
        return libusb_attach_kernel_driver(handle, interface);
    }
    int claimInterface(libusb_device_handle* handle, int interface) override {
        return libusb_claim_interface(handle, interface);
    }
    int releaseInterface(libusb_device_handle* handle, int interface) override {
        return libusb_release_interface(handle, interface);
    }
    int setInterfaceAltSetting(libusb_device_handle* handle, int interface, int setting) override {
        return libusb_set_interface_alt_setting(handle, interface, setting);
    }
    int clearHalt(libusb_device_handle* handle, unsigned char endpoint) override {
        return libusb_clear_halt(handle, endpoint);
    }
    libusb_transfer* allocTransfer(int packets) override { return libusb_alloc_transfer(packets); }
    void freeTransfer(libusb_transfer* transfer) override { libusb_free_transfer(transfer); }
    int submitTransfer(libusb_transfer* transfer) override {
        return libusb_submit_transfer(transfer);
    }
    int cancelTransfer(libusb_transfer* transfer) override {
        return libusb_cancel_transfer(transfer);
    }
    int handleEvents(std::chrono::microseconds most) override {
        constexpr std::int64_t kSecond = 1'000'000;
        timeval time{.tv_sec = most.count() / kSecond, .tv_usec = most.count() % kSecond};
        return libusb_handle_events_timeout_completed(m_context.get(), &time, nullptr);
    }
    void interruptEventHandler() override { libusb_interrupt_event_handler(m_context.get()); }

private:
    Context m_context; // null: there is no USB
};

} // namespace

std::shared_ptr<UsbLibrary> makeUsbLibrary() {
    return std::make_shared<LibUsb>();
}

} // namespace kelvane::usb
