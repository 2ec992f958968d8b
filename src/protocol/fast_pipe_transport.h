// The fast pipe transport: the serving thread's receive loop on the driver's fast pipe, and the
// cancel that ends it.
//
// Every transfer arrives in a fresh request context, whose descriptor the fast pipe object
// fills. Writes carry one request message each and are dispatched in place: the message, its
// names and its write data stay in the descriptor's receive buffer until the request is freed,
// so nothing is copied on the way to the formatter. Reads wait as the marshaller's pending read
// until replies are queued (MarshallerObject::fast_pipe_read_arrived).
//
// The driver is told to cancel exactly once per serve: by the cancel signal's callback when
// ServeCancel fires it, else when serving ends (finish).
#pragma once

#include <stdint.h>

#include <windows.h>

#include "base/sync.h"

namespace zun {

class MarshallerObject;
class FastPipe;
struct RequestContext;

class FastPipeTransport {
public:
    explicit FastPipeTransport(MarshallerObject* marshaller) : m_(marshaller) {}
    FastPipeTransport(const FastPipeTransport&) = delete;
    FastPipeTransport& operator=(const FastPipeTransport&) = delete;

    // Asks the read handle whether it is a fast pipe. When it is, returns the fast pipe object
    // (one reference, for the marshaller to keep) and watches the marshaller's cancel signal;
    // otherwise returns null and the serve is a byte stream.
    FastPipe* open(HANDLE read_handle);

    // The receive loop. Returns the error that ended it, 0 when the client disconnected.
    uint32_t run();

    // After serving: makes sure the driver's cancel has been issued, once, and that the cancel
    // callback no longer runs.
    void finish();

private:
    static void cancel_fired(WaiterEntry* entry);
    void issue_cancel();
    // Ends serving on a transfer that breaks the protocol: completes it with 11, taking
    // nothing, and frees its context.
    uint32_t protocol_error(RequestContext* context, const wchar_t* message);

    // First, so that the callback finds the transport from its entry.
    WaiterEntry cancel_entry_;
    MarshallerObject* m_;
    FastPipe* pipe_ = nullptr;
    bool handshake_ = false;
};

} // namespace zun
