// Command lines against the platform's own splitting: CommandLineToArgvW must give back the
// vector that was built.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <windows.h>
#include <shellapi.h>

#include "base/command_line.h"
#include "base/text_arena.h"

namespace {

using Vector = std::vector<std::wstring>;

Vector split(const std::wstring& line) {
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(line.c_str(), &count);
    Vector result(arguments, arguments + count);
    LocalFree(arguments);
    return result;
}

} // namespace

TEST(CommandLine, IsTheInverseOfCommandLineToArgvW) {
    // The program always in quotes; an empty argument as a pair of quotes; a quote inside an
    // argument behind a backslash; a trailing backslash without blanks stays single, with
    // blanks it is doubled before the closing quote.
    TextArena arena;
    const wchar_t* fixed[] = {
        L"C:\\p q\\prog.exe", L"a", L"", L"b c", L"d\"e", L"f\\", L"g h\\", L"i\\\"j", nullptr};
    CommandLine line = command_line_build(arena, fixed);
    EXPECT_STREQ(L"\"C:\\p q\\prog.exe\" a \"\" \"b c\" d\\\"e f\\ \"g h\\\\\" i\\\\\\\"j",
                 line.text);
    EXPECT_EQ(18u, line.second_argument);
    const wchar_t* alone[] = {L"prog", nullptr};
    EXPECT_EQ(6u, command_line_build(arena, alone).second_argument); // none: the length

    // Generated vectors from a small alphabet that holds everything the splitting treats
    // specially; the program (split without escapes) holds no quote.
    std::mt19937 random(20240601);
    auto text = [&](const std::wstring& alphabet, size_t max_length) {
        std::wstring s(std::uniform_int_distribution<size_t>(0, max_length)(random), L' ');
        for (wchar_t& c : s)
            c = alphabet[std::uniform_int_distribution<size_t>(0, alphabet.size() - 1)(random)];
        return s;
    };
    int failures = 0;
    for (int round = 0; round < 5000 && failures < 5; ++round) {
        Vector vector{text(L"pq \t\\:", 6)};
        for (size_t n = std::uniform_int_distribution<size_t>(0, 6)(random); n; --n)
            vector.push_back(text(L"ab \t\\\"\x00e9", 7));
        std::vector<const wchar_t*> pointers;
        for (const std::wstring& s : vector) pointers.push_back(s.c_str());
        pointers.push_back(nullptr);
        line = command_line_build(arena, pointers.data());
        // The rest of the line after the second-argument position is the other arguments.
        Vector tail = split(L"\"x\" " + std::wstring(line.text + line.second_argument));
        tail.erase(tail.begin());
        if (split(line.text) != vector || tail != Vector(vector.begin() + 1, vector.end())) {
            ++failures;
            ADD_FAILURE() << "line " << testing::PrintToString(std::wstring(line.text));
        }
    }
}
