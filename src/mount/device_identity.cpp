#include "mount/device_identity.h"

#include <string.h>

#include "base/device_control.h"
#include "mount/control_codes.h"

namespace zun {

namespace {
constexpr uint32_t kErrorUnknownRevision = 1305; // ERROR_UNKNOWN_REVISION
constexpr int32_t kFastPipeInterfaceVersion = 1;
} // namespace

uint32_t device_identity_query(HANDLE handle, DeviceIdentity* identity) {
    memset(identity, 0, sizeof *identity);
    size_t returned = 0;
    return device_control(handle, file_control_code(kIdentityFunction), nullptr, 0, identity,
                          sizeof *identity, &returned);
}

uint32_t device_identity_check_fast_pipe(const DeviceIdentity& identity) {
    if (memcmp(identity.type_name, kFastPipeTypeName, sizeof kFastPipeTypeName) != 0)
        return kErrorUnknownRevision;
    if (identity.version < kFastPipeInterfaceVersion ||
        identity.incompatible_version > kFastPipeInterfaceVersion)
        return kErrorUnknownRevision;
    return 0;
}

} // namespace zun
