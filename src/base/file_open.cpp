#include "base/file_open.h"

#include <winternl.h>

#include "base/nt_io.h"
#include "base/path.h"
#include "base/text_arena.h"

namespace {

struct BasicInformation {
    LARGE_INTEGER creation_time;
    LARGE_INTEGER last_access_time;
    LARGE_INTEGER last_write_time;
    LARGE_INTEGER change_time;
    ULONG attributes;
};

constexpr ACCESS_MASK read_metadata = FILE_READ_ATTRIBUTES | FILE_READ_EA | READ_CONTROL;

uint32_t create(HANDLE* handle, const wchar_t* path, ACCESS_MASK access, ULONG attributes,
                ULONG share, ULONG disposition, ULONG options) {
    *handle = INVALID_HANDLE_VALUE;
    TextArena arena;
    UNICODE_STRING nt_path;
    if (uint32_t error = path_to_nt(arena, path, &nt_path)) return error;
    OBJECT_ATTRIBUTES object;
    InitializeObjectAttributes(&object, &nt_path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK status_block;
    HANDLE opened;
    NTSTATUS status = NtCreateFile(&opened, access, &object, &status_block, nullptr, attributes,
                                   share, disposition, options, nullptr, 0);
    if (!NT_SUCCESS(status)) return RtlNtStatusToDosError(status);
    *handle = opened;
    return 0;
}

} // namespace

uint32_t file_open(HANDLE* handle, const wchar_t* path, uint8_t flags) {
    bool write = flags & (file_open_write | file_open_create | file_open_truncate);
    ACCESS_MASK access = (flags & file_open_read) ? FILE_GENERIC_READ : read_metadata | SYNCHRONIZE;
    if (write) access |= FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA;
    if (flags & file_open_async) access &= ~SYNCHRONIZE;

    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    if ((write && !(flags & file_open_share_write)) || (flags & file_open_deny_write))
        share = FILE_SHARE_READ | FILE_SHARE_DELETE;

    static const ULONG dispositions[4] = {FILE_OPEN, FILE_OPEN_IF, FILE_OVERWRITE,
                                          FILE_OVERWRITE_IF};
    ULONG disposition = dispositions[(flags & file_open_replace) >> 4];

    ULONG options = FILE_NON_DIRECTORY_FILE;
    if (!(flags & file_open_async)) options |= FILE_SYNCHRONOUS_IO_NONALERT;
    if (flags & file_open_unbuffered) options |= FILE_NO_INTERMEDIATE_BUFFERING;

    ULONG attributes = (flags & file_open_create) ? FILE_ATTRIBUTE_ARCHIVE
                                                  : FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    uint32_t error = create(handle, path, access, attributes, share, disposition, options);
    if (error == ERROR_ACCESS_DENIED && (flags & file_open_create)) {
        // Replacing a hidden or system file is refused unless the new attributes keep what the
        // file has (NTFS's rule for FILE_OVERWRITE and FILE_SUPERSEDE). The file exists, so
        // ask again without creating, with those attributes.
        error = create(handle, path, access, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, share,
                       (flags & file_open_truncate) ? FILE_OVERWRITE : FILE_OPEN, options);
    }
    return error;
}

uint32_t file_create_new(HANDLE* handle, const wchar_t* path) {
    return create(handle, path,
                  FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | FILE_READ_EA |
                      FILE_WRITE_EA | SYNCHRONIZE | READ_CONTROL,
                  FILE_ATTRIBUTE_ARCHIVE, FILE_SHARE_READ | FILE_SHARE_DELETE, FILE_CREATE,
                  FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
}

uint32_t file_attributes(const wchar_t* path, uint32_t* attributes) {
    *attributes = 0;
    HANDLE handle;
    uint32_t error = create(&handle, path, FILE_READ_ATTRIBUTES | SYNCHRONIZE, 0,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                            FILE_SYNCHRONOUS_IO_NONALERT);
    if (error) return error;
    IO_STATUS_BLOCK status_block;
    BasicInformation info = {};
    NTSTATUS status =
        NtQueryInformationFile(handle, &status_block, &info, sizeof info, file_basic_information);
    CloseHandle(handle);
    if (!NT_SUCCESS(status)) return RtlNtStatusToDosError(status);
    *attributes = info.attributes;
    return 0;
}
