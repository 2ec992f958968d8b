// A kernel handle with one owner: closed when the owner goes away.
#pragma once

#include <utility>

#include <windows.h>

// Both null and INVALID_HANDLE_VALUE mean "no handle": Win32 uses either, depending on the call.
inline bool handle_is_valid(HANDLE handle) {
    return handle != nullptr && handle != INVALID_HANDLE_VALUE;
}

class OwnedHandle {
public:
    OwnedHandle() = default;
    explicit OwnedHandle(HANDLE handle) : handle_(handle) {}
    ~OwnedHandle() { reset(); }
    OwnedHandle(OwnedHandle&& other) noexcept : handle_(other.release()) {}
    OwnedHandle& operator=(OwnedHandle&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    OwnedHandle(const OwnedHandle&) = delete;
    OwnedHandle& operator=(const OwnedHandle&) = delete;

    HANDLE get() const { return handle_; }
    bool valid() const { return handle_is_valid(handle_); }

    // Gives the handle up without closing it.
    HANDLE release() { return std::exchange(handle_, INVALID_HANDLE_VALUE); }

    void reset(HANDLE handle = INVALID_HANDLE_VALUE) {
        HANDLE old = std::exchange(handle_, handle);
        if (handle_is_valid(old)) CloseHandle(old);
    }

    // For calls that return a handle through a pointer: the current handle is closed first.
    HANDLE* out() {
        reset();
        return &handle_;
    }

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};
