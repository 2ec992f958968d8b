// The byte-stream transport: requests and replies back to back on any pair of handles (an
// anonymous or named pipe, a socket).
//
// The serving thread writes the server's ready line, waits for the client's, starts the reply
// writer thread and runs the receive loop until the client disconnects, the stream fails or
// serving is cancelled. Both directions move as many messages per system call as are at hand:
// the reader takes whatever the stream has into its receive buffer and carves the messages out
// of it, and the writer sends every reply queued at the moment with one write. Only large
// writes are read differently: their data go straight to a block of their own, at an address
// aligned like their file offset.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "base/sync.h"

namespace zun {

class MarshallerObject;
struct RequestContext;

// The ready lines: 24 characters, no NUL.
constexpr char kServerReadyLine[] = "+(fspServerReady:..:..)\n";
constexpr char kClientReadyLine[] = "+(fspClientReady:..:..)\n";
constexpr size_t kReadyLineLength = 24;
static_assert(sizeof kServerReadyLine == kReadyLineLength + 1);
static_assert(sizeof kClientReadyLine == kReadyLineLength + 1);

// The receive buffer holds the largest request a stream carries, write requests excepted.
constexpr size_t kStreamReceiveBufferSize = 294912;

// Polling period of the receive loop while requests are in flight.
constexpr uint32_t kStreamBusyReadTimeout = 5000;

class StreamTransport {
public:
    explicit StreamTransport(MarshallerObject* marshaller) : m_(marshaller) {}
    ~StreamTransport();
    StreamTransport(const StreamTransport&) = delete;
    StreamTransport& operator=(const StreamTransport&) = delete;

    // Sends the server's ready line. A failure is the write error; serving goes on.
    void write_ready_line();

    // Handshake, writer thread, receive loop. Returns the error that ended serving, 0 when the
    // client disconnected.
    uint32_t run();

    // Waits until the writer thread (if one was started) has let go of the write handle and of
    // every reply. Serving must have been cancelled first.
    void join_writer();

    // Writer threads of any marshaller still running: leak checks in tests.
    static long writer_live_count();

private:
    uint32_t handshake();
    uint32_t start_writer();
    uint32_t receive_loop();
    uint32_t receive_write(RequestContext* context, uint32_t size);

    // One read of whatever the stream has, up to `length` bytes, as the receive loop waits:
    // polling while requests are in flight, the idle read time-out while none is.
    uint32_t read_some(uint8_t* at, size_t length, size_t* count);
    // Until `length` bytes have arrived at `at`, bypassing the receive buffer.
    uint32_t read_exact(uint8_t* at, size_t length);
    // Until the receive buffer holds `length` bytes from begin_.
    uint32_t fill(size_t length);
    // Drops `length` bytes of the stream, buffered ones first.
    uint32_t discard(size_t length);
    void consume(size_t length);
    size_t buffered() const { return end_ - begin_; }

    MarshallerObject* m_;
    uint8_t* buffer_ = nullptr;
    size_t begin_ = 0; // unread bytes are buffer_[begin_, end_)
    size_t end_ = 0;
    uint8_t read_kind_ = 0;
    uint8_t write_kind_ = 0;
    bool writer_started_ = false;
    Pin writer_done_;
};

} // namespace zun
