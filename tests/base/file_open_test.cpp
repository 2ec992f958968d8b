// Opening files through NT paths: dispositions, sharing, hidden files and long paths.

#include <gtest/gtest.h>

#include <string>

#include <windows.h>
#include <winternl.h>

#include "base/file_open.h"
#include "base/io.h"
#include "base/owned_handle.h"
#include "base/path.h"
#include "base/text_arena.h"

namespace {

class FileOpen : public testing::Test {
protected:
    void SetUp() override {
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        directory_ =
            std::wstring(temp) + L"zun_file_open_" + std::to_wstring(GetCurrentProcessId());
        CreateDirectoryW(directory_.c_str(), nullptr);
    }
    void TearDown() override {
        // Long names need the verbatim prefix to be removed.
        for (auto it = created_.rbegin(); it != created_.rend(); ++it) {
            SetFileAttributesW(it->c_str(), FILE_ATTRIBUTE_NORMAL);
            if (!DeleteFileW(it->c_str())) RemoveDirectoryW(it->c_str());
        }
        RemoveDirectoryW(directory_.c_str());
    }
    std::wstring path(const wchar_t* name) {
        std::wstring p = directory_ + L"\\" + name;
        created_.push_back(p);
        return p;
    }
    static void write_file(const std::wstring& path, const char* text, DWORD attributes) {
        OwnedHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                     attributes, nullptr));
        ASSERT_TRUE(file.valid());
        DWORD written;
        WriteFile(file.get(), text, static_cast<DWORD>(strlen(text)), &written, nullptr);
    }
    static std::string read_file(const std::wstring& path) {
        OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                     OPEN_EXISTING, 0, nullptr));
        char buffer[256];
        DWORD got = 0;
        ReadFile(file.get(), buffer, sizeof buffer, &got, nullptr);
        return std::string(buffer, got);
    }

    std::wstring directory_;
    std::vector<std::wstring> created_;
};

} // namespace

