// The driver's side of a fast pipe, played in-process for tests and benchmarks. The device sits
// behind a real handle (an event, so that it can be duplicated and closed like any handle) and
// answers the library's device calls on it through the device control hook:
// - the client's transfers wait in a queue until the server receives them;
// - the client's bytes are copied into the server's receive buffer; a buffer too small (or none)
//   is answered with a null data address and the size needed, keeping the transfer queued;
// - the client's output buffers stay the client's: the server writes into them directly;
// - a completion names its transfer by key and says what was consumed and placed;
// - cancel makes pending and future receives fail with 109.
#pragma once

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

namespace zun::test {

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
    uint64_t consumed = 0, placed = 0;

    bool completed() const { return completions > 0; }
    // The bytes the server placed in the output buffer.
    std::vector<uint8_t> result() const {
        return {output.begin(), output.begin() + std::min<size_t>(placed, output.size())};
    }
};

class SimulatedDevice {
public:
    SimulatedDevice();
    ~SimulatedDevice();
    SimulatedDevice(const SimulatedDevice&) = delete;

    // The handle to serve: the read handle of Serve.
    HANDLE handle() const { return handle_; }
    // What the identity call answers (set before the library asks); with no type name it fails
    // like that of a handle that is no device of ours.
    int32_t identity_version = 1, identity_incompatible = 0;
    const char* identity_name = "KestiFastPipe";

    // The client's side. A submitted transfer must stay alive until it is completed or the
    // device is gone; write and read make transfers the device owns.
    void submit(SimTransfer* transfer);
    SimTransfer* write(const std::vector<uint8_t>& bytes, uint64_t type = 2,
                       size_t output_size = 0);
    SimTransfer* read(size_t output_size) { return write({}, 1, output_size); }
    // Waits until the transfer is completed; false when the time ran out.
    bool wait(SimTransfer* transfer, uint32_t timeout_ms = 5000);
    // The next `count` receive calls fail with `error` before looking at the queue.
    void fail_receives(uint32_t error, int count);

    // What the server did.
    std::atomic<int> cancels{0};
    // Completions that named no outstanding transfer, or consumed or placed more than it had.
    std::atomic<int> bad_completions{0};
    // Duplicates of the handle the library holds open.
    std::atomic<int> duplicates{0};
    // Transfers handed to the server and not completed.
    size_t outstanding();

    // Through the hook.
    uint32_t control(uint32_t code, const void* input, size_t input_size, void* output,
                     size_t output_size, size_t* returned);

private:
    uint32_t receive(const void* input, size_t input_size, void* output, size_t output_size,
                     size_t* returned);
    uint32_t complete(const void* input, size_t input_size);

    HANDLE handle_;

    SRWLOCK lock_ = SRWLOCK_INIT;
    CONDITION_VARIABLE arrived_ = CONDITION_VARIABLE_INIT; // a transfer, a cancel, a failure
    CONDITION_VARIABLE done_ = CONDITION_VARIABLE_INIT;    // a completion
    int receivers_waiting_ = 0, clients_waiting_ = 0;
    std::deque<SimTransfer*> queue_;
    std::unordered_map<uint64_t, SimTransfer*> handed_out_;
    uint64_t next_key_ = 0x1000;
    bool cancelled_ = false;
    uint32_t fail_error_ = 0;
    int fail_count_ = 0;
    std::vector<std::unique_ptr<SimTransfer>> owned_;
};

} // namespace zun::test
