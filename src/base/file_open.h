// Opening files through NtCreateFile with NT paths: exact sharing and dispositions, hidden and
// system files, and paths longer than the classic limit.
#pragma once

#include <cstdint>

#include <windows.h>

// The open flag word.
constexpr uint8_t file_open_read = 0x01;        // read data; without it only attributes,
                                                // extended attributes and security
constexpr uint8_t file_open_write = 0x02;       // write data and attributes; shares read and
                                                // delete only
constexpr uint8_t file_open_deny_write = 0x04;  // share read and delete only
constexpr uint8_t file_open_share_write = 0x08; // with write access, share writing after all
constexpr uint8_t file_open_create = 0x10;      // FILE_OPEN_IF (implies write access)
constexpr uint8_t file_open_truncate = 0x20;    // FILE_OVERWRITE (implies write access)
constexpr uint8_t file_open_replace = 0x30;     // FILE_OVERWRITE_IF: create or replace
constexpr uint8_t file_open_unbuffered = 0x40;  // FILE_NO_INTERMEDIATE_BUFFERING
constexpr uint8_t file_open_async = 0x80;       // an asynchronous handle

// On failure the handle is INVALID_HANDLE_VALUE. An existing hidden or system file that the
// replacing dispositions refuse (5) is opened or replaced on a second attempt that asks for
// those attributes.
uint32_t file_open(HANDLE* handle, const wchar_t* path, uint8_t flags);

// Creates a file that must not exist yet, for writing; shares read and delete.
uint32_t file_create_new(HANDLE* handle, const wchar_t* path);

// The attributes of a file or directory.
uint32_t file_attributes(const wchar_t* path, uint32_t* attributes);
