// The fast pipe: the driver's message device, on which the server fetches each client transfer
// with one device call and answers it with another.
//
// A client transfer is one of three kinds. A write (type 2) carries request messages; the
// driver lets the client go as soon as the server has taken the bytes. A write with direct
// result (type 3) carries one request and waits for its reply, which the server places in the
// client's output buffer. A read (type 1) asks for reply bytes of earlier writes. The server
// receives transfers into descriptors (FastPipeDescriptor, one per request context) and
// completes each exactly once, saying how many bytes it consumed and how many it placed.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <windows.h>

#include "base/sync.h"
#include "protocol/request_context.h"

namespace zun {

constexpr uint64_t kTransferRead = 1;
constexpr uint64_t kTransferWrite = 2;
constexpr uint64_t kTransferWriteDirect = 3;

// The record a receive call fills in (all fields little-endian u64).
struct FastPipeReceiveRecord {
    uint64_t word0;
    uint64_t key;
    uint64_t transfer_type;
    uint64_t word1;
    uint64_t data_size;
    uint64_t output_size;
    uint64_t data;   // address of the client's bytes, in this process; null: buffer too small
    uint64_t output; // address of the client's result buffer, in this process
};
static_assert(sizeof(FastPipeReceiveRecord) == 64);

// What a receive call takes: the server's buffer for the client's bytes.
struct FastPipeReceiveInput {
    uint64_t buffer;
    uint64_t buffer_size;
};
static_assert(sizeof(FastPipeReceiveInput) == 16);

// What a complete call takes.
struct FastPipeCompleteInput {
    uint64_t key;
    uint32_t error;
    uint32_t zero;
    uint64_t consumed; // bytes of the client's write taken
    uint64_t placed;   // bytes written to the client's output buffer
    uint64_t output;   // that buffer's address
};
static_assert(sizeof(FastPipeCompleteInput) == 40);

class FastPipe {
public:
    // An object holding no handle, with one reference; null when memory is short.
    static FastPipe* create();
    void add_ref();
    void release();

    // Takes a duplicate of `handle` when it identifies itself as a fast pipe. 183 when this
    // object already holds one or `handle` is none, 1305 when the handle is something else,
    // the identity call's error when it fails.
    uint32_t open(HANDLE handle);

    // Clears a descriptor for its first receive; frees the receive buffer it owns.
    static void descriptor_init(FastPipeDescriptor* descriptor);
    static void descriptor_free(FastPipeDescriptor* descriptor);

    // Waits for the next client transfer and describes it in `descriptor`. The client's bytes
    // land in the descriptor's receive buffer, which is made as large as the driver asks for.
    // 14 when that buffer cannot be had, else 0 or the driver's error.
    uint32_t receive(FastPipeDescriptor* descriptor);

    // Ends a received transfer: the client gets `error` (0 for success), learns that `consumed`
    // bytes of its write were taken and `placed` bytes of its output buffer written. A
    // descriptor already completed is left alone.
    uint32_t complete(FastPipeDescriptor* descriptor, uint32_t error, uint64_t consumed,
                      uint64_t placed);

    // Makes pending and future receives fail, so that a receive loop ends.
    uint32_t cancel();

    // Transfers received and not yet completed.
    int64_t outstanding();

    // Fast pipe objects alive in the process: leak checks in tests.
    static long live_count();

private:
    FastPipe() = default;
    ~FastPipe();

    Hold hold_; // the reference count and the outstanding count
    uint32_t refs_ = 1;
    int64_t outstanding_ = 0;
    HANDLE handle_ = nullptr;
};

} // namespace zun
