#include "simulated_device.h"

#include <string.h>

#include "base/device_control.h"
#include "mount/control_codes.h"
#include "mount/device_identity.h"
#include "protocol/fast_pipe.h"

namespace zun::test {

namespace {

// Knows every simulated device by the values of its handles, duplicates included, and answers
// the library's calls on them. Installed once, for the life of the process.
class DeviceRegistry final : public DeviceHook {
public:
    static DeviceRegistry& get() {
        static DeviceRegistry* registry = [] {
            auto* r = new DeviceRegistry;
            device_hook_set(r);
            return r;
        }();
        return *registry;
    }

    void add(HANDLE handle, SimulatedDevice* device) {
        AcquireSRWLockExclusive(&lock_);
        devices_[handle] = device;
        ReleaseSRWLockExclusive(&lock_);
    }
    void remove(SimulatedDevice* device) {
        AcquireSRWLockExclusive(&lock_);
        for (auto it = devices_.begin(); it != devices_.end();)
            it = it->second == device ? devices_.erase(it) : std::next(it);
        ReleaseSRWLockExclusive(&lock_);
    }

    bool control(HANDLE handle, uint32_t code, const void* input, size_t input_size, void* output,
                 size_t output_size, size_t* returned, uint32_t* error) override {
        SimulatedDevice* device = find(handle);
        if (!device) return false;
        *error = device->control(code, input, input_size, output, output_size, returned);
        return true;
    }
    void duplicated(HANDLE original, HANDLE copy) override {
        AcquireSRWLockExclusive(&lock_);
        auto it = devices_.find(original);
        if (it != devices_.end()) {
            devices_[copy] = it->second;
            it->second->duplicate_opened();
        }
        ReleaseSRWLockExclusive(&lock_);
    }
    void closing(HANDLE handle) override {
        AcquireSRWLockExclusive(&lock_);
        auto it = devices_.find(handle);
        if (it != devices_.end()) {
            it->second->duplicate_closed();
            devices_.erase(it);
        }
        ReleaseSRWLockExclusive(&lock_);
    }

private:
    SimulatedDevice* find(HANDLE handle) {
        AcquireSRWLockShared(&lock_);
        auto it = devices_.find(handle);
        SimulatedDevice* device = it == devices_.end() ? nullptr : it->second;
        ReleaseSRWLockShared(&lock_);
        return device;
    }

    SRWLOCK lock_ = SRWLOCK_INIT;
    std::unordered_map<HANDLE, SimulatedDevice*> devices_;
};

class Exclusive {
public:
    explicit Exclusive(SRWLOCK* lock) : lock_(lock) { AcquireSRWLockExclusive(lock_); }
    ~Exclusive() { ReleaseSRWLockExclusive(lock_); }
    Exclusive(const Exclusive&) = delete;
    Exclusive& operator=(const Exclusive&) = delete;

private:
    SRWLOCK* lock_;
};

uint64_t address_of(const void* p) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p));
}

} // namespace

SimulatedDevice::SimulatedDevice() {
    handle_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    DeviceRegistry::get().add(handle_, this);
}

SimulatedDevice::~SimulatedDevice() {
    DeviceRegistry::get().remove(this);
    CloseHandle(handle_);
}

void SimulatedDevice::set_identity(int32_t version, int32_t incompatible_version,
                                   const char* type_name) {
    Exclusive guard(&lock_);
    identity_version_ = version;
    identity_incompatible_ = incompatible_version;
    identity_answers_ = type_name != nullptr;
    identity_name_ = type_name ? type_name : "";
}

void SimulatedDevice::submit(SimTransfer* t) {
    Exclusive guard(&lock_);
    t->key = 0;
    t->completions = 0;
    t->receive_calls = 0;
    t->data_given = nullptr;
    queue_.push_back(t);
    if (receivers_waiting_) WakeConditionVariable(&arrived_);
}

SimTransfer* SimulatedDevice::write(const std::vector<uint8_t>& bytes, uint64_t type,
                                    size_t output_size) {
    auto t = std::make_unique<SimTransfer>();
    t->type = type;
    t->data = bytes;
    t->output.assign(output_size, 0xCC);
    SimTransfer* raw = t.get();
    {
        Exclusive guard(&lock_);
        owned_.push_back(std::move(t));
    }
    submit(raw);
    return raw;
}