// The status NtCreateFile gives for replacing `path` with ordinary attributes: NTFS refuses to
// replace a hidden or system file unless the new attributes keep those bits.
NTSTATUS plain_replace_status(const std::wstring& path) {
    TextArena arena;
    UNICODE_STRING nt;
    if (path_to_nt(arena, path.c_str(), &nt)) return -1;
    OBJECT_ATTRIBUTES object;
    InitializeObjectAttributes(&object, &nt, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK status_block;
    HANDLE handle;
    NTSTATUS status =
        NtCreateFile(&handle, FILE_WRITE_DATA | SYNCHRONIZE, &object, &status_block, nullptr,
                     FILE_ATTRIBUTE_ARCHIVE, 0, FILE_OVERWRITE_IF,
                     FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (NT_SUCCESS(status)) CloseHandle(handle);
    return status;
}

TEST_F(FileOpen, ReplacingAnExistingHiddenFileSucceeds) {
    std::wstring probe = path(L"probe.dat");
    write_file(probe, "", FILE_ATTRIBUTE_HIDDEN);
    NTSTATUS plain = plain_replace_status(probe);
    // Windows refuses (so file_open needs its second attempt); Wine does not enforce the rule.
    EXPECT_TRUE(plain == 0 || plain == static_cast<NTSTATUS>(0xC0000022)) << std::hex << plain;
    if (plain == 0)
        printf("    note: this platform replaces hidden files without the hidden bit\n");

    std::wstring hidden = path(L"hidden.dat");
    write_file(hidden, "old contents", FILE_ATTRIBUTE_HIDDEN);

    HANDLE handle;
    ASSERT_EQ(0u, file_open(&handle, hidden.c_str(), file_open_replace));
    OwnedHandle file(handle);
    size_t count;
    ASSERT_EQ(0u, io_write(handle, "new", 3, &count));
    file.reset();
    EXPECT_EQ("new", read_file(hidden)); // replaced, not just opened
    uint32_t attributes = 0;
    ASSERT_EQ(0u, file_attributes(hidden.c_str(), &attributes));
    EXPECT_TRUE(attributes & FILE_ATTRIBUTE_HIDDEN);
}

TEST_F(FileOpen, DispositionsAndSharing) {
    std::wstring name = path(L"plain.txt");
    HANDLE handle;
    EXPECT_EQ(2u, file_open(&handle, name.c_str(), file_open_read)); // FILE_OPEN: must exist
    EXPECT_EQ(INVALID_HANDLE_VALUE, handle);
    EXPECT_EQ(2u, file_open(&handle, name.c_str(), file_open_truncate));

    ASSERT_EQ(0u, file_open(&handle, name.c_str(), file_open_create | file_open_read));
    OwnedHandle writer(handle);
    size_t count;
    ASSERT_EQ(0u, io_write(handle, "abc", 3, &count));
    // Write access shares reading only, unless writers are let in explicitly.
    EXPECT_EQ(32u, file_open(&handle, name.c_str(), file_open_write));
    ASSERT_EQ(0u, file_open(&handle, name.c_str(), file_open_read));
    OwnedHandle reader(handle);
    char buffer[8];
    ASSERT_EQ(0u, io_read(handle, buffer, sizeof buffer, &count));
    EXPECT_EQ("abc", std::string(buffer, count));
    writer.reset();
    reader.reset();

    ASSERT_EQ(0u, file_open(&handle, name.c_str(), file_open_write | file_open_share_write));
    OwnedHandle first(handle);
    ASSERT_EQ(0u, file_open(&handle, name.c_str(), file_open_write | file_open_share_write));
    OwnedHandle second(handle);
    // Deny-write refuses to join handles that write.
    EXPECT_EQ(32u, file_open(&handle, name.c_str(), file_open_read | file_open_deny_write));
    first.reset();
    second.reset();

    // FILE_OVERWRITE empties an existing file; an asynchronous handle has no SYNCHRONIZE
    // option and is read by the asynchronous strategy.
    ASSERT_EQ(0u, file_open(&handle, name.c_str(), file_open_truncate | file_open_async));
    OwnedHandle async(handle);
    uint8_t kind = 0;
    ASSERT_EQ(0u, io_kind(handle, &kind));
    EXPECT_EQ(io_device_disk | io_class_asynchronous, kind);
    LARGE_INTEGER size;
    ASSERT_TRUE(GetFileSizeEx(handle, &size));
    EXPECT_EQ(0, size.QuadPart);

    EXPECT_EQ(183u, file_create_new(&handle, name.c_str())); // ERROR_ALREADY_EXISTS
    std::wstring fresh = path(L"fresh.txt");
    ASSERT_EQ(0u, file_create_new(&handle, fresh.c_str()));
    CloseHandle(handle);

    uint32_t attributes = 0;
    ASSERT_EQ(0u, file_attributes(directory_.c_str(), &attributes));
    EXPECT_TRUE(attributes & FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(2u, file_attributes(path(L"missing").c_str(), &attributes));
}

TEST_F(FileOpen, PathsLongerThanTheClassicLimit) {
    // Three levels of 100 units: well past MAX_PATH, made through the verbatim prefix.
    std::wstring deep = directory_;
    for (wchar_t c : {L'x', L'y', L'z'}) {
        deep += L"\\" + std::wstring(100, c);
        ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + deep).c_str(), nullptr));
        created_.push_back(L"\\\\?\\" + deep);
    }
    std::wstring file = deep + L"\\file.txt";
    created_.push_back(L"\\\\?\\" + file);
    ASSERT_GT(file.size(), static_cast<size_t>(MAX_PATH));
    HANDLE handle;
    ASSERT_EQ(0u, file_open(&handle, file.c_str(), file_open_replace));
    CloseHandle(handle);
    uint32_t attributes = 0;
    ASSERT_EQ(0u, file_attributes(file.c_str(), &attributes));
    EXPECT_TRUE(attributes & FILE_ATTRIBUTE_ARCHIVE);
}
