#include "simulated_device.h"

#include <string.h>

#include "base/device_control.h"
#include "mount/control_codes.h"
#include "mount/device_identity.h"
#include "protocol/fast_pipe.h"

namespace zun::test {

namespace {

struct Exclusive {
    SRWLOCK* lock;
    explicit Exclusive(SRWLOCK* l) : lock(l) { AcquireSRWLockExclusive(lock); }
    ~Exclusive() { ReleaseSRWLockExclusive(lock); }
};

// Knows every simulated device by the values of its handles, duplicates included, and answers
// the library's calls on them. Installed once, for the life of the process.
struct Registry final : DeviceHook {
    SRWLOCK lock = SRWLOCK_INIT;
    std::unordered_map<HANDLE, SimulatedDevice*> devices;

    static Registry& get() {
        static Registry* registry = [] {
            auto* r = new Registry;
            device_hook_set(r);
            return r;
        }();
        return *registry;
    }
    SimulatedDevice* find(HANDLE handle) {
        auto it = devices.find(handle);
        return it == devices.end() ? nullptr : it->second;
    }
    bool control(HANDLE handle, uint32_t code, const void* input, size_t input_size, void* output,
                 size_t output_size, size_t* returned, uint32_t* error) override {
        AcquireSRWLockShared(&lock);
        SimulatedDevice* device = find(handle);
        ReleaseSRWLockShared(&lock);
        if (device)
            *error = device->control(code, input, input_size, output, output_size, returned);
        return device != nullptr;
    }
    void duplicated(HANDLE original, HANDLE copy) override {
        Exclusive guard(&lock);
        if (SimulatedDevice* device = find(original)) ++device->duplicates, devices[copy] = device;
    }
    void closing(HANDLE handle) override {
        Exclusive guard(&lock);
        if (SimulatedDevice* device = find(handle)) --device->duplicates, devices.erase(handle);
    }
};

uint64_t address_of(const void* p) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p));
}

} // namespace

SimulatedDevice::SimulatedDevice() : handle_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    Exclusive guard(&Registry::get().lock);
    Registry::get().devices[handle_] = this;
}

SimulatedDevice::~SimulatedDevice() {
    Registry& registry = Registry::get();
    {
        Exclusive guard(&registry.lock);
        std::erase_if(registry.devices, [&](const auto& entry) { return entry.second == this; });
    }
    CloseHandle(handle_);
}

void SimulatedDevice::submit(SimTransfer* t) {
    Exclusive guard(&lock_);
    t->key = t->completions = t->receive_calls = 0;
    t->data_given = nullptr;
    queue_.push_back(t);
    if (receivers_waiting_) WakeConditionVariable(&arrived_);
}

SimTransfer* SimulatedDevice::write(const std::vector<uint8_t>& bytes, uint64_t type,
                                    size_t output_size) {
    SimTransfer* t = new SimTransfer{type, bytes, std::vector<uint8_t>(output_size, 0xCC)};
    {
        Exclusive guard(&lock_);
        owned_.emplace_back(t);
    }
    submit(t);
    return t;
}

bool SimulatedDevice::wait(SimTransfer* t, uint32_t timeout_ms) {
    ULONGLONG deadline = GetTickCount64() + timeout_ms;
    Exclusive guard(&lock_);
    while (!t->completed()) {
        ULONGLONG now = GetTickCount64();
        if (now >= deadline) return false;
        ++clients_waiting_;
        SleepConditionVariableSRW(&done_, &lock_, static_cast<DWORD>(deadline - now), 0);
        --clients_waiting_;
    }
    return true;
}

void SimulatedDevice::fail_receives(uint32_t error, int count) {
    Exclusive guard(&lock_);
    fail_error_ = error;
    fail_count_ = count;
    WakeAllConditionVariable(&arrived_);
}

size_t SimulatedDevice::outstanding() {
    Exclusive guard(&lock_);
    return handed_out_.size();
}

uint32_t SimulatedDevice::control(uint32_t code, const void* input, size_t input_size, void* output,
                                  size_t output_size, size_t* returned) {
    *returned = 0;
    if (code == control_code_neither(kFastPipeReceiveFunction))
        return receive(input, input_size, output, output_size, returned);
    if (code == control_code_neither(kFastPipeCompleteFunction)) return complete(input, input_size);
    Exclusive guard(&lock_);
    if (code == control_code(kFastPipeCancelFunction)) {
        ++cancels;
        cancelled_ = true;
        WakeAllConditionVariable(&arrived_);
        return 0;
    }
    if (code != file_control_code(kIdentityFunction) || !identity_name)
        return ERROR_INVALID_FUNCTION;
    if (output_size < sizeof(DeviceIdentity)) return ERROR_INSUFFICIENT_BUFFER;
    DeviceIdentity identity{};
    identity.version = identity_version;
    identity.incompatible_version = identity_incompatible;
    strncpy(identity.type_name, identity_name, sizeof identity.type_name - 1);
    memcpy(output, &identity, *returned = sizeof identity);
    return 0;
}

uint32_t SimulatedDevice::receive(const void* input, size_t input_size, void* output,
                                  size_t output_size, size_t* returned) {
    if (input_size != sizeof(FastPipeReceiveInput) || output_size < sizeof(FastPipeReceiveRecord))
        return ERROR_INVALID_PARAMETER;
    FastPipeReceiveInput in;
    memcpy(&in, input, sizeof in);
    auto* buffer = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(in.buffer));

    Exclusive guard(&lock_);
    while (queue_.empty() && !cancelled_ && !fail_count_) {
        ++receivers_waiting_;
        SleepConditionVariableSRW(&arrived_, &lock_, INFINITE, 0);
        --receivers_waiting_;
    }
    if (fail_count_) return --fail_count_, fail_error_;
    if (cancelled_) return kDeviceClosedError;

    SimTransfer* t = queue_.front();
    ++t->receive_calls;
    FastPipeReceiveRecord record{};
    record.data_size = t->type == kTransferRead ? 0 : t->data.size();
    // A buffer too small: say how much is needed and keep the transfer for the next call.
    if (record.data_size <= in.buffer_size && (!record.data_size || buffer)) {
        queue_.pop_front();
        if (record.data_size) {
            memcpy(buffer, t->data.data(), t->data.size());
            t->data_given = buffer;
            record.data = address_of(buffer);
        }
        handed_out_[t->key = next_key_++] = t;
        record.word0 = t->key * 3;
        record.word1 = 0x5157;
        record.key = t->key;
        record.transfer_type = t->type;
        record.output_size = t->output.size();
        record.output = t->output.empty() ? 0 : address_of(t->output.data());
    }
    memcpy(output, &record, *returned = sizeof record);
    return 0;
}

uint32_t SimulatedDevice::complete(const void* input, size_t input_size) {
    if (input_size != sizeof(FastPipeCompleteInput)) return ERROR_INVALID_PARAMETER;
    FastPipeCompleteInput in;
    memcpy(&in, input, sizeof in);
    Exclusive guard(&lock_);
    auto it = handed_out_.find(in.key);
    if (it == handed_out_.end()) return ++bad_completions, ERROR_INVALID_PARAMETER;
    SimTransfer* t = it->second;
    handed_out_.erase(it);
    size_t data_size = t->type == kTransferRead ? 0 : t->data.size();
    if (in.consumed > data_size || in.placed > t->output.size() || in.zero != 0) ++bad_completions;
    t->error = in.error;
    t->consumed = in.consumed;
    t->placed = in.placed;
    ++t->completions;
    if (clients_waiting_) WakeAllConditionVariable(&done_);
    return 0;
}

} // namespace zun::test