SimTransfer* SimulatedDevice::read(size_t output_size) {
    return write({}, kTransferRead, output_size);
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

void SimulatedDevice::hang_up() {
    Exclusive guard(&lock_);
    hung_up_ = true;
    WakeAllConditionVariable(&arrived_);
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
    if (code == file_control_code(kIdentityFunction)) {
        Exclusive guard(&lock_);
        if (!identity_answers_) return ERROR_INVALID_FUNCTION;
        if (output_size < sizeof(DeviceIdentity)) return ERROR_INSUFFICIENT_BUFFER;
        DeviceIdentity identity{};
        identity.version = identity_version_;
        identity.incompatible_version = identity_incompatible_;
        strncpy(identity.type_name, identity_name_.c_str(), sizeof identity.type_name - 1);
        memcpy(output, &identity, sizeof identity);
        *returned = sizeof identity;
        return 0;
    }
    if (code == control_code_neither(kFastPipeReceiveFunction))
        return receive(input, input_size, output, output_size, returned);
    if (code == control_code_neither(kFastPipeCompleteFunction)) return complete(input, input_size);
    if (code == control_code(kFastPipeCancelFunction)) {
        Exclusive guard(&lock_);
        ++cancels_;
        cancelled_ = true;
        WakeAllConditionVariable(&arrived_);
        return 0;
    }
    return ERROR_INVALID_FUNCTION;
}

uint32_t SimulatedDevice::receive(const void* input, size_t input_size, void* output,
                                  size_t output_size, size_t* returned) {
    if (input_size != sizeof(FastPipeReceiveInput) || output_size < sizeof(FastPipeReceiveRecord))
        return ERROR_INVALID_PARAMETER;
    FastPipeReceiveInput in;
    memcpy(&in, input, sizeof in);
    auto* buffer = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(in.buffer));
    ++receive_calls_;

    Exclusive guard(&lock_);
    while (queue_.empty() && !cancelled_ && !hung_up_ && !fail_count_) {
        ++receivers_waiting_;
        SleepConditionVariableSRW(&arrived_, &lock_, INFINITE, 0);
        --receivers_waiting_;
    }
    if (fail_count_) {
        --fail_count_;
        return fail_error_;
    }
    if (cancelled_ || hung_up_) return kDeviceClosedError;

    SimTransfer* t = queue_.front();
    ++t->receive_calls;
    FastPipeReceiveRecord record{};
    record.data_size = t->type == kTransferRead ? 0 : t->data.size();
    if (record.data_size > in.buffer_size || (record.data_size && !buffer)) {
        // Too small: say how much is needed and keep the transfer for the next call.
        memcpy(output, &record, sizeof record);
        *returned = sizeof record;
        return 0;
    }
    queue_.pop_front();
    if (record.data_size) {
        memcpy(buffer, t->data.data(), t->data.size());
        t->data_given = buffer;
        record.data = address_of(buffer);
    }
    t->key = next_key_++;
    handed_out_[t->key] = t;
    record.word0 = t->key * 3;
    record.word1 = 0x5157;
    record.key = t->key;
    record.transfer_type = t->type;
    record.output_size = t->output.size();
    record.output = t->output.empty() ? 0 : address_of(t->output.data());
    memcpy(output, &record, sizeof record);
    *returned = sizeof record;
    return 0;
}

uint32_t SimulatedDevice::complete(const void* input, size_t input_size) {
    if (input_size != sizeof(FastPipeCompleteInput)) return ERROR_INVALID_PARAMETER;
    FastPipeCompleteInput in;
    memcpy(&in, input, sizeof in);
    Exclusive guard(&lock_);
    auto it = handed_out_.find(in.key);
    if (it == handed_out_.end()) {
        ++bad_completions_;
        return ERROR_INVALID_PARAMETER;
    }
    SimTransfer* t = it->second;
    handed_out_.erase(it);
    size_t data_size = t->type == kTransferRead ? 0 : t->data.size();
    if (in.consumed > data_size || in.placed > t->output.size() || in.zero != 0) ++bad_completions_;
    t->error = in.error;
    t->consumed = in.consumed;
    t->placed = in.placed;
    t->output_named = in.output;
    ++t->completions;
    if (clients_waiting_) WakeAllConditionVariable(&done_);
    return 0;
}

} // namespace zun::test
