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

const Oracles& oracles()
{
    static const Oracles o = [] {
        HMODULE crt = LoadLibraryW(L"msvcrt.dll");
        return Oracles{reinterpret_cast<WideOracle>(reinterpret_cast<void*>(GetProcAddress(crt, "_snwprintf"))),
                       reinterpret_cast<NarrowOracle>(reinterpret_cast<void*>(GetProcAddress(crt, "_snprintf")))};
    }();
    return o;
}

const char* const flag_sets[] = {"", "-", "+", " ", "#", "0", "-+", "- ", "-#", "+ ", "+#", "+0", " #",
                                 " 0", "#0", "-+ #", "+ #0", "0+", "0 ", "0#", "-+ #0", "--", "00", "+-"};
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

bool has(const char* s, char c) { return std::string(s).find(c) != std::string::npos; }

uint64_t sized(uint64_t v, const std::string& size, bool is_signed)
{
    unsigned bits = size == "h" ? 16 : (size == "ll" || size == "I64") ? 64 : 32;
    if (bits == 64)
        return v;
    uint64_t mask = (uint64_t(1) << bits) - 1;
    if (!is_signed)
        return v & mask;
    int64_t s = bits == 16 ? int64_t(int16_t(v)) : int64_t(int32_t(v));
    return s < 0 ? uint64_t(-s) : uint64_t(s);
}

// The C runtime and the engine agree on an integer directive unless one of the engine's own
// rules applies: "0" still pads under "-" or a precision, zero keeps its digit under ".0",
// and "#" prints its prefix for every value (octal: in front of any precision zeros).
bool integer_rules_agree(const char* flags, const std::string& precision, const std::string& size, char conversion,
                         uint64_t value)
{
    bool has_precision = !precision.empty();
    if (has(flags, '0') && (has(flags, '-') || has_precision))
        return false;
    bool is_signed = conversion == 'd' || conversion == 'i';
    uint64_t magnitude = sized(value, size, is_signed);
    if (magnitude == 0 && has_precision && (precision == "." || precision == ".0"))
        return false;
    if (has(flags, '#') && (conversion == 'x' || conversion == 'X') && magnitude == 0)
        return false;
    if (has(flags, '#') && conversion == 'o' && (magnitude == 0 || has_precision))
        return false;
    return true;
}

template <typename Unit> std::basic_string<Unit> widen(const std::string& s)
{
    return std::basic_string<Unit>(s.begin(), s.end());
}

struct Mismatches {
    int count = 0;
    void report(const std::string& format, uint64_t value, const std::string& detail)
    {
        if (++count <= 20)
            ADD_FAILURE() << "format \"" << format << "\" value " << value << ": " << detail;
    }
};

std::string narrow(const std::wstring& s) { return std::string(s.begin(), s.end()); }

// Formats once with each engine and its oracle; star arguments come first, as in a call.
template <typename... Args>
void compare_both(Mismatches& m, const std::string& format, uint64_t shown, Args... args)
{
    wchar_t ours[400], theirs[400];
    std::wstring wformat = widen<wchar_t>(format);
    size_t n = text_format(ours, 400, wformat.c_str(), args...);
    int r = oracles().wide(theirs, 400, wformat.c_str(), args...);
    if (r < 0 || n != size_t(r) || std::wstring(ours) != std::wstring(theirs))
        m.report(format, shown, "wide engine \"" + narrow(ours) + "\", C runtime \"" + narrow(theirs) + "\"");

    char ours8[400], theirs8[400];
    n = utf8_format(ours8, 400, format.c_str(), args...);
    r = oracles().narrow(theirs8, 400, format.c_str(), args...);
    if (r < 0 || n != size_t(r) || std::string(ours8) != std::string(theirs8))
        m.report(format, shown, "narrow engine \"" + std::string(ours8) + "\", C runtime \"" + theirs8 + "\"");
}

} // namespace

TEST(FormatOracle, IntegerDirectivesAgreeWithTheCRuntime)
{
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
                            if (!integer_rules_agree(flags, precision, size, *c, value))
                                continue;
                            std::string format = std::string("[%") + flags + width + precision + size + *c + "]";
                            bool star_width = std::string(width) == "*";
                            bool star_precision = std::string(precision) == ".*";
                            if (star_width && star_precision)
                                compare_both(m, format, value, 9ull, 4ull, value);
                            else if (star_width)
                                compare_both(m, format, value, 9ull, value);
                            else if (star_precision)
                                compare_both(m, format, value, 4ull, value);
                            else
                                compare_both(m, format, value, value);
                            ++compared;
                        }
    EXPECT_GT(compared, 100000u);
    EXPECT_EQ(m.count, 0);
}

