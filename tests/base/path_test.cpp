// Path parsing and joining, and NT paths checked against ntdll's own conversion.

#include <gtest/gtest.h>

#include <string>

#include <windows.h>
#include <winternl.h>

#include "base/path.h"
#include "base/text_arena.h"

namespace {

std::wstring nt_text(const UNICODE_STRING& s) {
    return std::wstring(s.Buffer, s.Length / sizeof(wchar_t));
}

struct ParseCase {
    const wchar_t* path;
    size_t root_length;
    bool rooted;
    size_t name_start;
    size_t extension_start;
};

} // namespace

TEST(PathParse, RootsNamesAndExtensions) {
    const ParseCase cases[] = {
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
    for (const ParseCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "path " << std::wstring(c.path).size() << ": "
                                        << testing::PrintToString(std::wstring(c.path)));
        PathParts parts = path_parse(c.path);
        EXPECT_EQ(0u, parts.error);
        EXPECT_EQ(c.root_length, parts.root_length);
        EXPECT_EQ(c.rooted, parts.rooted);
        EXPECT_EQ(c.name_start, parts.name_start);
        EXPECT_EQ(c.extension_start, parts.extension_start);
    }
    for (const wchar_t* invalid : {L"\\\\srv", L"\\\\srv\\", L"\\\\\\share", L"//srv"})
        EXPECT_EQ(123u, path_parse(invalid).error) << testing::PrintToString(std::wstring(invalid));
}

TEST(PathJoin, OneSeparatorBetweenAndRootsKeepTheirs) {
    TextArena arena;
    auto join = [&](const wchar_t* directory, const wchar_t* name) {
        return std::wstring(path_join(arena, directory, name));
    };
    EXPECT_EQ(L"C:\\", join(L"C:\\", L""));
    EXPECT_EQ(L"C:\\d", join(L"C:\\d", L""));
    EXPECT_EQ(L"C:\\d", join(L"C:\\d\\", L""));
    EXPECT_EQ(L"C:\\d\\f", join(L"C:\\d\\", L"\\f"));
    EXPECT_EQ(L"C:\\d\\f", join(L"C:\\d", L"f"));
    EXPECT_EQ(L"C:\\f", join(L"C:", L"f"));
    EXPECT_EQ(L"\\\\srv\\sh\\", join(L"\\\\srv\\sh\\", L""));
    EXPECT_EQ(L"\\", join(L"\\", L""));
    EXPECT_EQ(L"name", join(L"", L"name"));
}

TEST(PathToNt, PrefixRules) {
    TextArena arena;
    UNICODE_STRING nt;
    ASSERT_EQ(0u, path_to_nt(arena, L"\\\\?\\C:\\x", &nt));
    EXPECT_EQ(L"\\??\\C:\\x", nt_text(nt));
    ASSERT_EQ(0u, path_to_nt(arena, L"\\\\srv\\sh\\f", &nt));
    EXPECT_EQ(L"\\??\\UNC\\srv\\sh\\f", nt_text(nt));
    ASSERT_EQ(0u, path_to_nt(arena, L"C:\\dir\\..\\x", &nt));
    EXPECT_EQ(L"\\??\\C:\\x", nt_text(nt));
    // A path with one leading separator is an NT path already.
    ASSERT_EQ(0u, path_to_nt(arena, L"\\Device\\Null", &nt));
    EXPECT_EQ(L"\\Device\\Null", nt_text(nt));
    EXPECT_EQ(nt.Length + sizeof(wchar_t), nt.MaximumLength);
    EXPECT_EQ(0, nt.Buffer[nt.Length / sizeof(wchar_t)]);

    EXPECT_EQ(123u, path_to_nt(arena, L"", &nt));
    // The limit: below 32,768 units of NT path.
    std::wstring long_path = L"C:\\" + std::wstring(32768 - 8, L'a');
    ASSERT_EQ(0u, path_to_nt(arena, long_path.c_str(), &nt));
    EXPECT_EQ(32767u, nt.Length / sizeof(wchar_t));
    long_path += L'a';
    EXPECT_EQ(123u, path_to_nt(arena, long_path.c_str(), &nt));
}

TEST(PathToNt, AgreesWithNtdllOnDosPaths) {
    wchar_t current[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, current);
    const std::wstring long_name =
        L"C:\\" + std::wstring(300, L'L') + L"\\" + std::wstring(300, L'M');
    const wchar_t* paths[] = {
        L"C:\\a\\b",
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
        long_name.c_str(),
    };
    for (const wchar_t* path : paths) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(path)));
        UNICODE_STRING expected;
        ASSERT_TRUE(RtlDosPathNameToNtPathName_U(path, &expected, nullptr, nullptr));
        TextArena arena;
        UNICODE_STRING nt;
        ASSERT_EQ(0u, path_to_nt(arena, path, &nt));
        EXPECT_EQ(nt_text(expected), nt_text(nt));
        RtlFreeUnicodeString(&expected);
    }
}
