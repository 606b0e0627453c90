// The kernel's printf, byte for byte.
#include "platform/nt/kernel.h"

#include "tests/driver/nt_support.h"

#include <climits>

namespace kelvane::nt {
namespace {

// What the trace has of one call.
template <class... Args>
std::string printed(const char* format, Args... args) {
    DbgPrint(format, args...);
    return Machine::current().trace().records().back().text;
}

TEST(DbgPrint, ConvertsAsTheKernelDoes) {
    RecordingMachine machine;
    UNICODE_STRING counted;
    RtlInitUnicodeString(&counted, L"counted");
    UNICODE_STRING cut = counted;
    cut.Length = 6;
    UNICODE_STRING empty{};
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "ansi");
    const WCHAR wide[] = {'w', 0xEF, 'd', 'e', 0xD83C, 0xDFB5, 0}; // U+1F3B5 as surrogates
    const WCHAR lone[] = {0xD83C, 'x', 0};
    const auto* null = static_cast<const char*>(nullptr);
    const std::pair<const char*, std::string> cases[] = {
        // Integers: a long has 32 bits.
        {"-1 4294967295 ffffffff FFFFFFFF", printed("%ld %lu %lx %lX", -1, -1, -1, -1)},
        {"-9223372036854775808", printed("%I64d", LLONG_MIN)},
        {"18446744073709551615 ffffffffffffffff", printed("%I64u %llx", ~0ull, ~0ull)},
        {"7 8 9", printed("%I32d %Id %zu", 7, 8ll, size_t{9})},
        {"-1 65535 -1 255", printed("%hd %hu %hhd %hhu", 0xFFFF, 0xFFFF, 0xFF, 0xFF)},
        {"017 17", printed("%#o %o", 15, 15)},
        // Width, precision, flags.
        {"[   42][42   ][00042][+42][ 42]",
         printed("[%5d][%-5d][%05d][%+d][% d]", 42, 42, 42, 42, 42)},
        {"[  042][  -42][-0042]", printed("[%5.3d][%5d][%05d]", 42, -42, -42)},
        {"[   42][42   ][0042]", printed("[%*d][%*d][%.*d]", 5, 42, -5, 42, 4, 42)},
        {"0x2a 0X2A 0 [0x002a]", printed("%#x %#X %#x [%#06x]", 42, 42, 0, 42)},
        {"0 []", printed("%d [%.0d]", 0, 0)},
        {"  0x0a 220003", printed("%6s %0x", "0x0a", 0x220003)},
        // Pointers, with every digit.
        {"00000000DEADBEEF", printed("%p", reinterpret_cast<void*>(0xDEADBEEF))},
        {"0x0000000000000000", printed("0x%p", nullptr)},
        // Text.
        {"[abc][  abc][abc  ][ab]", printed("[%s][%5s][%-5s][%.2s]", "abc", "abc", "abc", "abc")},
        {"[(null)][(null)][(null)]", printed("[%s][%S][%wZ]", null, null, nullptr)},
        {"x y", printed("%c %C", 'x', L'y')},
        {"w\xC3\xAF"
         "de\xF0\x9F\x8E\xB5 \xEF\xBF\xBDx",
         printed("%S %ws", wide, lone)},
        {"[wï][  wï] n", printed("[%.2ls][%5.2S] %hS", wide, wide, "n")},
        {"counted cou [  counted] [co] []",
         printed("%wZ %wZ [%9wZ] [%.2wZ] [%.0wZ]", &counted, &cut, &counted, &counted, &cut)},
        {"ansi [(null)]", printed("%Z [%wZ]", &ansi, &empty)},
        {"1.50 1.5e+00", printed("%.2f %.1e", 1.5, 1.5)},
        {"100%", printed("%d%%", 100)},
        {"end ", printed("end %")},
    };
    for (const auto& [expected, found] : cases) {
        EXPECT_EQ(found, expected);
    }
}

TEST(DbgPrint, SendsAtMost512BytesACall) {
    RecordingMachine machine;
    DbgPrint("%600d|", 1);
    EXPECT_EQ(machine->trace().records().back().text, std::string(512, ' '));
}

ULONG printList(const char* format, ...) {
    va_list list;
    va_start(list, format);
    const ULONG status = vDbgPrintEx(0, 0, format, list);
    va_end(list);
    return status;
}

TEST(DbgPrint, EveryRoutineLeavesOneRecordWithItsPlace) {
    RecordingMachine machine;
    sleep(1500);
    DbgPrint("one\n");
    const KIRQL before = KeRaiseIrqlToDpcLevel();
    DbgPrintEx(DPFLTR_IHVAUDIO_ID, DPFLTR_ERROR_LEVEL, "two %d\n", 2);
    KeLowerIrql(before);
    printList("three %d %s", 3, "3");
    char expression[] = "a == b";
    char file[] = "file.cpp";
    RtlAssert(expression, file, 12, nullptr);
    EXPECT_EQ(machine.lines(),
              (std::vector<std::string>{"     1.500000 0:0 one", "     1.500000 0:2 two 2",
                                        "     1.500000 0:0 three 3 3",
                                        "     1.500000 0:0 \n*** Assertion failed: a == b\n"
                                        "***   Source File: file.cpp, line 12"}));
    EXPECT_TRUE(machine.breaches().empty()); // an assertion reports and goes on
}

} // namespace
} // namespace kelvane::nt
