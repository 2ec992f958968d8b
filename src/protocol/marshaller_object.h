// The marshaller: serves one mount's file requests to one formatter.
//
// One object implements the three interface tables of zun/marshaller.h; the interface id it was
// created for decides its version and which table the formatter gets. Serve identifies the
// transport (the driver's fast pipe or a byte stream), exchanges the ready lines and runs the
// receive loop on the calling thread. Each message becomes a request object in a request context
// (dispatch); the formatter completes it on any thread (complete). Its reply then goes straight
// into the client's output buffer (a fast pipe transfer with direct result) or joins the reply
// queue, which leaves in completion order: through the stream's writer thread, or through the
// fast pipe's read transfers.
//
// Locking: `lock_` guards the reply queue, the in-flight count, the writer's wait state and the
// pending fast pipe read, and is held while completion blocks are printed, so that they never
// interleave. The reference count has a hold of its own. Flags the receive loop polls
// (disconnecting, the write and serve errors, the in-flight count) are atomics that are only
// changed under `lock_` or by the serving thread.
#pragma once

#include <atomic>
#include <stdarg.h>
#include <stdint.h>

#include <zun/marshaller.h>

#include "base/sync.h"

namespace zun {

struct RequestContext;
class RequestObject;
class FastPipe;

constexpr uint32_t kMarshallerVersionMin = 1;
constexpr uint32_t kMarshallerVersionMax = 6;

// The value of the effective flush version that makes every flush a FlushRequest (the flat
// adapters set it for the duration of their serve).
constexpr uint32_t kFlushVersionAlways = 999;

// The serve parameter block is eight words long; the flat serve operations ask for a data
// align of 64 and report 0x1000000 at offset 44 of the version reply.
constexpr uintptr_t kServeParamsWords = 8;
constexpr uintptr_t kFlatDataAlign = 64;
constexpr uintptr_t kFlatVersionWord = 0x1000000;

class MarshallerObject final : public MarshallerV2, public MarshallerV5, public Marshaller {
public:
    // A marshaller of `version` (1 to 6) with a reference count of 1; null when memory is short.
    static MarshallerObject* create(uint32_t version);

    // The table an interface id of this version hands out.
    void* table();

    // ----- the interface tables
    void Release() override;
    void SetTraceChannel(void* channel) override;
    void SetStatusHandle(HANDLE handle) override;
    ProtocolError ConvertSystemError(uint32_t system_error) override;
    uint32_t IdentifyScriptHeader(const void* data, size_t size,
                                  const char* formatter_name) override;
    uint32_t ReadPassword(HANDLE input, const wchar_t* prompt, const wchar_t** line) override;
    void ClearPassword() override;
    uint32_t ServeOps(FlatFormatterV5* formatter, uint32_t volume_flags, const char* formatter_name,
                      HANDLE read_handle, HANDLE write_handle) override;
    uint32_t ServeOps(FlatFormatter* formatter, uint32_t volume_flags, const char* formatter_name,
                      HANDLE read_handle, HANDLE write_handle) override;
    uint32_t ServeOpsV0(ReadOnlyFlatFormatter* formatter, uint32_t volume_flags,
                        const char* formatter_name, HANDLE read_handle,
                        HANDLE write_handle) override;
    uint32_t Serve(const ServeParams* params) override;
    void PrintText(const wchar_t* text, bool line_end) override;
    void Print(const wchar_t* text) override;
    void VPrintf(const wchar_t* format, va_list args) override;
    void Printf(const wchar_t* format, ...) override;
    void PrintLine(const wchar_t* text) override;
    void ServeCancel() override;

    // ----- for the request objects and the transports
    void add_ref();
    uint32_t version() const { return version_; }
    uint32_t flush_version() const { return flush_version_; }
    uint32_t data_align() const { return data_align_; }
    uint32_t volume_flags() const { return volume_flags_; }
    const char* formatter_name() const { return formatter_name_; }
    uint32_t version_word() const { return version_word_; }
    // Whether this serve runs on the driver's fast pipe.
    bool fast_pipe() const { return fast_mode_; }
    uint16_t client_version() const { return client_version_; }
    void set_client_version(uint16_t v) { client_version_ = v; }
    void set_disconnecting() { disconnecting_.store(true, std::memory_order_release); }
    bool disconnecting() const { return disconnecting_.load(std::memory_order_acquire); }
    // Milliseconds the receive loop waits for a request while none is in flight; 0 for ever.
    uint32_t idle_read_timeout() const {
        return idle_read_timeout_.load(std::memory_order_relaxed);
    }
    void set_idle_read_timeout(uint32_t ms) { idle_read_timeout_.store(ms); }
    // Whether Printf produces anything: a status handle or a trace channel is set.
    bool tracing() const { return status_handle_ != nullptr || trace_channel_ != nullptr; }

    HANDLE read_handle() const { return read_handle_; }
    HANDLE write_handle() const { return write_handle_; }
    Signalable* cancel_signal() { return &cancel_; }
    bool cancelled() { return pin_is_signalled(&cancel_) != 0; }
    int32_t in_flight() const { return in_flight_.load(std::memory_order_acquire); }
    // Signalled while no request is in flight.
    bool idle() { return pin_is_signalled(&idle_) != 0; }
    uint32_t write_error() const { return write_error_.load(std::memory_order_acquire); }
    void set_write_error(uint32_t error) { write_error_.store(error, std::memory_order_release); }
    void set_serve_error(uint32_t error) { serve_error_.store(error, std::memory_order_release); }
    uint32_t serve_error() const { return serve_error_.load(std::memory_order_acquire); }

