#include "protocol/protocol_error.h"

namespace zun {

namespace {

struct ErrorPair {
    ProtocolError code;
    uint32_t system_error;
};

// One list, searched front to back: where a system code appears twice the earlier pair wins
// (31 is Failed, not PathNotFound; 5 is AccessDenied, not Forbidden). Keep the order.
constexpr ErrorPair kPairs[] = {
    {ProtocolError::Cancelled, 1223},     // ERROR_CANCELLED
    {ProtocolError::Cancelled, 995},      // ERROR_OPERATION_ABORTED
    {ProtocolError::TimedOut, 121},       // ERROR_SEM_TIMEOUT
    {ProtocolError::TimedOut, 64},        // ERROR_NETNAME_DELETED
    {ProtocolError::NotImplemented, 120}, // ERROR_CALL_NOT_IMPLEMENTED
    {ProtocolError::Invalid, 87},         // ERROR_INVALID_PARAMETER
    {ProtocolError::OutOfMemory, 14},     // ERROR_OUTOFMEMORY
    {ProtocolError::Failed, 31},          // ERROR_GEN_FAILURE
    {ProtocolError::AccessDenied, 5},     // ERROR_ACCESS_DENIED
    {ProtocolError::NotFound, 2},         // ERROR_FILE_NOT_FOUND
    {ProtocolError::NotFound, 1168},      // ERROR_NOT_FOUND
    {ProtocolError::PathNotFound, 3},     // ERROR_PATH_NOT_FOUND
    {ProtocolError::PathNotFound, 31},    // shadowed by Failed above
    {ProtocolError::NoSpace, 39},         // ERROR_HANDLE_DISK_FULL
    {ProtocolError::NoSpace, 112},        // ERROR_DISK_FULL
    {ProtocolError::BadName, 123},        // ERROR_INVALID_NAME
    {ProtocolError::Forbidden, 5},        // shadowed by AccessDenied above
    {ProtocolError::NotAFolder, 267},     // ERROR_DIRECTORY
    {ProtocolError::Exists, 183},         // ERROR_ALREADY_EXISTS
    {ProtocolError::Exists, 80},          // ERROR_FILE_EXISTS
    {ProtocolError::EndOfFile, 38},       // ERROR_HANDLE_EOF
    {ProtocolError::DeletePending, 303},  // ERROR_DELETE_PENDING
    {ProtocolError::NotEmpty, 145},       // ERROR_DIR_NOT_EMPTY
    {ProtocolError::Corrupt, 11},         // ERROR_BAD_FORMAT
    {ProtocolError::Disconnected, 109},   // ERROR_BROKEN_PIPE
};

} // namespace

ProtocolError protocol_error_from_system(uint32_t system_error, bool* known) {
    if (known) *known = true;
    if (system_error == 0) return ProtocolError::Success;
    for (const ErrorPair& pair : kPairs)
        if (pair.system_error == system_error) return pair.code;
    if (known) *known = false;
    return ProtocolError::Failed;
}

} // namespace zun
