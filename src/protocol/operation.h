// The operations of the protocol, as the marshaller of a given version knows them.
#pragma once

#include <zun/protocol.h>

namespace zun {

struct OperationInfo {
    const wchar_t* name;  // as printed in traces: "open", "movereplace", ...
    uint32_t min_size;    // shortest valid request
    uint32_t min_version; // first marshaller version that serves it
};

// The operation with this number, or null when a marshaller of this version does not know it
// (mediainfo is known from version 2, access from version 6). Unknown operations fail with
// ProtocolError::Invalid.
const OperationInfo* operation_find(uint32_t operation, uint32_t marshaller_version);

// Whether a request of this operation and size may reach the formatter at all: the operation
// is known and the message is at least its minimum size.
ProtocolError operation_check(uint32_t operation, uint32_t size, uint32_t marshaller_version);

} // namespace zun
