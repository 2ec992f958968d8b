// A marshaller serving on a thread of its own over two private pipes, with the test as the
// client; and a formatter whose operations are set per test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "base/pipe.h"
#include "hex.h"
#include "protocol/marshaller_object.h"
#include "protocol/protocol_client.h"
#include "protocol/request_context.h"
#include "protocol/stream_client.h"
#include "protocol/stream_transport.h"
#include "simulated_device.h"

namespace zun::test {

// Waits until `condition()` holds or `timeout_ms` has passed; returns the last value.
template <class Condition> bool wait_until(Condition condition, int timeout_ms = 10000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A pipe with a buffer, so that a write does not wait for its reader. (Under Wine a pipe made
// without one hands every write over to a read.)
inline void buffered_pipe(HANDLE* read, HANDLE* write) {
    ASSERT_TRUE(CreatePipe(read, write, nullptr, 1 << 16));
}

// Each operation runs the function set for it; an operation without one fails the test and
// completes with NotImplemented.
struct TestFormatter : FormatterRequestHandler {
    std::function<void(OpenRequest*)> open;
    std::function<void(ReplaceRequest*)> replace;
    std::function<void(MoveRequest*)> move;
    std::function<void(MoveReplaceRequest*)> move_replace;
    std::function<void(DeleteRequest*)> remove;
    std::function<void(CloseRequest*)> close, list_end, set_size;
    std::function<void(FlushRequest*)> flush;
    std::function<void(ListRequest*)> list;
    std::function<void(ReadRequest*)> read;
    std::function<void(WriteRequest*)> write;
    std::function<void(CapacityRequest*)> capacity;
    std::function<void(FlushMediaRequest*)> flush_media;
    std::function<void(ControlRequest*)> control;
    std::function<void(MediaInfoRequest*)> media_info;
    std::function<void(AccessRequest*)> access;
    std::atomic<int> calls{0};

    template <class F, class R> void run(F& f, R* r) {
        ++calls;
        if (f) return f(r);
        ADD_FAILURE() << "unexpected formatter call";
    }
    void Open(OpenRequest* r, FormatterScratch*) override { run(open, r); }
    void Replace(ReplaceRequest* r, FormatterScratch*) override { run(replace, r); }
    void Move(MoveRequest* r, FormatterScratch*) override { run(move, r); }
    void MoveReplace(MoveReplaceRequest* r, FormatterScratch*) override { run(move_replace, r); }
    void Delete(DeleteRequest* r, FormatterScratch*) override { run(remove, r); }
    void Close(CloseRequest* r, FormatterScratch*) override { run(close, r); }
    void Flush(FlushRequest* r, FormatterScratch*) override { run(flush, r); }
    void List(ListRequest* r, FormatterScratch*) override { run(list, r); }
    void ListEnd(CloseRequest* r, FormatterScratch*) override { run(list_end, r); }
    void Read(ReadRequest* r, FormatterScratch*) override { run(read, r); }
    void Write(WriteRequest* r, FormatterScratch*) override { run(write, r); }
    void SetSize(CloseRequest* r, FormatterScratch*) override { run(set_size, r); }
    void Capacity(CapacityRequest* r, FormatterScratch*) override { run(capacity, r); }
    void FlushMedia(FlushMediaRequest* r, FormatterScratch*) override { run(flush_media, r); }
    void Control(ControlRequest* r, FormatterScratch*) override { run(control, r); }
    void MediaInfo(MediaInfoRequest* r, FormatterScratch*) override { run(media_info, r); }
    void Access(AccessRequest* r, FormatterScratch*) override { run(access, r); }
};

struct ServeOptions {
    uint32_t version = 6;
    uintptr_t data_align = 1;
    const char* formatter_name = "testfs";
    uintptr_t volume_flags = 0x21;
    uintptr_t version_word = 0x1000000;
    bool status = true;      // collect the marshaller's text output
    bool unbuffered = false; // the runtime's private pipes instead of buffered ones
    // Serve this device's fast pipe instead of the request pipe; the server's ready line still
    // comes through the reply pipe.
    SimulatedDevice* device = nullptr;
    // How to serve, when not by Serve with the parameters (the flat serve operations).
    std::function<uint32_t(MarshallerObject*, const ServeParams&)> serve;
};

class ServeHarness {
public:
    explicit ServeHarness(FormatterRequestHandler* handler, ServeOptions options = {})
        : options_(options) {
        if (options.unbuffered) {
            EXPECT_EQ(0u, pipe_create(false, false, &server_read_, &client_write_));
            EXPECT_EQ(0u, pipe_create(false, false, &client_read_, &server_write_));
        } else {
            buffered_pipe(&server_read_, &client_write_);
            buffered_pipe(&client_read_, &server_write_);
        }
        marshaller = MarshallerObject::create(options.version);
        if (options.status) {
            buffered_pipe(&status_read_, &status_write_);
            marshaller->SetStatusHandle(status_write_);
            status_thread_ = std::thread([this] {
                char buffer[4096];
                DWORD got;
                while (ReadFile(status_read_, buffer, sizeof buffer, &got, nullptr) && got) {
                    std::lock_guard<std::mutex> lock(status_mutex_);
                    status_.append(buffer, got);
                }
            });
        }
        params_ = ServeParams{8,
                              handler,
                              options.volume_flags,
                              options.formatter_name,
                              options.data_align,
                              options.version_word,
                              options.device ? options.device->handle() : server_read_,
                              server_write_};
        done_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        serve_thread_ = std::thread([this] {
            result_ =
                options_.serve ? options_.serve(marshaller, params_) : marshaller->Serve(&params_);
            SetEvent(done_);
        });
        client = std::make_unique<client::StreamClient>(client_read_, client_write_);
    }

    ~ServeHarness() {
        if (!finished()) {
            marshaller->ServeCancel();
            wait_served();
        }
        close(client_write_);
        close(client_read_);
        serve_thread_.join();
        close(server_read_);
        close(server_write_);
        marshaller->Release();
        close(status_write_);
        if (status_thread_.joinable()) status_thread_.join();
        close(status_read_);
        CloseHandle(done_);
    }

    bool connect() { return client->connect(5000) == 0; }

    void send(const std::vector<uint8_t>& message) {
        ASSERT_EQ(0u, client->send(message.data(), message.size()));
    }

    // The next reply as bytes; empty when none came in time.
    std::vector<uint8_t> receive(uint32_t timeout_ms = 5000) {
        const uint8_t* reply;
        size_t length;
        if (client->receive(&reply, &length, timeout_ms) != 0) return {};
        return std::vector<uint8_t>(reply, reply + length);
    }

    std::vector<uint8_t> transact(const std::vector<uint8_t>& message) {
        send(message);
        return receive();
    }

    // The client goes away: the server's next read meets the end of the pipe.
    void hang_up() { close(client_write_); }

    bool finished() { return WaitForSingleObject(done_, 0) == WAIT_OBJECT_0; }

    // The serve's result once it has returned. A serve that does not end in time fails the
    // test and ends the process rather than hang the run.
    uint32_t wait_served(uint32_t timeout_ms = 10000) {
        if (WaitForSingleObject(done_, timeout_ms) != WAIT_OBJECT_0) {
            ADD_FAILURE() << "serve did not end";
            fflush(stdout);
            TerminateProcess(GetCurrentProcess(), 3);
        }
        return result_;
    }

    std::string status() {
        std::lock_guard<std::mutex> lock(status_mutex_);
        return status_;
    }
    // Waits until the status output contains `text`; returns the whole output.
    std::string status_with(const std::string& text, int timeout_ms = 5000) {
        wait_until([&] { return status().find(text) != std::string::npos; }, timeout_ms);
        return status();
    }
    void clear_status() {
        std::lock_guard<std::mutex> lock(status_mutex_);
        status_.clear();
    }

    MarshallerObject* marshaller = nullptr;
    std::unique_ptr<client::StreamClient> client;

private:
    static void close(HANDLE& h) {
        if (h != INVALID_HANDLE_VALUE && h != nullptr) CloseHandle(h);
        h = INVALID_HANDLE_VALUE;
    }

    ServeOptions options_;
    ServeParams params_{};
    HANDLE server_read_ = INVALID_HANDLE_VALUE, server_write_ = INVALID_HANDLE_VALUE;
    HANDLE client_read_ = INVALID_HANDLE_VALUE, client_write_ = INVALID_HANDLE_VALUE;
    HANDLE status_read_ = INVALID_HANDLE_VALUE, status_write_ = INVALID_HANDLE_VALUE;
    HANDLE done_ = nullptr;
    std::thread serve_thread_;
    std::thread status_thread_;
    std::mutex status_mutex_;
    std::string status_;
    uint32_t result_ = 0xFFFFFFFF;
};

// Request bytes from a protocol_client encoder.
#define REQUEST(call) encoded([&](void* out, size_t cap) { return client::call; })

} // namespace zun::test
