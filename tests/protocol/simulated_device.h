// A fast pipe device played in-process: the driver's side of the fast pipe, for tests and
// benchmarks.
//
// The device sits behind a real handle (an event, so that it can be duplicated and closed like
// any handle) and answers the library's device calls on it and on its duplicates through the
// device control hook. It behaves as the transport expects of the driver:
// - the client's transfers wait in a queue until the server receives them; a receive blocks
//   while the queue is empty;
// - the client's written bytes are copied into the server's receive buffer, and a buffer that
//   is too small (or none) is answered with a null data address and the size needed, keeping
//   the transfer for the next call;
// - the client's output buffers stay the client's: the server is given their addresses and
//   writes into them directly;
// - a completion names its transfer by key and says what was consumed and placed; the device
//   records it and wakes the client;
// - cancel makes pending and future receives fail, as does the client hanging up.
//
// The test plays the client: it submits transfers, waits for their completion and inspects
// what the server did with them.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace zun::test {

// The error receives fail with once the device is cancelled or the client has gone.
constexpr uint32_t kDeviceClosedError = 109;

struct SimTransfer {
    uint64_t type = 2;           // 1 read, 2 write, 3 write with direct result
    std::vector<uint8_t> data;   // what the client writes (types 2 and 3)
    std::vector<uint8_t> output; // the client's result buffer; its size is the output size
    // Filled in by the device.
    uint64_t key = 0;
    const uint8_t* data_given = nullptr; // where the server was given the client's bytes
    uint32_t receive_calls = 0;          // receive calls that answered with this transfer
    int completions = 0;
    uint32_t error = 0;
    uint64_t consumed = 0;
    uint64_t placed = 0;
    uint64_t output_named = 0; // the output address the completion named

    bool completed() const { return completions > 0; }
    // The bytes the server placed in the output buffer.
    std::vector<uint8_t> result() const {
        size_t n = placed < output.size() ? static_cast<size_t>(placed) : output.size();
        return std::vector<uint8_t>(output.begin(), output.begin() + n);
    }
};

class SimulatedDevice {
public:
    SimulatedDevice();
    ~SimulatedDevice();
    SimulatedDevice(const SimulatedDevice&) = delete;
    SimulatedDevice& operator=(const SimulatedDevice&) = delete;

    // The handle to serve: the read handle of Serve.
    HANDLE handle() const { return handle_; }

    // What the identity call answers; a null type name makes the call fail like that of a
    // handle that is no device of ours.
    void set_identity(int32_t version, int32_t incompatible_version, const char* type_name);

    // ----- the client's side
    // Queues a transfer; it must stay alive until it is completed or the device is gone.
    void submit(SimTransfer* transfer);
    // Transfers owned by the device, for tests that do not keep their own.
    SimTransfer* write(const std::vector<uint8_t>& bytes, uint64_t type = 2,
                       size_t output_size = 0);
    SimTransfer* read(size_t output_size);
    // Waits until the transfer is completed; false when the time ran out.
    bool wait(SimTransfer* transfer, uint32_t timeout_ms = 5000);
    // The client goes away: receives fail from now on.
    void hang_up();
    // The next `count` receive calls fail with `error` before looking at the queue.
    void fail_receives(uint32_t error, int count);

    // ----- what the server did
    int cancels() const { return cancels_.load(); }
    uint64_t receive_calls() const { return receive_calls_.load(); }
    // Completions that named no outstanding transfer, or consumed or placed more than it had.
    int bad_completions() const { return bad_completions_.load(); }
    // Transfers handed to the server and not completed.
    size_t outstanding();
    // Duplicates of the handle the library holds open.
    int open_duplicates() const { return duplicates_.load(); }

    // The device's side of a device call (through the hook).
    uint32_t control(uint32_t code, const void* input, size_t input_size, void* output,
                     size_t output_size, size_t* returned);
    void duplicate_opened() { ++duplicates_; }
    void duplicate_closed() { --duplicates_; }

private:
    uint32_t receive(const void* input, size_t input_size, void* output, size_t output_size,
                     size_t* returned);
    uint32_t complete(const void* input, size_t input_size);

    HANDLE handle_;
    int32_t identity_version_ = 1;
    int32_t identity_incompatible_ = 0;
    std::string identity_name_ = "KestiFastPipe";
    bool identity_answers_ = true;

    SRWLOCK lock_ = SRWLOCK_INIT;
    CONDITION_VARIABLE arrived_ = CONDITION_VARIABLE_INIT; // a transfer, a cancel, a hang-up
    CONDITION_VARIABLE done_ = CONDITION_VARIABLE_INIT;    // a completion
    int receivers_waiting_ = 0;
    int clients_waiting_ = 0;
    std::deque<SimTransfer*> queue_;
    std::unordered_map<uint64_t, SimTransfer*> handed_out_;
    uint64_t next_key_ = 0x1000;
    bool cancelled_ = false;
    bool hung_up_ = false;
    uint32_t fail_error_ = 0;
    int fail_count_ = 0;
    std::vector<std::unique_ptr<SimTransfer>> owned_;

    std::atomic<int> cancels_{0};
    std::atomic<uint64_t> receive_calls_{0};
    std::atomic<int> bad_completions_{0};
    std::atomic<int> duplicates_{0};
};

} // namespace zun::test
