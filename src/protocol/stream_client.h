// The client end of the byte-stream transport: what the driver's place takes when a program
// talks to a marshaller over a pair of pipe handles (tests, the demo, benchmarks).
//
// It exchanges the ready lines, sends request messages as they are and splits what comes back
// into reply messages. Messages are built and read with protocol_client.h.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <windows.h>

namespace zun::client {

class StreamClient {
public:
    // The handles stay the caller's.
    StreamClient(HANDLE read_handle, HANDLE write_handle);
    ~StreamClient();
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    // Waits for the server's ready line, which must come first on the stream (11 otherwise),
    // and sends the client's.
    uint32_t connect(uint32_t timeout_ms);
    // Only the second half of connect: waits for the server's ready line.
    uint32_t wait_ready(uint32_t timeout_ms);

    // Sends bytes as they are: one message, several, or a part of one.
    uint32_t send(const void* data, size_t length);

    // Waits for the next reply. *reply points into the client's buffer and stays valid until
    // the next call; *length is the reply's size word. 121 when nothing complete arrived in
    // time, 109 when the stream ended, 11 when the bytes are not a reply.
    uint32_t receive(const uint8_t** reply, size_t* length, uint32_t timeout_ms);

    // Read calls made so far: the transport's cost in system calls.
    uint64_t read_calls() const { return read_calls_; }

private:
    uint32_t read_more(size_t wanted, uint32_t timeout_ms);

    HANDLE read_;
    HANDLE write_;
    uint8_t read_kind_ = 0;
    uint8_t write_kind_ = 0;
    uint8_t* buffer_ = nullptr;
    size_t capacity_ = 0;
    size_t begin_ = 0;
    size_t end_ = 0;
    uint64_t read_calls_ = 0;
};

} // namespace zun::client
