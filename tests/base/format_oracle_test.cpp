// The engines against the C runtime (msvcrt's _snwprintf and _snprintf, looked up by name so
// that no MinGW replacement stands in) over a generated set of directives: every flag
// combination, widths, precisions, size prefixes and values at the edges of each size. Where
// the engines' own rules differ from the C runtime's, the case is left to format_test.cpp.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/format.h"

namespace {

using WideOracle = int(__cdecl*)(wchar_t*, size_t, const wchar_t*, ...);
using NarrowOracle = int(__cdecl*)(char*, size_t, const char*, ...);

struct Oracles {
    WideOracle wide;
    NarrowOracle narrow;
};

const Oracles& oracles() {
    static const Oracles o = [] {
        HMODULE crt = LoadLibraryW(L"msvcrt.dll");
        return Oracles{reinterpret_cast<WideOracle>(
                           reinterpret_cast<void*>(GetProcAddress(crt, "_snwprintf"))),
                       reinterpret_cast<NarrowOracle>(
                           reinterpret_cast<void*>(GetProcAddress(crt, "_snprintf")))};
    }();
    return o;
}

const char* const flag_sets[] = {"",     "-",  "+",  " ",  "#",     "0",  "-+", "- ",
                                 "-#",   "+ ", "+#", "+0", " #",    " 0", "#0", "-+ #",
                                 "+ #0", "0+", "0 ", "0#", "-+ #0", "--", "00", "+-"};
// Wine's msvcrt sizes its heap buffer for a wide integer field in bytes instead of characters:
// a width or precision above 22 overruns it, so the fields stay within that.
const char* const widths[] = {"", "1", "5", "12", "22", "*"};
const char* const precisions[] = {"", ".", ".0", ".1", ".3", ".8", ".20", ".*"};
const char* const sizes[] = {"", "h", "l", "ll", "I32", "I64"};
const char integer_conversions[] = "diuoxX";
const uint64_t integer_values[] = {0,
                                   1,
                                   uint64_t(-1),
                                   7,
                                   42,
                                   uint64_t(-42),
                                   255,
                                   0x7FFF,
                                   0x8000,
                                   0xFFFF,
                                   0x10000,
                                   0x7FFFFFFF,
                                   0x80000000,
                                   0xFFFFFFFF,
                                   0x100000000,
                                   0x0123456789ABCDEF,
                                   0x7FFFFFFFFFFFFFFF,
                                   0x8000000000000000,
                                   1000000007,
                                   0xFFFFFFFFFFFF0000};

bool has(const char* s, char c) {
    return std::string(s).find(c) != std::string::npos;
}

uint64_t sized(uint64_t v, const std::string& size, bool is_signed) {
    unsigned bits = size == "h" ? 16 : (size == "ll" || size == "I64") ? 64 : 32;
    if (bits == 64) return v;
    uint64_t mask = (uint64_t(1) << bits) - 1;
    if (!is_signed) return v & mask;
    int64_t s = bits == 16 ? int64_t(int16_t(v)) : int64_t(int32_t(v));
    return s < 0 ? uint64_t(-s) : uint64_t(s);
}

// The C runtime and the engine agree on an integer directive unless one of the engine's own
// rules applies: "0" still pads under "-" or a precision, zero keeps its digit under ".0",
// and "#" prints its prefix for every value (octal: in front of any precision zeros).
bool integer_rules_agree(const char* flags, const std::string& precision, const std::string& size,
                         char conversion, uint64_t value) {
    bool has_precision = !precision.empty();
    if (has(flags, '0') && (has(flags, '-') || has_precision)) return false;
    bool is_signed = conversion == 'd' || conversion == 'i';
    uint64_t magnitude = sized(value, size, is_signed);
    if (magnitude == 0 && has_precision && (precision == "." || precision == ".0")) return false;
    if (has(flags, '#') && (conversion == 'x' || conversion == 'X') && magnitude == 0) return false;
    if (has(flags, '#') && conversion == 'o' && (magnitude == 0 || has_precision)) return false;
    return true;
}

template <typename Unit> std::basic_string<Unit> widen(const std::string& s) {
    return std::basic_string<Unit>(s.begin(), s.end());
}

struct Mismatches {
    int count = 0;
    void report(const std::string& format, uint64_t value, const std::string& detail) {
        if (++count <= 20)
            ADD_FAILURE() << "format \"" << format << "\" value " << value << ": " << detail;
    }
};

std::string narrow(const std::wstring& s) {
    return std::string(s.begin(), s.end());
}

template <typename... Args>
void compare_wide(Mismatches& m, const std::string& format, uint64_t shown, Args... args) {
    wchar_t ours[400], theirs[400];
    std::wstring wformat = widen<wchar_t>(format);
    size_t n = text_format(ours, 400, wformat.c_str(), args...);
    int r = oracles().wide(theirs, 400, wformat.c_str(), args...);
    if (r < 0 || n != size_t(r) || std::wstring(ours) != theirs)
        m.report(format, shown,
                 "wide engine \"" + narrow(ours) + "\", C runtime \"" + narrow(theirs) + "\"");
}

template <typename... Args>
void compare_narrow(Mismatches& m, const std::string& format, uint64_t shown, Args... args) {
    char ours[400], theirs[400];
    size_t n = utf8_format(ours, 400, format.c_str(), args...);
    int r = oracles().narrow(theirs, 400, format.c_str(), args...);
    if (r < 0 || n != size_t(r) || std::string(ours) != theirs)
        m.report(format, shown,
                 "narrow engine \"" + std::string(ours) + "\", C runtime \"" + theirs + "\"");
}

template <typename... Args>
void compare_both(Mismatches& m, const std::string& format, uint64_t shown, Args... args) {
    compare_wide(m, format, shown, args...);
    compare_narrow(m, format, shown, args...);
}

// Star arguments come first, as in a call: 9 for a "*" width, 4 for a ".*" precision.
template <typename Compare, typename Arg>
void with_stars(Compare compare, const std::string& width, const std::string& precision, Arg arg) {
    if (width == "*" && precision == ".*")
        compare(9ull, 4ull, arg);
    else if (width == "*")
        compare(9ull, arg);
    else if (precision == ".*")
        compare(4ull, arg);
    else
        compare(arg);
}

} // namespace