    // Builds the request of a received message in `context` and starts it (or completes it
    // at once when it failed to decode). `message_is_stable`: see request_build.
    void dispatch(RequestContext* context, const uint8_t* message, uint32_t size,
                  bool message_is_stable);
    // The same for a message that cannot be decoded at all: it completes with `error`.
    void dispatch_failed(RequestContext* context, const uint8_t* header, ProtocolError error);
    // The end of every request: reply, trace, queue or free, in-flight count.
    void complete(RequestObject* request, ProtocolError error);

    // For the fast pipe loop (fast_pipe_transport.cpp): a read transfer has arrived. It becomes
    // the pending read and is given what replies are queued; false when another read is still
    // pending (the context then stays the caller's).
    bool fast_pipe_read_arrived(RequestContext* read);

    // Prints to the trace channel alone (the fast pipe's own errors).
    void trace_printf(const wchar_t* format, ...);

    // For the stream reader, before it waits for more bytes: wakes the writer for replies the
    // serving thread completed since the last read.
    void wake_writer();

    // For the stream writer: unlinks every queued reply (oldest first). When none is queued it
    // waits for one, unless serving is over. Null when the writer is to stop: the write error
    // is set, the server is disconnecting with nothing in flight, or serving was cancelled.
    RequestContext* writer_take_replies();

    // Test probes: marshallers alive in the process.
    static long live_count();

    // Read and write calls the transport has made: what a message costs in system calls.
    std::atomic<uint64_t> transport_reads{0};
    std::atomic<uint64_t> transport_writes{0};

private:
    explicit MarshallerObject(uint32_t version);
    ~MarshallerObject();

    uint32_t serve_flat(FormatterRequestHandler* adapter, uint32_t volume_flags,
                        const char* formatter_name, HANDLE read_handle, HANDLE write_handle);
    void start_request(RequestContext* context, RequestObject* request);
    void discard_queue();
    void wait_idle();

    // Fast pipe delivery (fast_pipe_transport.cpp), under `lock_`. Contexts that are done with
    // are left in *done for the caller to free once the lock is released.
    void deliver_replies_locked(RequestContext** done);
    void complete_direct_locked(RequestObject* request);

    // Text output (marshaller_text.cpp).
    void write_status(const char* text, size_t length);

    const uint32_t version_;
    uint32_t flush_version_;

    Hold ref_hold_;
    uint32_t refs_ = 1;

    Hold lock_;
    Pin cancel_;
    Pin reply_ready_;
    Pin idle_;
    std::atomic<int32_t> in_flight_{0};
    RequestContext* queue_first_ = nullptr;
    RequestContext* queue_last_ = nullptr;
    bool writer_waiting_ = false; // the writer has reset reply_ready_ and waits for it
    bool wake_deferred_ = false;  // replies of the serving thread wait for wake_writer
    DWORD serving_thread_ = 0;

    std::atomic<uint32_t> serve_error_{0};
    std::atomic<uint32_t> write_error_{0};
    std::atomic<bool> disconnecting_{false};
    std::atomic<bool> serving_{false};
    uint16_t client_version_ = 0;

    FormatterRequestHandler* handler_ = nullptr;
    uint32_t volume_flags_ = 0;
    const char* formatter_name_ = nullptr;
    uint32_t data_align_ = 1;
    uint32_t version_word_ = 0;
    HANDLE read_handle_ = nullptr;
    HANDLE write_handle_ = nullptr;

    // The fast pipe object of a fast pipe serve: kept until destruction, so that a marshaller
    // that has served a fast pipe refuses every later serve.
    FastPipe* fast_pipe_ = nullptr;
    bool fast_mode_ = false;
    RequestContext* pending_read_ = nullptr; // the client's read transfer waiting for replies
    size_t delivery_offset_ = 0;             // bytes of the first queued reply already delivered

    std::atomic<uint32_t> idle_read_timeout_{0};

    void* trace_channel_ = nullptr;
    HANDLE status_handle_ = nullptr;
    uint8_t status_kind_ = 0;
    wchar_t* password_ = nullptr;
    size_t password_length_ = 0;
};

// Creates a marshaller of `version` and hands out its table: 0 and the table in *table, or 14
// (and null) when memory is short. Versions outside 1 to 6 give 87.
uint32_t marshaller_create(uint32_t version, void** table);

// The interface ids "ZunMarshaller1" to "ZunMarshaller6" with their creation functions, for the
// factory to hand out.
using InterfaceCreate = uint32_t (*)(void** table);
struct MarshallerInterface {
    const char* id;
    InterfaceCreate create;
};
extern const MarshallerInterface kMarshallerInterfaces[kMarshallerVersionMax];

// System error conversion with its warning, shared by ConvertSystemError and the adapters.
ProtocolError marshaller_convert_system_error(MarshallerObject* marshaller, uint32_t system_error);

// Checks that data begin with a "#!" line whose last word is formatter_name (ASCII case
// insensitive): 0, or 11 when there is no "#!" line, 1168 when it names something else.
uint32_t identify_script_header(const void* data, size_t size, const char* formatter_name);

} // namespace zun
