// Path parsing and joining, NT paths checked against ntdll's own conversion, and opening files
// through them: dispositions, sharing and hidden files.
#include <gtest/gtest.h>

#include <string>

#include <windows.h>
#include <winternl.h>

#include "base/file_open.h"
#include "base/path.h"
#include "base/text_arena.h"
#include "child_process.h"

namespace {

std::wstring to_nt(const std::wstring& path, uint32_t* error = nullptr) {
    TextArena arena;
    UNICODE_STRING nt = {};
    uint32_t result = path_to_nt(arena, path.c_str(), &nt);
    if (error) *error = result;
    EXPECT_TRUE(result || !nt.Buffer[nt.Length / 2]); // terminated
    return std::wstring(nt.Buffer ? nt.Buffer : L"", nt.Length / sizeof(wchar_t));
}

struct TempFile {
    std::wstring path;
    explicit TempFile(const wchar_t* name) {
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        path = temp + (L"zun_" + std::to_wstring(GetCurrentProcessId()) + name);
    }
    ~TempFile() {
        SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        DeleteFileW(path.c_str());
    }
};

} // namespace

TEST(Path, ParseAndJoin) {
    const struct {
        const wchar_t* path;
        size_t root_length;
        bool rooted;
        size_t name_start, extension_start;
    } cases[] = {
        {L"C:\\dir\\name.ext", 3, true, 7, 11},
        {L"C:name.ext", 2, false, 2, 6},       // drive-relative
        {L"\\\\srv\\share", 11, true, 11, 11}, // the whole path is the root
        {L"dir.d\\.profile", 0, false, 6, 14}, // a leading dot is no extension
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

TEST(FileOpen, DispositionsSharingAndHiddenFiles) {
    TempFile hidden(L"hidden.dat"), fresh(L"fresh.dat");
    HANDLE handle;
    EXPECT_EQ(2u, file_open(&handle, hidden.path.c_str(), file_open_read)); // FILE_OPEN: must exist
    EXPECT_EQ(INVALID_HANDLE_VALUE, handle);
    ASSERT_EQ(0u, file_create_new(&handle, fresh.path.c_str()));
    CloseHandle(handle);
    EXPECT_EQ(183u, file_create_new(&handle, fresh.path.c_str())); // ERROR_ALREADY_EXISTS
    // Windows refuses to replace a hidden file with ordinary attributes (Wine does not enforce
    // that rule): file_open's second attempt asks for the hidden bit.
    OwnedHandle file(CreateFileW(hidden.path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_HIDDEN, nullptr));
    size_t count;
    ASSERT_EQ(0u, io_write(file.get(), "old contents", 12, &count));
    file.reset();
    ASSERT_EQ(0u, file_open(&handle, hidden.path.c_str(), file_open_replace)); // 0x30
    file.reset(handle);
    ASSERT_EQ(0u, io_write(handle, "new", 3, &count));
    // Write access shares reading only: a second writer is refused, a reader is not.
    EXPECT_EQ(32u, file_open(&handle, hidden.path.c_str(), file_open_write));
    ASSERT_EQ(0u, file_open(&handle, hidden.path.c_str(), file_open_read));
    OwnedHandle reader(handle);
    EXPECT_EQ("new", read_all(handle)); // replaced, not just opened
    uint32_t attributes = 0;
    ASSERT_EQ(0u, file_attributes(hidden.path.c_str(), &attributes));
    EXPECT_TRUE(attributes & FILE_ATTRIBUTE_HIDDEN);
}
