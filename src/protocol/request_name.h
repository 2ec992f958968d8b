// The name carried by an open, replace, move, movereplace or delete request.
//
// On the wire a name is a run of UTF-8 components, each followed by one NUL, from a fixed offset
// of the message to its end. RequestName parses that run into NameComponent records with their
// UTF-16 conversions, storing the array and the texts in one block: inside the request object
// when they fit its 320-byte area, else on the heap.
#pragma once

#include <zun/protocol.h>

#include "protocol/small_buffer.h"

namespace zun {

// No limit on the number of components (open, move).
constexpr uint32_t kNameUnlimited = 0xFFFFFFFFu;

class RequestName {
public:
    static constexpr size_t kInlineSize = 320;

    // Parses the components of message[start, size).
    //
    // Components are taken, empty ones included, until min_count have been taken; beyond that
    // while fewer than max_count have been taken and the next one is not empty. The first empty
    // component after the minimum therefore ends the name, and any bytes behind it (the zero
    // padding of a stream message, typically) are ignored. Bytes without a NUL before the end
    // of the message count as an empty component; the region may be used up before min_count,
    // in which case the missing components are empty as well.
    //
    // Fails with Invalid when start lies beyond the message or the request id is 0 (a request
    // that names a file must be answered), with OutOfMemory when the heap block cannot be had.
    ProtocolError parse(const uint8_t* message, uint32_t size, uint32_t request_id, uint32_t start,
                        uint32_t min_count, uint32_t max_count);

    const NameComponent* components() const { return components_; }
    size_t count() const { return count_; }
    const NameComponent& operator[](size_t i) const { return components_[i]; }
    bool is_inline() const { return storage_.is_inline(); }

private:
    const NameComponent* components_ = nullptr;
    size_t count_ = 0;
    SmallBuffer<kInlineSize> storage_;
};

} // namespace zun
