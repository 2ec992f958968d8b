// The formatting engine against the C runtime's _snwprintf (msvcrt's, looked up by name) on the
// kind of text the system produces: messages, protocol trace lines, sizes, handles and names.
#include <windows.h>

#include "base/format.h"
#include "bench.h"

namespace {

using Snwprintf = int(__cdecl*)(wchar_t*, size_t, const wchar_t*, ...);

const wchar_t* const path = L"C:\\Users\\kesti\\Documents\\Disk Images\\archive-2024.zun";

// One of every directive the mix uses; the same formats go to both engines.
template <typename Format>
size_t message_mix(Format&& format, wchar_t* out, size_t capacity, uint64_t i) {
    size_t n = 0;
    n += format(out, capacity, L"ERROR: Unable to open \"%s\" (error %u).\n", path,
                static_cast<unsigned>(i & 0xFF));
    n +=
        format(out, capacity, L"%05X %ls open %ls 0x%I64X %d\n", static_cast<unsigned>(i & 0xFFFFF),
               L"req", path, i * 0x1000, static_cast<int>(i) - 1000);
    n += format(out, capacity, L"size %10I64u bytes, %5d%% done, flags 0x%08x\n", i * 4096,
                static_cast<int>(i % 101), static_cast<unsigned>(i * 2654435761u));
    n += format(out, capacity, L"handle %p for %-24s|%8s|\n", reinterpret_cast<void*>(i * 16),
                L"zunisofs.dll", L"ro");
    n +=
        format(out, capacity, L"mount %c: %s (%d KiB, %u files)\n", L'D' + static_cast<int>(i % 20),
               L"Archive", static_cast<int>(i * 37), static_cast<unsigned>(i % 100000));
    return n;
}

} // namespace

int main() {
    auto crt_snwprintf = reinterpret_cast<Snwprintf>(
        reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(L"msvcrt.dll"), "_snwprintf")));
    if (!crt_snwprintf) return 1;
    static wchar_t out[512];
    uint64_t i = 0;

    bench::compare(
        "text_format vs _snwprintf, message mix (5 lines)",
        [&] {
            bench::keep(message_mix([](auto... a) { return text_format(a...); }, out, 512, ++i));
        },
        [&] {
            bench::keep(
                message_mix([&](auto... a) { return static_cast<size_t>(crt_snwprintf(a...)); },
                            out, 512, ++i));
        });

    // A trace line with a time stamp: the C runtime has no %T, so its caller splits the stamp
    // with FileTimeToSystemTime and prints the fields.
    bench::compare(
        "text_format vs FileTimeToSystemTime + _snwprintf, trace line with %T",
        [&] {
            ++i;
            bench::keep(text_format(out, 512, L"%05X %T open %ls 0x%I64X %d\n",
                                    static_cast<unsigned>(i & 0xFFFFF),
                                    133500000000000000ull + i * 10000, path, i * 0x1000, -3));
        },
        [&] {
            ++i;
            uint64_t stamp = 133500000000000000ull + i * 10000;
            FILETIME ft = {static_cast<DWORD>(stamp), static_cast<DWORD>(stamp >> 32)};
            SYSTEMTIME st;
            FileTimeToSystemTime(&ft, &st);
            bench::keep(static_cast<size_t>(crt_snwprintf(
                out, 512, L"%05X %04u-%02u-%02u %02u:%02u:%02u.%03u open %ls 0x%I64X %d\n",
                static_cast<unsigned>(i & 0xFFFFF), st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond, st.wMilliseconds, path, i * 0x1000, -3)));
        });
    return 0;
}
