// Request objects: one per received message, built in place in its request context.
//
// A request object presents the formatter-facing interface of its operation (OpenRequest,
// ReadRequest, ...) first, so that the pointer handed to the formatter is the object itself,
// and behind it the marshaller's internal interface, RequestObject. Its constructor decodes and
// validates the message, prepares the reply storage and prints the request's trace block; its
// Complete builds the reply and hands the request to the marshaller's completion.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <zun/requests.h>

namespace zun {

class MarshallerObject;
struct RequestContext;

class RequestObject {
public:
    RequestObject(const RequestObject&) = delete;
    RequestObject& operator=(const RequestObject&) = delete;

    // The internal interface, in this order: destroy; finish (under the marshaller lock, for a
    // successful request: store what had to wait for the sequence hook and print the success
    // block); start (hand the request to the formatter).
    virtual ~RequestObject() = default;
    virtual void finish_locked(bool trace) {}
    virtual void start(FormatterRequestHandler* handler, FormatterScratch* scratch) = 0;

    RequestContext* const context;
    const uint32_t id;
    // The result of decoding until the request is started; then the result it completed with.
    ProtocolError error = ProtocolError::Invalid;
    // The reply to send: built by Complete on success, else the header reply below.
    const uint8_t* reply = nullptr;
    size_t reply_length = 0;
    uint8_t header_reply[8];

protected:
    RequestObject(RequestContext* context, uint32_t id) : context(context), id(id) {}
    MarshallerObject& marshaller() const;
    // Whether the reply goes straight into the client's output buffer: a fast pipe write with
    // direct result that wants a reply (with request id 0 nothing is placed, and the request
    // runs as on any transport).
    bool direct_result() const;
    // Passes the request to the marshaller's completion. The object may be gone on return.
    void complete(ProtocolError error);
};

// Builds the request object for a message in the context: decodes and validates it, and prints
// its request block. A message that would have to outlive the buffer it arrived in (names are
// kept as the client sent them) is copied into the context unless `message_is_stable`. Never
// fails: what cannot be decoded becomes a request object that completes with its error.
RequestObject* request_build(RequestContext* context, const uint8_t* message, uint32_t size,
                             bool message_is_stable);

// A request object that completes with `error` without decoding anything.
RequestObject* request_build_failed(RequestContext* context, uint32_t id, ProtocolError error);

} // namespace zun
