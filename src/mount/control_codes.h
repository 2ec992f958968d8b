// Control codes of the zunfs driver, and the function numbers the library uses.
//
// The driver is reached through its control device ("\\.\zunfs") and through handles of files
// and fast pipes it hands out. A control code packs a device type, a function, a transfer
// method and the access needed, as CTL_CODE does; the driver's functions are numbered from
// 0x800, the first custom function.
//
// This is the foot of the driver control channel. It depends on nothing, so that the protocol's
// fast pipe transport, which lies below the mount subsystem, may use it too.
#pragma once

#include <cstdint>

namespace zun {

constexpr uint32_t kDeviceTypeUnknown = 0x22;      // FILE_DEVICE_UNKNOWN: the control device
constexpr uint32_t kDeviceTypeFileSystem = 0x9AA5; // files and fast pipes of the driver
constexpr uint32_t kFirstCustomFunction = 0x800;
constexpr uint32_t kMethodBuffered = 0; // METHOD_BUFFERED
constexpr uint32_t kMethodNeither = 3;  // METHOD_NEITHER: raw user addresses

constexpr uint32_t driver_control_code(uint32_t device_type, uint32_t function, uint32_t method) {
    // CTL_CODE(type, function, method, FILE_ANY_ACCESS)
    return (device_type << 16) | ((kFirstCustomFunction + function) << 2) | method;
}

// Function n on the control device (and on a fast pipe handle): 0x222000 + 4n.
constexpr uint32_t control_code(uint32_t function) {
    return driver_control_code(kDeviceTypeUnknown, function, kMethodBuffered);
}
// The same with METHOD_NEITHER, for the fast pipe's message transfers: 0x222003 + 4n.
constexpr uint32_t control_code_neither(uint32_t function) {
    return driver_control_code(kDeviceTypeUnknown, function, kMethodNeither);
}
// Function n on a file or fast pipe handle: 0x9AA52000 + 4n.
constexpr uint32_t file_control_code(uint32_t function) {
    return driver_control_code(kDeviceTypeFileSystem, function, kMethodBuffered);
}

static_assert(control_code(1) == 0x222004);
static_assert(control_code_neither(4) == 0x222013);
static_assert(file_control_code(203) == 0x9AA5232C);

// Functions on a fast pipe handle.
constexpr uint32_t kFastPipeCancelFunction = 2;   // buffered, no data: receives fail from now on
constexpr uint32_t kFastPipeReceiveFunction = 4;  // neither: the next client transfer
constexpr uint32_t kFastPipeCompleteFunction = 5; // neither: the result of a transfer

// Functions on file-system device handles.
constexpr uint32_t kIdentityFunction = 0; // the 64-byte identity record

} // namespace zun
