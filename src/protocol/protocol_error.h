// Conversion of Windows error codes into protocol result codes.
#pragma once

#include <zun/protocol.h>

namespace zun {

// The ProtocolError for a Windows error code: 0 gives Success, a code of the conversion table
// its counterpart, any other code Failed. known (optional) tells the two last cases apart, so
// that the marshaller can warn about codes nobody expected.
ProtocolError protocol_error_from_system(uint32_t system_error, bool* known);

} // namespace zun
