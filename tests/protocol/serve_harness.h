// What the protocol tests share: a marshaller serving on a thread of its own with the test as
// the client, over two private pipes or over a simulated fast pipe device with the test as the
// driver; a formatter whose operations are set per test; hex dumps of messages; the leak count;
// the capture of a trace channel.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "base/pipe.h"
#include "base/trace_hook.h"
#include "protocol/fast_pipe.h"
#include "protocol/marshaller_object.h"
#include "protocol/protocol_client.h"
#include "protocol/request_context.h"
#include "protocol/stream_client.h"
#include "protocol/stream_transport.h"
#include "protocol/wire.h"
#include "simulated_device.h"

// Messages as hex text ("30000000..."), so that expected encodings read like a dump and a
// mismatch shows where. Expected texts group bytes freely: hex_norm drops the spaces.
inline std::string hex(const void* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (auto* p = static_cast<const uint8_t*>(data); size--; ++p)
        s += {digits[*p >> 4], digits[*p & 15]};
    return s;
}
inline std::string hex(const std::vector<uint8_t>& v) {
    return hex(v.data(), v.size());
}
inline std::string hex_norm(std::string text) {
    std::erase(text, ' ');
    return text;
}

// Runs an encoder twice, sizing first, as callers do.
template <class Encode> std::vector<uint8_t> encoded(Encode encode) {
    std::vector<uint8_t> out(encode(nullptr, 0));
    out.resize(encode(out.data(), out.size()));
    return out;
}

namespace zun::test {

// Waits until `condition()` holds or `timeout_ms` has passed; returns the last value.
template <class Condition> bool wait_until(Condition condition, int timeout_ms = 10000) {
    for (ULONGLONG end = GetTickCount64() + timeout_ms; !condition(); Sleep(1))
        if (GetTickCount64() > end) return condition();
    return true;
}

// A message of `size` bytes (at least the header) with this code word, zero behind it.
inline std::vector<uint8_t> header_only(uint32_t size, uint32_t code) {
    std::vector<uint8_t> m(size < 8 ? 8 : size);
    memcpy(&m[0], &size, 4);
    memcpy(&m[4], &code, 4);
    return m;
}

inline ProtocolError reply_error(const std::vector<uint8_t>& reply) {
    client::Reply r{};
    EXPECT_TRUE(client::decode_reply(reply.data(), reply.size(), &r)) << hex(reply);
    return r.error;
}

// Checks, when it goes out of scope, that whatever was served since it was made has left
// nothing behind. Make it before the serve.
struct Leftovers {
    long contexts = request_context_live_count();
    long marshallers = MarshallerObject::live_count();
    long pipes = FastPipe::live_count();
    ~Leftovers() {
        EXPECT_TRUE(wait_until([] { return StreamTransport::writer_live_count() == 0; }));
        EXPECT_EQ(request_context_live_count(), contexts);
        EXPECT_EQ(MarshallerObject::live_count(), marshallers);
        EXPECT_EQ(FastPipe::live_count(), pipes);
    }
};

// Each operation runs the function set for it; an operation without one fails the test.
struct TestFormatter : FormatterRequestHandler {
    std::atomic<int> calls{0};
    template <class F, class R> void run(F& f, R* r) {
        ++calls;
        if (f) return f(r);
        ADD_FAILURE() << "unexpected formatter call";
    }
#define OPERATION(Name, member, Request)                                                           \
    std::function<void(Request*)> member;                                                          \
    void Name(Request* r, FormatterScratch*) override {                                            \
        run(member, r);                                                                            \
    }
    OPERATION(Open, open, OpenRequest)
    OPERATION(Replace, replace, ReplaceRequest)
    OPERATION(Move, move, MoveRequest)
    OPERATION(MoveReplace, move_replace, MoveReplaceRequest)
    OPERATION(Delete, remove, DeleteRequest)
    OPERATION(Close, close, CloseRequest)
    OPERATION(Flush, flush, FlushRequest)
    OPERATION(List, list, ListRequest)
    OPERATION(ListEnd, list_end, CloseRequest)
    OPERATION(Read, read, ReadRequest)
    OPERATION(Write, write, WriteRequest)
    OPERATION(SetSize, set_size, CloseRequest)
    OPERATION(Capacity, capacity, CapacityRequest)
    OPERATION(FlushMedia, flush_media, FlushMediaRequest)
    OPERATION(Control, control, ControlRequest)
    OPERATION(MediaInfo, media_info, MediaInfoRequest)
    OPERATION(Access, access, AccessRequest)
#undef OPERATION
};

// Answers capacity with 10 and 5.
struct CapacityFormatter : TestFormatter {
    CapacityFormatter() {
        capacity = [](CapacityRequest* r) { r->Complete(ProtocolError::Success, 10, 5); };
    }
};

struct ServeOptions {
    uint32_t version = 6;
    uintptr_t data_align = 1;
    bool status = false;     // collect the marshaller's text output (and so its trace)
    bool unbuffered = false; // the runtime's private pipes instead of buffered ones
    // Serve the harness's simulated device instead of the request pipe, the device answering
    // its identity call with this type name (none: the call fails). The server's ready line
    // still comes through the reply pipe.
    bool fast_pipe = false;
    const char* identity = "KestiFastPipe";
    // How to serve, when not by Serve with the parameters (the flat serve operations).
    std::function<uint32_t(MarshallerObject*, const ServeParams&)> serve;
};

class ServeHarness {
public:
    explicit ServeHarness(FormatterRequestHandler* handler, ServeOptions options = {})
        : options_(std::move(options)) {
        for (auto [read, write] :
             {std::pair{&server_read_, &client_write_}, std::pair{&client_read_, &server_write_}})
            // Buffered pipes, so that a write does not wait for its reader, unless asked.
            EXPECT_TRUE(options_.unbuffered ? pipe_create(false, false, read, write) == 0
                                            : CreatePipe(read, write, nullptr, 1 << 16));
        marshaller = MarshallerObject::create(options_.version);
        if (options_.status) {
            EXPECT_TRUE(CreatePipe(&status_read_, &status_write_, nullptr, 1 << 16));
            marshaller->SetStatusHandle(status_write_);
        }
        client = std::make_unique<client::StreamClient>(client_read_, client_write_);
        device.identity_name = options_.identity;
        HANDLE read = options_.fast_pipe ? device.handle() : server_read_;
        params_ = ServeParams{8,         handler, 0x21,         "testfs", options_.data_align,
                              0x1000000, read,    server_write_};
        done_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        serve_thread_ = std::thread([this] {
            result_ =
                options_.serve ? options_.serve(marshaller, params_) : marshaller->Serve(&params_);
            SetEvent(done_);
        });
    }

