// The engines against the C runtime (msvcrt's _snwprintf and _snprintf, looked up by name so
// that no MinGW replacement stands in) over a generated set of directives: every flag
// combination, widths, precisions, size prefixes and values at the edges of each size. Where
// the engines' own rules differ from the C runtime's, the case is left to format_test.cpp, as
// are star widths and precisions beyond the few messages at the end.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/format.h"

namespace {

template <class F> F crt(const char* name) {
    HMODULE msvcrt = LoadLibraryW(L"msvcrt.dll");
    return reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(msvcrt, name)));
}
const auto wide_crt = crt<int(__cdecl*)(wchar_t*, size_t, const wchar_t*, ...)>("_snwprintf");
const auto narrow_crt = crt<int(__cdecl*)(char*, size_t, const char*, ...)>("_snprintf");

const char* const flag_sets[] = {"",   "-",  "+",  " ",  "#",  "0",  "-+",   "- ",
                                 "-#", "+ ", "+#", "+0", " #", " 0", "#0",   "-+ #",
                                 "0+", "0 ", "0#", "--", "00", "+-", "+ #0", "-+ #0"};
// Wine's msvcrt sizes its heap buffer for a wide integer field in bytes instead of characters:
// a width or precision above 22 overruns it, so the fields stay within that.
const char* const widths[] = {"", "1", "5", "12", "22"};
const char* const precisions[] = {"", ".", ".0", ".1", ".3", ".8", ".20"};
const char* const sizes[] = {"", "h", "l", "ll", "I32", "I64"};
// clang-format off
const uint64_t integer_values[] = {
    0, 1, ~0ull, 7, 42, -42ull, 255, 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0x7FFFFFFF,
    0x80000000, 0xFFFFFFFF, 0x100000000, 0x0123456789ABCDEF, 0x7FFFFFFFFFFFFFFF,
    0x8000000000000000, 1000000007, 0xFFFFFFFFFFFF0000};
// clang-format on

int mismatches = 0;

// Formats with the engine and the C runtime of the unit's width; reports the first differences.
template <class Unit, class... Args> void compare(const std::string& format, Args... args) {
    std::basic_string<Unit> wide_format(format.begin(), format.end());
    Unit ours[400], theirs[400];
    size_t n;
    int r;
    if constexpr (sizeof(Unit) == 2) {
        n = text_format(ours, 400, wide_format.c_str(), args...);
        r = wide_crt(theirs, 400, wide_format.c_str(), args...);
    } else {
        n = utf8_format(ours, 400, format.c_str(), args...);
        r = narrow_crt(theirs, 400, format.c_str(), args...);
    }
    std::basic_string<Unit> a(ours), b(theirs);
    if ((r < 0 || n != size_t(r) || a != b) && ++mismatches <= 20)
        ADD_FAILURE() << (sizeof(Unit) == 2 ? "wide" : "narrow") << " \"" << format
                      << "\": engine \"" << std::string(a.begin(), a.end()) << "\", C runtime \""
                      << std::string(b.begin(), b.end()) << "\"";
}

template <class... Args> void compare_both(const std::string& format, Args... args) {
    compare<wchar_t>(format, args...);
    compare<char>(format, args...);
}

// The C runtime and the engine agree on an integer directive unless one of the engine's own
// rules applies: "0" still pads under "-" or a precision, zero keeps its digit under ".0",
// and "#" prints its prefix for every value (octal: in front of any precision zeros).
bool integer_rules_agree(const char* flags, const std::string& precision, const std::string& size,
                         char conversion, uint64_t value) {
    bool has_precision = !precision.empty();
    if (strchr(flags, '0') && (strchr(flags, '-') || has_precision)) return false;
    unsigned bits = size == "h" ? 16 : (size == "ll" || size == "I64") ? 64 : 32;
    bool zero = bits == 64 ? value == 0 : (value & ((1ull << bits) - 1)) == 0;
    if (zero && (precision == "." || precision == ".0")) return false;
    if (strchr(flags, '#') && (conversion == 'x' || conversion == 'X') && zero) return false;
    if (strchr(flags, '#') && conversion == 'o' && (zero || has_precision)) return false;
    return true;
}

} // namespace

TEST(FormatOracle, IntegerDirectivesAgreeWithTheCRuntime) {
    ASSERT_TRUE(wide_crt && narrow_crt);
    mismatches = 0;
    size_t compared = 0;
    for (const char* flags : flag_sets)
        for (const char* width : widths)
            for (const char* precision : precisions)
                for (const char* size : sizes)
                    for (char c : std::string("diuoxX"))
                        for (uint64_t value : integer_values) {
                            if (!integer_rules_agree(flags, precision, size, c, value)) continue;
                            std::string format =
                                std::string("[%") + flags + width + precision + size + c + "]";
                            compare_both(format, value);
                            ++compared;
                        }
    EXPECT_GT(compared, 100000u);
    EXPECT_EQ(mismatches, 0);
}

TEST(FormatOracle, StringDirectivesAgreeWithTheCRuntime) {
    // The engine's field stops after max(width, precision) characters, the C runtime's text
    // stops after precision characters: they agree unless the text is longer than a
    // precision that is below the width. "0" pads strings only in the C runtime.
    mismatches = 0;
    for (const char* flags : {"", "-", "+", " ", "#", "-#", "+ "})
        for (std::string width : widths)
            for (std::string precision : precisions)
                for (std::string conversion : {"s", "hs", "ls", "S"})
                    for (const char* text :
                         {"", "a", "abc", "hello world", "twenty-six characters long"}) {
                        size_t precision_value = atoi(precision.c_str() + !precision.empty());
                        if (!precision.empty() && precision_value < size_t(atoi(width.c_str())) &&
                            strlen(text) > precision_value)
                            continue;
                        std::string format =
                            std::string("<%") + flags + width + precision + conversion + ">";
                        // Each engine gets the string in the encoding the directive asks of it.
                        std::wstring wide_text(text, text + strlen(text));
                        const void* wide = wide_text.c_str();
                        compare<wchar_t>(format,
                                         conversion == "hs" || conversion == "S" ? text : wide);
                        compare<char>(format,
                                      conversion == "ls" || conversion == "S" ? wide : text);
                    }
    EXPECT_EQ(mismatches, 0);
}

TEST(FormatOracle, MessagesWithManyDirectivesAgreeWithTheCRuntime) {
    // Argument walking across directives of different sizes, and literal text between them.
    mismatches = 0;
    compare_both("ERROR: Unable to open \"%ls\" (error %u).\n", L"C:\\x\\y.img", 5u);
    compare_both("%05X %ls 0x%I64X %d%%", 0x1Au, L"open", 0xFFFFFFFF00000001ull, -3);
    compare_both("%hd|%hu|%hx|%I64d|%lld|%+d|% i", 0x18000, 0x18000, 0xFFFFF, -1ll, 1ll << 40, 5,
                 6);
    compare_both("%-*d|%*.*x|%.*ls|%hs", 6, 42, 8, 5, 0xabcu, 3, L"xyzzy", "narrow");
    compare_both("%c%C%hc%lc", L'W', 'n', 'h', L'l');
    EXPECT_EQ(mismatches, 0);
}
