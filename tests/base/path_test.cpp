// Path parsing and joining, and NT paths checked against ntdll's own conversion.
#include <gtest/gtest.h>

#include <string>

#include <windows.h>
#include <winternl.h>

#include "base/path.h"
#include "base/text_arena.h"

namespace {

std::wstring to_nt(const std::wstring& path, uint32_t* error = nullptr) {
    TextArena arena;
    UNICODE_STRING nt = {};
    uint32_t result = path_to_nt(arena, path.c_str(), &nt);
    if (error) *error = result;
    EXPECT_TRUE(result || !nt.Buffer[nt.Length / 2]); // terminated
    return std::wstring(nt.Buffer ? nt.Buffer : L"", nt.Length / sizeof(wchar_t));
}

} // namespace

TEST(Path, ParseAndJoin) {
    const struct {
        const wchar_t* path;
        size_t root_length;
        bool rooted;
        size_t name_start, extension_start;
    } cases[] = {
        {L"C:\\dir\\name.ext", 3, true, 7, 11},
        {L"c:/dir/name.tar.gz", 3, true, 7, 15},
        {L"C:name.ext", 2, false, 2, 6}, // drive-relative
        {L"C:", 2, false, 2, 2},
        {L"\\x\\y", 0, true, 3, 4},
        {L"\\\\srv\\share", 11, true, 11, 11}, // the whole path is the root
        {L"\\\\srv\\share\\f.txt", 12, true, 12, 13},
        {L"dir.d\\.profile", 0, false, 6, 14}, // a leading dot is no extension
        {L"name.", 0, false, 0, 4},
        {L"", 0, false, 0, 0},
    };
    for (const auto& c : cases) {
        PathParts parts = path_parse(c.path);
        EXPECT_EQ(
            (std::vector<size_t>{0, c.root_length, c.rooted, c.name_start, c.extension_start}),
            (std::vector<size_t>{parts.error, parts.root_length, parts.rooted, parts.name_start,
                                 parts.extension_start}))
            << testing::PrintToString(std::wstring(c.path));
    }
    for (const wchar_t* invalid : {L"\\\\srv", L"\\\\srv\\", L"\\\\\\share", L"//srv"})
        EXPECT_EQ(123u, path_parse(invalid).error) << testing::PrintToString(std::wstring(invalid));

    // One separator between the parts; a root keeps its own.
    // clang-format off
    const wchar_t* const joins[][3] = {
        {L"C:\\", L"", L"C:\\"}, {L"C:\\d", L"", L"C:\\d"}, {L"C:\\d\\", L"", L"C:\\d"},
        {L"C:\\d\\", L"\\f", L"C:\\d\\f"}, {L"C:\\d", L"f", L"C:\\d\\f"}, {L"C:", L"f", L"C:\\f"},
        {L"\\\\srv\\sh\\", L"", L"\\\\srv\\sh\\"}, {L"\\", L"", L"\\"}, {L"", L"name", L"name"}};
    // clang-format on
    TextArena arena;
    for (const auto& join : joins)
        EXPECT_EQ(std::wstring(join[2]), path_join(arena, join[0], join[1]))
            << testing::PrintToString(std::wstring(join[0]) + L" + " + join[1]);
}

TEST(Path, ToNtPrefixRulesAndLimit) {
    EXPECT_EQ(L"\\Device\\Null", to_nt(L"\\Device\\Null")); // one leading separator: NT already
    uint32_t error = 0;
    to_nt(L"", &error);
    EXPECT_EQ(123u, error);
    // The limit: below 32,768 units of NT path.
    std::wstring long_path = L"C:\\" + std::wstring(32768 - 8, L'a');
    EXPECT_EQ(32767u, to_nt(long_path, &error).size());
    EXPECT_EQ(0u, error);
    to_nt(long_path + L'a', &error);
    EXPECT_EQ(123u, error);
}

TEST(Path, ToNtAgreesWithNtdllOnDosPaths) {
    const std::wstring long_name =
        L"C:\\" + std::wstring(300, L'L') + L"\\" + std::wstring(300, L'M');
    const wchar_t* paths[] = {L"C:\\a\\b",
                              L"c:/a/b/../c",
                              L"C:\\a\\.\\b\\",
                              L"C:\\",
                              L"C:",
                              L"C:rel\\x",
                              L"x\\y",
                              L".",
                              L"..\\z",
                              L"\\\\srv\\share\\dir\\..\\f",
                              L"//srv/share/f",
                              L"\\\\?\\C:\\x\\..\\y",
                              L"\\\\.\\pipe\\name",
                              L"C:\\a\\trailing. ",
                              long_name.c_str()};
    for (const wchar_t* path : paths) {
        UNICODE_STRING expected;
        ASSERT_TRUE(RtlDosPathNameToNtPathName_U(path, &expected, nullptr, nullptr));
        uint32_t error = 1;
        EXPECT_EQ(std::wstring(expected.Buffer, expected.Length / sizeof(wchar_t)),
                  to_nt(path, &error));
        EXPECT_EQ(0u, error);
        RtlFreeUnicodeString(&expected);
    }
}
