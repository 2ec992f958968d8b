// Opening files through NT paths: dispositions, sharing and hidden files.
#include <gtest/gtest.h>

#include <string>

#include "base/file_open.h"
#include "child_process.h"

namespace {

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
