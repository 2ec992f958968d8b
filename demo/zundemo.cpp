// zundemo: the library at work. First a short tour of the runtime's formatting engine (every
// line produced by the library's own engine and written with WriteConsoleW or WriteFile), then
// a session of the file-system protocol with the sample formatter, traced, and last the zun
// front-end run as a program of its own.
#include <windows.h>
#include <rpc.h>

#include <cstdarg>

#include "base/base64.h"
#include "base/format.h"
#include "base/text.h"
#include "base/thread.h"
#include "base/upcase.h"
#include "base/utf.h"
#include "base/value_words.h"
#include "base/wildcard.h"
#include "frontend_demo.h"
#include "protocol_demo.h"

namespace {

// A console gets UTF-16 directly; a pipe or file gets UTF-8.
void print(const wchar_t* format, ...) {
    wchar_t line[512];
    va_list args;
    va_start(args, format);
    size_t n = text_vformat(line, 512, format, args);
    va_end(args);
    if (n > 511) n = 511;
    HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode, written;
    if (GetConsoleMode(out, &mode)) {
        WriteConsoleW(out, line, static_cast<DWORD>(n), &written, nullptr);
        return;
    }
    char bytes[1600];
    size_t m = text_to_utf8(bytes, sizeof bytes, line, n);
    WriteFile(out, bytes, static_cast<DWORD>(m < sizeof bytes ? m : sizeof bytes - 1), &written,
              nullptr);
}

void runtime_tour() {
    print(L"zunapi runtime demo: the formatted output engine and its companions\r\n\r\n");

    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    uint64_t stamp = uint64_t(now.dwHighDateTime) << 32 | now.dwLowDateTime;
    print(L"  time stamp   %%T   %T (UTC)\r\n", stamp);
    print(L"  unix time    %%t   %t  (%I64d s since 1970)\r\n", 1700000000ll, 1700000000ll);

    UUID uuid;
    UuidCreate(&uuid);
    print(L"  uuid         %%R   {%R}\r\n", &uuid);
    print(L"               %%r   %r\r\n", &uuid);

    print(L"  numbers           [%05i] [%-5i] [%#x] [%#o] [%+d] [%I64X] [%P]\r\n", -42, 42, 0, 8, 7,
          0x1Full, 0xDEADBEEFull);
    print(L"  strings           [%10s] [%-10s] [%5.3s] [%3s] (null)\r\n", L"right", L"left",
          L"truncated", nullptr);

    const char* utf8 = "gr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC \xF0\x9F\x98\x80";
    wchar_t wide[64];
    size_t units = utf8_to_text(wide, 64, utf8);
    print(L"  transcoded        \"%hs\": %u UTF-8 bytes -> %u UTF-16 units, %%.6hs gives "
          L"\"%.6hs\"\r\n",
          utf8, static_cast<unsigned>(text_to_utf8(nullptr, 0, wide)), static_cast<unsigned>(units),
          utf8);

    const wchar_t* settings[] = {L" Enabled ", L"off", L"0x1f", L"-12", L"yes", L"t"};
    for (const wchar_t* setting : settings) {
        uint32_t style;
        int64_t value = value_parse(setting, 32, &style);
        wchar_t as_word[32], flipped[32];
        value_format(as_word, 32, value, style, 0);
        value_format(flipped, 32, value == 0 || value == 1 ? !value : value * 2, style, 0);
        wchar_t quoted[40];
        text_format(quoted, 40, L"\"%s\"", setting);
        print(L"  value word   %-12s -> %I64d (style 0x%03x), written back \"%s\", changed "
              L"\"%s\"\r\n",
              quoted, value, style, as_word, flipped);
    }

    print(L"  wildcard          \"zun*fs?.dll\" %s \"ZunIsoFS7.DLL\" (ASCII case-insensitive)\r\n",
          text_wildcard_match_ascii_nocase(L"zun*fs?.dll", L"ZunIsoFS7.DLL") ? L"matches"
                                                                             : L"does not match");
    print(L"  case-blind        \"\u00C9t\u00E9 \u0414\u043E\u043C\" %s \"\u00C9T\u00C9 "
          L"\u0434\u043E\u043C\"\r\n",
          text_compare_nocase(L"\u00C9t\u00E9 \u0414\u043E\u043C",
                              L"\u00C9T\u00C9 \u0434\u043E\u043C") == 0
              ? L"equals"
              : L"differs from");
    wchar_t encoded[32];
    text_base64_encode(encoded, 32, "zunapi", 6);
    print(L"  base64            \"zunapi\" -> %s\r\n", encoded);
}

} // namespace

int wmain() {
    runtime_tour();
    int result = protocol_demo();
    if (frontend_demo() != 0 && result == 0) result = 1;
    // As every front-end does after its command: join the threads the runtime started.
    process_exit_work();
    return result;
}
