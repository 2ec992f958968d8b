#include "protocol/fast_pipe.h"

#include <atomic>
#include <new>
#include <stdlib.h>
#include <string.h>

#include "base/device_control.h"
#include "mount/control_codes.h"
#include "mount/device_identity.h"

namespace zun {

namespace {

std::atomic<long> g_live{0};

constexpr uint32_t kErrorAlreadyExists = 183;
constexpr uint32_t kErrorNotEnoughMemory = 14;

// The driver's receive may be broken off without anything being wrong: the serving thread's
// I/O cancelled by a debugger or by the system, the call interrupted for a user APC. It is
// simply made again.
bool is_interruption(uint32_t error) {
    return error == ERROR_OPERATION_ABORTED || error == ERROR_CANCELLED;
}

uint8_t* as_pointer(uint64_t address) {
    return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(address));
}

uint64_t as_address(const void* pointer) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer));
}

} // namespace

FastPipe* FastPipe::create() {
    void* block = malloc(sizeof(FastPipe));
    if (!block) return nullptr;
    g_live.fetch_add(1, std::memory_order_relaxed);
    return new (block) FastPipe();
}

FastPipe::~FastPipe() {
    device_close(handle_);
    g_live.fetch_sub(1, std::memory_order_relaxed);
}

long FastPipe::live_count() {
    return g_live.load(std::memory_order_relaxed);
}

void FastPipe::add_ref() {
    HoldGuard guard(&hold_);
    ++refs_;
}

void FastPipe::release() {
    uint32_t left;
    {
        HoldGuard guard(&hold_);
        left = --refs_;
    }
    if (left) return;
    this->~FastPipe();
    free(this);
}

uint32_t FastPipe::open(HANDLE handle) {
    if (handle_ || handle == nullptr || handle == INVALID_HANDLE_VALUE) return kErrorAlreadyExists;
    DeviceIdentity identity;
    if (uint32_t error = device_identity_query(handle, &identity)) return error;
    if (uint32_t error = device_identity_check_fast_pipe(identity)) return error;
    // The caller keeps its handle; ours lives as long as this object.
    return device_duplicate(handle, &handle_);
}

void FastPipe::descriptor_init(FastPipeDescriptor* descriptor) {
    memset(descriptor, 0, sizeof *descriptor);
}

void FastPipe::descriptor_free(FastPipeDescriptor* descriptor) {
    free(descriptor->receive_buffer);
    descriptor->receive_buffer = nullptr;
    descriptor->receive_buffer_size = 0;
}

uint32_t FastPipe::receive(FastPipeDescriptor* d) {
    for (;;) {
        FastPipeReceiveInput input{as_address(d->receive_buffer), d->receive_buffer_size};
        FastPipeReceiveRecord record{};
        uint32_t error = device_control(handle_, control_code_neither(kFastPipeReceiveFunction),
                                        &input, sizeof input, &record, sizeof record, nullptr);
        if (is_interruption(error)) continue;
        if (error) return error;
        if (!record.data && record.data_size) {
            // The client wrote more than the buffer holds (a fresh descriptor has none): the
            // driver said how much; it keeps the transfer for the next call.
            descriptor_free(d);
            d->receive_buffer =
                static_cast<uint8_t*>(malloc(static_cast<size_t>(record.data_size)));
            if (!d->receive_buffer) return kErrorNotEnoughMemory;
            d->receive_buffer_size = record.data_size;
            continue;
        }
        d->word0 = record.word0;
        d->word1 = record.word1;
        d->transfer_type = record.transfer_type;
        d->data = as_pointer(record.data);
        d->data_size = record.data_size;
        d->output = as_pointer(record.output);
        d->output_size = record.output_size;
        d->key = record.key;
        HoldGuard guard(&hold_);
        ++outstanding_;
        return 0;
    }
}

uint32_t FastPipe::complete(FastPipeDescriptor* d, uint32_t error, uint64_t consumed,
                            uint64_t placed) {
    if (!d->key) return 0;
    FastPipeCompleteInput input{d->key, error, 0, consumed, placed, as_address(d->output)};
    d->key = 0;
    uint32_t result = device_control(handle_, control_code_neither(kFastPipeCompleteFunction),
                                     &input, sizeof input, nullptr, 0, nullptr);
    HoldGuard guard(&hold_);
    --outstanding_;
    return result;
}

uint32_t FastPipe::cancel() {
    return device_control(handle_, control_code(kFastPipeCancelFunction), nullptr, 0, nullptr, 0,
                          nullptr);
}

int64_t FastPipe::outstanding() {
    HoldGuard guard(&hold_);
    return outstanding_;
}

} // namespace zun
