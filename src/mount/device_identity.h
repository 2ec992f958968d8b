// The identity of a handle of the driver's file-system device: function 0 on any handle.
//
// A handle that is one of the driver's answers with a 64-byte record naming what it is; every
// other handle fails the call. The protocol's transport uses it to tell the driver's fast pipe
// from an ordinary byte stream.
#pragma once

#include <cstddef>
#include <cstdint>

#include <windows.h>

namespace zun {

struct DeviceIdentity {
    int32_t version;              // of the object's interface
    int32_t incompatible_version; // the highest version a client may not know
    uint8_t reserved[24];
    char type_name[32]; // 8-bit characters ending in a zero byte
};
static_assert(sizeof(DeviceIdentity) == 64);
static_assert(offsetof(DeviceIdentity, version) == 0);
static_assert(offsetof(DeviceIdentity, incompatible_version) == 4);
static_assert(offsetof(DeviceIdentity, type_name) == 32);

constexpr char kFastPipeTypeName[] = "KestiFastPipe";

// Asks `handle` for its identity record. 0, or the call's error.
uint32_t device_identity_query(HANDLE handle, DeviceIdentity* identity);

// 0 when the record is that of a fast pipe this library can serve: type name "KestiFastPipe"
// (compared byte by byte, with its zero byte), version at least 1 and incompatible version at
// most 1. 1305 for anything else.
uint32_t device_identity_check_fast_pipe(const DeviceIdentity& identity);

} // namespace zun
