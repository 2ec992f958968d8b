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

std::vector<std::wstring> split(const wchar_t* line) {
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(line, &count);
    std::vector<std::wstring> result;
    if (!arguments) return result;
    for (int i = 0; i < count; ++i) result.emplace_back(arguments[i]);
    LocalFree(arguments);
    return result;
}

std::wstring build(std::vector<const wchar_t*> arguments, size_t* second = nullptr) {
    arguments.push_back(nullptr);
    TextArena arena;
    CommandLine line = command_line_build(arena, arguments.data());
    if (second) *second = line.second_argument;
    return line.text ? line.text : L"<null>";
}

} // namespace

TEST(CommandLine, QuotingRules) {
    // The program always in quotes; an empty argument as a pair of quotes; a quote inside an
    // argument behind a backslash; a trailing backslash without blanks stays single, with
    // blanks it is doubled before the closing quote.
    size_t second = 0;
    EXPECT_EQ(L"\"C:\\p q\\prog.exe\" a \"\" \"b c\" d\\\"e f\\ \"g h\\\\\" i\\\\\\\"j",
              build({L"C:\\p q\\prog.exe", L"a", L"", L"b c", L"d\"e", L"f\\", L"g h\\", L"i\\\"j"},
                    &second));
    EXPECT_EQ(18u, second);
    EXPECT_EQ(L"\"prog\"", build({L"prog"}, &second));
    EXPECT_EQ(6u, second); // no second argument: the length
    EXPECT_EQ(L"\"\" \"\"", build({L"", L""}));
}

TEST(CommandLine, IsTheInverseOfCommandLineToArgvW) {
    // Every argument from a small alphabet that holds everything the splitting treats
    // specially; the program (split without escapes) holds no quote.
    const wchar_t alphabet[] = L"ab \t\\\"\x00e9";
    const wchar_t program_alphabet[] = L"pq \t\\:";
    std::mt19937 random(20240601);
    auto pick = [&](const wchar_t* set, size_t size) {
        return set[std::uniform_int_distribution<size_t>(0, size - 1)(random)];
    };
    auto text = [&](const wchar_t* set, size_t size, size_t max_length) {
        std::wstring s;
        size_t length = std::uniform_int_distribution<size_t>(0, max_length)(random);
        for (size_t i = 0; i < length; ++i) s += pick(set, size);
        return s;
    };

    int failures = 0;
    for (int round = 0; round < 5000 && failures < 5; ++round) {
        std::vector<std::wstring> vector;
        vector.push_back(text(program_alphabet, 6, 6));
        size_t count = std::uniform_int_distribution<size_t>(0, 6)(random);
        for (size_t i = 0; i < count; ++i) vector.push_back(text(alphabet, 7, 7));

        std::vector<const wchar_t*> pointers;
        for (const std::wstring& s : vector) pointers.push_back(s.c_str());
        size_t second = 0;
        std::wstring line = build(pointers, &second);
        std::vector<std::wstring> back = split(line.c_str());
        // CommandLineToArgvW turns an empty line into the running program's name.
        if (back != vector) {
            ++failures;
            ADD_FAILURE() << "line " << testing::PrintToString(line);
        }
        // The rest of the line after the second-argument position is the other arguments.
        std::wstring rest = L"\"x\" " + line.substr(second);
        std::vector<std::wstring> tail = split(rest.c_str());
        tail.erase(tail.begin());
        std::vector<std::wstring> expected_tail(vector.begin() + 1, vector.end());
        if (tail != expected_tail) {
            ++failures;
            ADD_FAILURE() << "tail of " << testing::PrintToString(line);
        }
    }
}
