// The filter's own methods and events, as a control application uses them.
#include "tests/driver/vendor_sets.h"

namespace kelvane::tests {
namespace {

// --- Methods ------------------------------------------------------------------------------------

// What stands behind the header of a control transfer.
Bytes transferRecord(std::uint32_t pipe, std::uint32_t flags, const Bytes& setup) {
    return joined({u32(pipe), u32(flags), setup});
}

TEST_F(VendorSets, AControlTransferIsPassedOnAsItIs) {
    constexpr std::uint32_t kIn = USBD_DEFAULT_PIPE_TRANSFER | USBD_TRANSFER_DIRECTION_IN;
    constexpr std::uint32_t kOut = USBD_DEFAULT_PIPE_TRANSFER;
    const Bytes readDevice = {0x80, 6, 0, 1, 0, 0, 64, 0};
    const Bytes readRate = {0xA1, 1, 0, 1, 0, kInternal, 4, 0};
    const Bytes setRate = {0x21, 1, 0, 1, 0, kInternal, 4, 0};
    const struct {
        const char* what;
        std::uint32_t pipe, flags;
        Bytes setup, data;
        NTSTATUS status;
        std::size_t length;
        Bytes answer; // its beginning
    } table[] = {
        {"as long as the answer", 0, kIn, readDevice, Bytes(64), STATUS_SUCCESS, 18,
         device->device},
        {"in", 0, kIn | USBD_SHORT_TRANSFER_OK, readRate, Bytes(4), STATUS_SUCCESS, 4, u32(48000)},
        {"out", 0, kOut, setRate, u32(96000), STATUS_SUCCESS, 0, u32(96000)},
        {"refused", 0, kIn, {0xA1, 1, 0, 1, 0, 99, 4, 0}, Bytes(4), kStalled, 0, Bytes(4)},
        {"another pipe", 1, kIn, readRate, Bytes(4), STATUS_NOT_SUPPORTED, 0, Bytes(4)},
        {"not the default pipe", 0, USBD_TRANSFER_DIRECTION_IN, readRate, Bytes(4),
         STATUS_NOT_SUPPORTED, 0, Bytes(4)},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.what);
        Reply reply =
            method(kControlTransfer, transferRecord(row.pipe, row.flags, row.setup), row.data);
        EXPECT_EQ(reply.status, row.status);
        EXPECT_EQ(reply.length, row.length);
        reply.data.resize(row.answer.size());
        EXPECT_EQ(reply.data, row.answer);
        EXPECT_EQ(asked().size(), row.status == STATUS_NOT_SUPPORTED ? 0U : 1U);
    }
    EXPECT_EQ(device->rate(), 96000U);
    EXPECT_EQ(machine.mentions("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER with non-default pipe not "
                               "yet supported\n"),
              2U);
    EXPECT_EQ(machine.mentions("     Set PipeHandle to 0 and specify the "
                               "USBD_DEFAULT_PIPE_TRANSFER flag\n"),
              2U);

