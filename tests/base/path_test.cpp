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

TEST(FileOpen, ReplacingAnExistingHiddenFileGoesThroughTheSecondAttempt) {
    // Windows refuses to replace a hidden file with ordinary attributes (Wine does not enforce
    // that rule): file_open's second attempt asks for the hidden bit.
    TempFile hidden(L"hidden.dat");
    OwnedHandle file(CreateFileW(hidden.path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_HIDDEN, nullptr));
    size_t count;
    ASSERT_EQ(0u, io_write(file.get(), "old contents", 12, &count));
    HANDLE handle;
    file.reset();
    ASSERT_EQ(0u, file_open(&handle, hidden.path.c_str(), file_open_replace)); // 0x30
    file.reset(handle);
    ASSERT_EQ(0u, io_write(handle, "new", 3, &count));
    ASSERT_EQ(0u, file_open(&handle, hidden.path.c_str(), file_open_read));
    file.reset(handle);
    EXPECT_EQ("new", read_all(handle)); // replaced, not just opened
    uint32_t attributes = 0;
    ASSERT_EQ(0u, file_attributes(hidden.path.c_str(), &attributes));
    EXPECT_TRUE(attributes & FILE_ATTRIBUTE_HIDDEN);
}

TEST(FileOpen, DispositionsAndSharing) {
    TempFile plain(L"plain.txt"), fresh(L"fresh.txt");
    const wchar_t* name = plain.path.c_str();
    HANDLE handle;
    EXPECT_EQ(2u, file_open(&handle, name, file_open_read)); // FILE_OPEN: must exist
    EXPECT_EQ(INVALID_HANDLE_VALUE, handle);
    EXPECT_EQ(2u, file_open(&handle, name, file_open_truncate));
    ASSERT_EQ(0u, file_open(&handle, name, file_open_create | file_open_read));
    OwnedHandle writer(handle);
    size_t count;
    ASSERT_EQ(0u, io_write(handle, "abc", 3, &count));
    // Write access shares reading only, unless writers are let in explicitly.
    EXPECT_EQ(32u, file_open(&handle, name, file_open_write));
    ASSERT_EQ(0u, file_open(&handle, name, file_open_read));
    OwnedHandle reader(handle);
    EXPECT_EQ("abc", read_all(handle));
    writer.reset();
    reader.reset();
    ASSERT_EQ(0u, file_open(&handle, name, file_open_write | file_open_share_write));
    writer.reset(handle);
    ASSERT_EQ(0u, file_open(&handle, name, file_open_write | file_open_share_write));
    reader.reset(handle);
    // Deny-write refuses to join handles that write.
    EXPECT_EQ(32u, file_open(&handle, name, file_open_read | file_open_deny_write));
    writer.reset();
    reader.reset();

    // FILE_OVERWRITE empties an existing file; an asynchronous handle has no SYNCHRONIZE
    // option and is read by the asynchronous strategy.
    ASSERT_EQ(0u, file_open(&handle, name, file_open_truncate | file_open_async));
    writer.reset(handle);
    uint8_t kind = 0;
    ASSERT_EQ(0u, io_kind(handle, &kind));
    EXPECT_EQ(io_device_disk | io_class_asynchronous, kind);
    LARGE_INTEGER size;
    ASSERT_TRUE(GetFileSizeEx(handle, &size));
    EXPECT_EQ(0, size.QuadPart);
    EXPECT_EQ(183u, file_create_new(&handle, name)); // ERROR_ALREADY_EXISTS
    ASSERT_EQ(0u, file_create_new(&handle, fresh.path.c_str()));
    CloseHandle(handle);
    uint32_t attributes = 0;
    ASSERT_EQ(0u, file_attributes(test_program_directory().c_str(), &attributes));
    EXPECT_TRUE(attributes & FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(2u, file_attributes((plain.path + L".missing").c_str(), &attributes));
}