    ~ServeHarness() {
        if (!finished()) {
            marshaller->ServeCancel();
            wait_served();
        }
        serve_thread_.join();
        marshaller->Release();
        // Every transfer the server took was completed exactly once.
        EXPECT_EQ(device.outstanding(), 0u);
        EXPECT_EQ(device.bad_completions, 0);
        for (HANDLE h : {client_write_, client_read_, server_read_, server_write_, status_read_,
                         status_write_, done_})
            if (h) CloseHandle(h);
    }

    // Takes the server's ready line and sends the client's.
    bool connect() {
        if (!options_.fast_pipe) return client->connect(5000) == 0;
        if (client->wait_ready(5000) != 0) return false;
        SimTransfer* t = device.write({kClientReadyLine, kClientReadyLine + kReadyLineLength});
        return device.wait(t) && t->error == 0 && t->consumed == kReadyLineLength;
    }

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

    // A request and its reply; on the fast pipe the reply is the direct result of its transfer.
    std::vector<uint8_t> transact(const std::vector<uint8_t>& message, size_t output = 4096) {
        if (!options_.fast_pipe) return send(message), receive();
        return done(device.write(message, kTransferWriteDirect, output))->result();
    }

    // A transfer of the device, once it is completed.
    SimTransfer* done(SimTransfer* t) {
        EXPECT_TRUE(device.wait(t));
        return t;
    }

    // The client goes away: the server's next read meets the end of the pipe.
    void hang_up() {
        CloseHandle(client_write_);
        client_write_ = nullptr;
    }

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

    // The marshaller's text output so far.
    std::string status() {
        char buffer[4096];
        DWORD got = 0;
        while (PeekNamedPipe(status_read_, nullptr, 0, nullptr, &got, nullptr) && got &&
               ReadFile(status_read_, buffer, sizeof buffer, &got, nullptr))
            status_.append(buffer, got);
        return status_;
    }
    // Waits until the status output contains `text`; returns the whole output.
    std::string status_with(const std::string& text) {
        wait_until([&] { return status().find(text) != std::string::npos; }, 5000);
        return status_;
    }

    SimulatedDevice device;
    MarshallerObject* marshaller = nullptr;
    std::unique_ptr<client::StreamClient> client;

private:
    ServeOptions options_;
    HANDLE server_read_ = nullptr, server_write_ = nullptr;
    HANDLE client_read_ = nullptr, client_write_ = nullptr;
    HANDLE status_read_ = nullptr, status_write_ = nullptr;
    ServeParams params_{};
    HANDLE done_ = nullptr;
    std::thread serve_thread_;
    std::string status_;
    uint32_t result_ = 0xFFFFFFFF;
};

// The marshaller's trace channel, captured through the test trace library (bin\tracetest),
// which appends "<channel>: <text>" to the file ZUN_TRACE_FILE names.
struct TraceCapture {
    explicit TraceCapture(const wchar_t* name) {
        wchar_t path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring directory(path, wcsrchr(path, L'\\'));
        path_ = directory + L"\\trace_" + name + L".txt";
        DeleteFileW(path_.c_str());
        SetEnvironmentVariableW(L"ZUN_TRACE_FILE", path_.c_str());
        SetDllDirectoryW((directory + L"\\tracetest").c_str());
        channel = trace_channel_open(name);
        SetDllDirectoryW(nullptr);
    }
    ~TraceCapture() {
        SetEnvironmentVariableW(L"ZUN_TRACE_FILE", nullptr);
        DeleteFileW(path_.c_str());
    }

    // Everything printed to the channel so far.
    std::string text() const {
        std::ifstream file(std::filesystem::path(path_), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    TraceChannel channel = nullptr; // one reference, for the marshaller to take

private:
    std::wstring path_;
};

// Request bytes from a protocol_client encoder.
#define REQUEST(call) encoded([&](void* out, size_t cap) { return client::call; })

} // namespace zun::test