TEST(FormatOracle, StringDirectivesAgreeWithTheCRuntime)
{
    // The engine's field stops after max(width, precision) characters, the C runtime's text
    // stops after precision characters: they agree unless the text is longer than a
    // precision that is below the width. "0" pads strings only in the C runtime.
    const char* const texts[] = {"", "a", "abc", "hello world", "twenty-six characters long"};
    const char* const string_conversions[] = {"s", "hs", "ls", "S"};
    const char* const string_flags[] = {"", "-", "+", " ", "#", "-#", "+ "};
    Mismatches m;
    for (const char* flags : string_flags)
        for (const char* width : widths)
            for (const char* precision : precisions)
                for (const char* conversion : string_conversions)
                    for (const char* text : texts) {
                        std::string w = width, p = precision;
                        size_t width_value = w == "*" ? 9 : w.empty() ? 0 : std::stoul(w);
                        bool has_precision = !p.empty();
                        size_t precision_value = p == ".*" ? 4 : p.size() > 1 ? std::stoul(p.substr(1)) : 0;
                        if (has_precision && precision_value < width_value && strlen(text) > precision_value)
                            continue;
                        std::string format = std::string("<%") + flags + width + precision + conversion + ">";
                        std::wstring wide_text = widen<wchar_t>(text);
                        // Each engine gets the string in the encoding the directive asks for.
                        auto wide_arg = [&](const std::string& conv, bool wide_engine) -> const void* {
                            bool wants_wide = conv == "ls" || (conv == "s" && wide_engine) || (conv == "S" && !wide_engine);
                            return wants_wide ? static_cast<const void*>(wide_text.c_str()) : text;
                        };
                        std::wstring wformat = widen<wchar_t>(format);
                        wchar_t ours[200], theirs[200];
                        char ours8[200], theirs8[200];
                        const void* warg = wide_arg(conversion, true);
                        const void* narg = wide_arg(conversion, false);
                        size_t n, n8;
                        int r, r8;
                        if (w == "*" && p == ".*") {
                            n = text_format(ours, 200, wformat.c_str(), 9, 4, warg);
                            r = oracles().wide(theirs, 200, wformat.c_str(), 9, 4, warg);
                            n8 = utf8_format(ours8, 200, format.c_str(), 9, 4, narg);
                            r8 = oracles().narrow(theirs8, 200, format.c_str(), 9, 4, narg);
                        } else if (w == "*" || p == ".*") {
                            int star = w == "*" ? 9 : 4;
                            n = text_format(ours, 200, wformat.c_str(), star, warg);
                            r = oracles().wide(theirs, 200, wformat.c_str(), star, warg);
                            n8 = utf8_format(ours8, 200, format.c_str(), star, narg);
                            r8 = oracles().narrow(theirs8, 200, format.c_str(), star, narg);
                        } else {
                            n = text_format(ours, 200, wformat.c_str(), warg);
                            r = oracles().wide(theirs, 200, wformat.c_str(), warg);
                            n8 = utf8_format(ours8, 200, format.c_str(), narg);
                            r8 = oracles().narrow(theirs8, 200, format.c_str(), narg);
                        }
                        if (r < 0 || n != size_t(r) || std::wstring(ours) != theirs)
                            m.report(format, 0, "wide engine \"" + narrow(ours) + "\", C runtime \"" + narrow(theirs) + "\"");
                        if (r8 < 0 || n8 != size_t(r8) || std::string(ours8) != theirs8)
                            m.report(format, 0, "narrow engine \"" + std::string(ours8) + "\", C runtime \"" + theirs8 + "\"");
                    }
    EXPECT_EQ(m.count, 0);
}

TEST(FormatOracle, MessagesWithManyDirectivesAgreeWithTheCRuntime)
{
    // Argument walking across directives of different sizes, and literal text between them.
    Mismatches m;
    compare_both(m, "ERROR: Unable to open \"%ls\" (error %u).\n", 0, L"C:\\x\\y.img", 5u);
    compare_both(m, "%05X %ls 0x%I64X %d%%", 0, 0x1Au, L"open", 0xFFFFFFFF00000001ull, -3);
    compare_both(m, "%hd|%hu|%hx|%I64d|%lld|%+d|% i", 0, 0x18000, 0x18000, 0xFFFFF, -1ll, 1ll << 40, 5, 6);
    compare_both(m, "%-*d|%*.*x|%.*ls|%hs", 0, 6, 42, 8, 5, 0xabcu, 3, L"xyzzy", "narrow");
    compare_both(m, "%c%C%hc%lc", 0, L'W', 'n', 'h', L'l');
    compare_both(m, "no directives at all", 0);
    EXPECT_EQ(m.count, 0);
}