    // What the bus makes of it.
    machine.faults.add(
        {.pattern = {.function = URB_FUNCTION_CONTROL_TRANSFER},
         .verdict = {.action = usb::UrbVerdict::Action::Fail, .status = USBD_STATUS_XACT_ERROR}});
    EXPECT_EQ(method(kControlTransfer, transferRecord(0, kIn, readRate), Bytes(4)).status,
              static_cast<NTSTATUS>(USBD_STATUS_XACT_ERROR));
    EXPECT_EQ(machine.mentions("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER -- USBD_STATUS_XACT_ERROR\n"),
              1U);
    faulty->add({.pattern = devices::getCurrent(kInternal, kSamplingFrequency),
                 .lateMicroframes = 8 * 60'000});
    const std::uint64_t before = machine.machine().scheduler().now();
    EXPECT_EQ(method(kControlTransfer, transferRecord(0, kIn, readRate), Bytes(4)).status,
              STATUS_TIMEOUT); // a success by its sign
    EXPECT_NEAR(static_cast<double>(machine.machine().scheduler().now() - before),
                10000.0 * nt::kMillisecond, 50.0 * nt::kMillisecond);
    EXPECT_EQ(machine.mentions("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER -- STATUS_TIMEOUT\n"), 1U);
    EXPECT_EQ(machine.mentions("KSMETHOD_KELVANE_USB_CONTROL_TRANSFER -- USBD_STATUS_CANCELED\n"),
              1U);
}

TEST_F(VendorSets, ADescriptorIsCutWhereItsBufferEnds) {
    const Bytes& whole = device->configuration;
    const std::size_t total = whole.size();
    const Bytes product = stringDescriptor(u"Scripted"); // 18 bytes, as the device descriptor
    const struct {
        const char* what;
        Bytes record; // type, index, language
        std::size_t room;
        NTSTATUS status;
        std::size_t length;
        const Bytes* bytes;
        const char* asked;
    } table[] = {
        {"device", {1, 0, 0, 0}, 18, STATUS_SUCCESS, 18, &device->device, "80 06 0100 0000 18"},
        {"as long as the buffer",
         {1, 0, 0, 0},
         40,
         STATUS_SUCCESS,
         40,
         &device->device,
         "80 06 0100 0000 40"},
        {"cut", {1, 0, 0, 0}, 8, STATUS_SUCCESS, 8, &device->device, "80 06 0100 0000 8"},
        {"string", {3, 2, 9, 4}, 18, STATUS_SUCCESS, 18, &product, "80 06 0302 0409 18"},
        {"no such string", {3, 77, 9, 4}, 18, kStalled, 0, nullptr, "80 06 034d 0409 18"},
        {"configuration", {2, 0, 0, 0}, total, STATUS_SUCCESS, total, &whole, nullptr},
        {"its header", {2, 0, 0, 0}, 9, STATUS_BUFFER_OVERFLOW, 9, &whole, nullptr},
        {"all but a byte",
         {2, 0, 0, 0},
         total - 1,
         STATUS_BUFFER_OVERFLOW,
         total - 1,
         &whole,
         nullptr},
        {"with room", {2, 9, 0, 0}, total + 1, STATUS_SUCCESS, total, &whole, nullptr},
        {"its length", {2, 0, 0, 0}, 0, STATUS_BUFFER_OVERFLOW, total, nullptr, nullptr},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.what);
        const Reply reply =
            method(kGetDescriptor, joined({row.record, u32(0)}), Bytes(row.room, 0xEE));
        EXPECT_EQ(reply.status, row.status);
        EXPECT_EQ(reply.length, row.length);
        if (row.bytes != nullptr) {
            const std::size_t compared = std::min(row.bytes->size(), row.room);
            EXPECT_TRUE(std::equal(reply.data.begin(),
                                   reply.data.begin() + static_cast<std::ptrdiff_t>(compared),
                                   row.bytes->begin()));
        }
        EXPECT_EQ(asked(), row.asked != nullptr ? Texts{row.asked} : Texts());
    }
    EXPECT_EQ(machine.mentions("KSMETHOD_KELVANE_USB_GET_DESCRIPTOR status = c0000004\n"), 1U);
    EXPECT_EQ(machine.mentions("KSMETHOD_KELVANE_USB_GET_DESCRIPTOR pData = "), std::size(table));
}
// --- Events -------------------------------------------------------------------------------------

TEST_F(VendorSets, EveryFilterIsToldOfChanges) {
    const client::KsFile second = machine.openFilter();
    const client::Event raised;
    struct Listeners {
        client::KsListener rate, size, clock;
        Listeners(const client::KsFile& file, const client::Event& event)
            : rate(file, kEventSet, 0, event), size(file, kEventSet, 1, event),
              clock(file, kEventSet, 2, event) {}
    };
    Listeners one(machine.filter(), raised);
    auto two = std::make_unique<Listeners>(second, raised);
    using Data = std::vector<std::byte>;
    const auto bytes = [](const Bytes& from) {
        Data data(from.size());
        std::memcpy(data.data(), from.data(), from.size());
        return data;
    };
    const std::optional<Data> nothing;
    EXPECT_EQ(setValue(3, 96000), STATUS_SUCCESS);
    EXPECT_EQ(setValue(3, 192000), STATUS_SUCCESS);
    EXPECT_EQ(setValue(0, 12), STATUS_SUCCESS);
    EXPECT_EQ(setValue(0, 12), STATUS_SUCCESS); // no change
    EXPECT_TRUE(raised.wait(0));
    for (Listeners* each : {&one, two.get()}) {
        EXPECT_EQ(each->rate.take(), bytes(u32(96000)));
        EXPECT_EQ(each->rate.take(), bytes(u32(192000)));
        EXPECT_EQ(each->rate.take(), nothing);
        EXPECT_EQ(each->size.take(), bytes(u32(12)));
        EXPECT_EQ(each->size.take(), nothing);
        EXPECT_EQ(each->clock.take(), nothing);
    }
    raised.clear();
    two.reset();

    // The external clock has become valid (USB Audio 2.0, 6.1).
    const Bytes message = {0, 1, 0, 2, 0, kExternal};
    device->current[{kExternal, kClockValid}] = {1};
    device->messages.push_back(message);
    device->sendMessages();
    EXPECT_TRUE(raised.wait(100));
    EXPECT_EQ(one.clock.take(), bytes(message));
    EXPECT_EQ(property(11, kGet, {1, 0, 0, 0, 0, 0, 0, 0}, Bytes(76)).data[72], 0x10);

    // 32 bytes of event data, not one less; and none of an event that there isn't.
    const auto enable = [&](ULONG id, std::size_t size) {
        std::vector<std::byte> data(size);
        const KSEVENT request = client::makeProperty(kEventSet, id, KSEVENT_TYPE_ENABLE);
        return machine.filter().event(client::bytesOf(request), data);
    };
    EXPECT_EQ(enable(0, 31), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(enable(3, 32), STATUS_NOT_FOUND);
}

} // namespace
} // namespace kelvane::tests
