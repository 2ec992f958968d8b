// The request context: one block per received message, holding everything the request needs
// from decoding until its reply has left. The request object is built in place inside it, and
// the formatter's scratch area sits at its end, so that a request costs one allocation.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <zun/requests.h>

namespace zun {

class MarshallerObject;
class RequestObject;

// One transfer received from the driver's message device: where its bytes are, where the
// driver wants the result, and the key with which it is completed. The fast pipe object clears
// and fills it; the stream transport leaves it zero.
struct FastPipeDescriptor {
    uint64_t word0;               // from the receive record, offset 0
    uint64_t word1;               // from the receive record, offset 24
    uint64_t transfer_type;       // 1 read, 2 write, 3 write with direct result
    uint8_t* data;                // the client's written bytes (types 2 and 3)
    uint64_t data_size;           //
    uint8_t* output;              // the client's result buffer (types 1 and 3)
    uint64_t output_size;         //
    uint64_t key;                 // identifies the transfer; cleared once completed
    uint8_t* receive_buffer;      // owned by the descriptor
    uint64_t receive_buffer_size; //
    uint8_t reserved[56];         // the fast pipe object's own bookkeeping
};
static_assert(sizeof(FastPipeDescriptor) == 136);

constexpr size_t kRequestContextSize = 3040;

struct RequestContext {
    MarshallerObject* marshaller;
    RequestContext* next;          // reply queue link
    FastPipeDescriptor descriptor; //
    RequestObject* request;        // the request object built in storage
    // A heap block the request's message lives in when it must outlive the receive buffer
    // (a write relocated for alignment, a long name); freed with the context.
    uint8_t* message_block;
    alignas(8) uint8_t storage[kRequestContextSize - 168 - sizeof(FormatterScratch)];
    FormatterScratch scratch; // the formatter's; never touched here
};
static_assert(sizeof(RequestContext) == kRequestContextSize);
static_assert(offsetof(RequestContext, storage) == 168);
static_assert(offsetof(RequestContext, scratch) == kRequestContextSize - sizeof(FormatterScratch));

// A zeroed context for a message of `marshaller`; null when memory is short.
RequestContext* request_context_create(MarshallerObject* marshaller);
// Destroys the request object (if one was built) and frees the context, its message block and
// its descriptor's receive buffer.
// Touches nothing but the context: the marshaller may already be gone.
void request_context_free(RequestContext* context);

// Contexts allocated and not yet freed, over the whole process: leak checks in tests.
long request_context_live_count();

} // namespace zun