TEST(FormatOracle, IntegerDirectivesAgreeWithTheCRuntime) {
    ASSERT_NE(oracles().wide, nullptr);
    ASSERT_NE(oracles().narrow, nullptr);
    Mismatches m;
    size_t compared = 0;
    for (const char* flags : flag_sets)
        for (const char* width : widths)
            for (const char* precision : precisions)
                for (const char* size : sizes)
                    for (const char* c = integer_conversions; *c; ++c)
                        for (uint64_t value : integer_values) {
                            if (!integer_rules_agree(flags, precision, size, *c, value)) continue;
                            std::string format =
                                std::string("[%") + flags + width + precision + size + *c + "]";
                            with_stars(
                                [&](auto... args) { compare_both(m, format, value, args...); },
                                width, precision, value);
                            ++compared;
                        }
    EXPECT_GT(compared, 100000u);
    EXPECT_EQ(m.count, 0);
}

TEST(FormatOracle, StringDirectivesAgreeWithTheCRuntime) {
    // The engine's field stops after max(width, precision) characters, the C runtime's text
    // stops after precision characters: they agree unless the text is longer than a
    // precision that is below the width. "0" pads strings only in the C runtime.
    const char* const texts[] = {"", "a", "abc", "hello world", "twenty-six characters long"};
    const char* const string_flags[] = {"", "-", "+", " ", "#", "-#", "+ "};
    Mismatches m;
    for (const char* flags : string_flags)
        for (std::string width : widths)
            for (std::string precision : precisions)
                for (std::string conversion : {"s", "hs", "ls", "S"})
                    for (const char* text : texts) {
                        size_t width_value = width == "*"    ? 9
                                             : width.empty() ? 0
                                                             : std::stoul(width);
                        size_t precision_value = precision == ".*" ? 4
                                                 : precision.size() > 1
                                                     ? std::stoul(precision.substr(1))
                                                     : 0;
                        if (!precision.empty() && precision_value < width_value &&
                            strlen(text) > precision_value)
                            continue;
                        std::string format =
                            std::string("<%") + flags + width + precision + conversion + ">";
                        // Each engine gets the string in the encoding the directive asks of it.
                        std::wstring wide_text = widen<wchar_t>(text);
                        bool wide_for_wide = conversion == "ls" || conversion == "s";
                        bool wide_for_narrow = conversion == "ls" || conversion == "S";
                        const void* wide_arg =
                            wide_for_wide ? static_cast<const void*>(wide_text.c_str()) : text;
                        const void* narrow_arg =
                            wide_for_narrow ? static_cast<const void*>(wide_text.c_str()) : text;
                        with_stars([&](auto... args) { compare_wide(m, format, 0, args...); },
                                   width, precision, wide_arg);
                        with_stars([&](auto... args) { compare_narrow(m, format, 0, args...); },
                                   width, precision, narrow_arg);
                    }
    EXPECT_EQ(m.count, 0);
}

TEST(FormatOracle, MessagesWithManyDirectivesAgreeWithTheCRuntime) {
    // Argument walking across directives of different sizes, and literal text between them.
    Mismatches m;
    compare_both(m, "ERROR: Unable to open \"%ls\" (error %u).\n", 0, L"C:\\x\\y.img", 5u);
    compare_both(m, "%05X %ls 0x%I64X %d%%", 0, 0x1Au, L"open", 0xFFFFFFFF00000001ull, -3);
    compare_both(m, "%hd|%hu|%hx|%I64d|%lld|%+d|% i", 0, 0x18000, 0x18000, 0xFFFFF, -1ll, 1ll << 40,
                 5, 6);
    compare_both(m, "%-*d|%*.*x|%.*ls|%hs", 0, 6, 42, 8, 5, 0xabcu, 3, L"xyzzy", "narrow");
    compare_both(m, "%c%C%hc%lc", 0, L'W', 'n', 'h', L'l');
    compare_both(m, "no directives at all", 0);
    EXPECT_EQ(m.count, 0);
}
