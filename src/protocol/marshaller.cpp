#include "protocol/marshaller_object.h"

#include <new>
#include <stdlib.h>

#include "factory/live_objects.h"
#include "protocol/data_placement.h"
#include "protocol/fast_pipe.h"
#include "protocol/fast_pipe_transport.h"
#include "protocol/flat_adapters.h"
#include "protocol/marshaller_messages.h"
#include "protocol/protocol_error.h"
#include "protocol/reply_encode.h"
#include "protocol/request_context.h"
#include "protocol/request_object.h"
#include "protocol/stream_transport.h"
#include "protocol/wire.h"

namespace zun {

namespace text = marshaller_text;

namespace {
std::atomic<long> g_live_marshallers{0};
}

// ---------------------------------------------------------------------------------------------
// Lifetime

MarshallerObject::MarshallerObject(uint32_t version) : version_(version), flush_version_(version) {
    // Nothing is in flight yet.
    pin_signal(&idle_);
    g_live_marshallers.fetch_add(1, std::memory_order_relaxed);
    // A live marshaller keeps the module loaded, however the formatter obtained it.
    factory_object_created();
}

MarshallerObject::~MarshallerObject() {
    if (fast_pipe_) fast_pipe_->release();
    ClearPassword();
    SetTraceChannel(nullptr);
    g_live_marshallers.fetch_sub(1, std::memory_order_relaxed);
    factory_object_destroyed();
}

MarshallerObject* MarshallerObject::create(uint32_t version) {
    void* block = malloc(sizeof(MarshallerObject));
    if (!block) return nullptr;
    return new (block) MarshallerObject(version);
}

long MarshallerObject::live_count() {
    return g_live_marshallers.load(std::memory_order_relaxed);
}

void* MarshallerObject::table() {
    if (version_ <= 2) return static_cast<MarshallerV2*>(this);
    if (version_ <= 5) return static_cast<MarshallerV5*>(this);
    return static_cast<Marshaller*>(this);
}

void MarshallerObject::add_ref() {
    HoldGuard guard(&ref_hold_);
    ++refs_;
}

void MarshallerObject::Release() {
    uint32_t left;
    {
        HoldGuard guard(&ref_hold_);
        left = --refs_;
    }
    if (left) return;
    this->~MarshallerObject();
    free(this);
}

uint32_t marshaller_create(uint32_t version, void** table) {
    *table = nullptr;
    if (version < kMarshallerVersionMin || version > kMarshallerVersionMax) return 87;
    MarshallerObject* m = MarshallerObject::create(version);
    if (!m) return 14;
    *table = m->table();
    return 0;
}

template <uint32_t Version> uint32_t marshaller_create_version(void** table) {
    return marshaller_create(Version, table);
}

const MarshallerInterface kMarshallerInterfaces[kMarshallerVersionMax] = {
    {kMarshallerId1, marshaller_create_version<1>}, {kMarshallerId2, marshaller_create_version<2>},
    {kMarshallerId3, marshaller_create_version<3>}, {kMarshallerId4, marshaller_create_version<4>},
    {kMarshallerId5, marshaller_create_version<5>}, {kMarshallerId6, marshaller_create_version<6>},
};

// ---------------------------------------------------------------------------------------------
// Services

ProtocolError marshaller_convert_system_error(MarshallerObject* m, uint32_t system_error) {
    bool known;
    ProtocolError error = protocol_error_from_system(system_error, &known);
    if (!known && m) m->Printf(text::kUnexpectedSystemError, static_cast<int>(system_error));
    return error;
}

ProtocolError MarshallerObject::ConvertSystemError(uint32_t system_error) {
    return marshaller_convert_system_error(this, system_error);
}

uint32_t MarshallerObject::IdentifyScriptHeader(const void* data, size_t size,
                                                const char* formatter_name) {
    return identify_script_header(data, size, formatter_name);
}

// The flat formatters are served through adapters that implement FormatterRequestHandler on
// top of them (flat_adapters.cpp). Every flush reaches an adapter as a FlushRequest, whatever
// this marshaller's version; the adapter knows which flat call the version asks for.
uint32_t MarshallerObject::ServeOps(FlatFormatterV5* formatter, uint32_t volume_flags,
                                    const char* formatter_name, HANDLE read_handle,
                                    HANDLE write_handle) {
    FlatAdapterV5 adapter(formatter);
    return serve_flat(&adapter, volume_flags, formatter_name, read_handle, write_handle);
}
uint32_t MarshallerObject::ServeOps(FlatFormatter* formatter, uint32_t volume_flags,
                                    const char* formatter_name, HANDLE read_handle,
                                    HANDLE write_handle) {
    FlatAdapter adapter(formatter);
    return serve_flat(&adapter, volume_flags, formatter_name, read_handle, write_handle);
}
uint32_t MarshallerObject::ServeOpsV0(ReadOnlyFlatFormatter* formatter, uint32_t volume_flags,
                                      const char* formatter_name, HANDLE read_handle,
                                      HANDLE write_handle) {
    ReadOnlyFlatAdapter adapter(formatter);
    return serve_flat(&adapter, volume_flags, formatter_name, read_handle, write_handle);
}

uint32_t MarshallerObject::serve_flat(FormatterRequestHandler* adapter, uint32_t volume_flags,
                                      const char* formatter_name, HANDLE read_handle,
                                      HANDLE write_handle) {
    ServeParams params{kServeParamsWords, adapter,          volume_flags, formatter_name,
                       kFlatDataAlign,    kFlatVersionWord, read_handle,  write_handle};
    flush_version_ = kFlushVersionAlways;
    uint32_t result = Serve(&params);
    flush_version_ = version_;
    return result;
}

// ---------------------------------------------------------------------------------------------
// Serving

uint32_t MarshallerObject::Serve(const ServeParams* params) {
    if (!params || params->word_count < kServeParamsWords) return 87;
    // One serve at a time; and a marshaller that has served a fast pipe keeps its fast pipe
    // object and refuses every later serve.
    if (serving_.exchange(true)) return 303;
    if (fast_pipe_) {
        serving_.store(false);
        return 303;
    }

    set_serve_error(0);
    serving_thread_ = GetCurrentThreadId();
    set_write_error(0);
    disconnecting_.store(false);
    handler_ = params->handler;
    volume_flags_ = static_cast<uint32_t>(params->volume_flags);
    formatter_name_ = params->formatter_name;
    data_align_ = data_align_from(params->data_align);
    version_word_ = static_cast<uint32_t>(params->version_word);
    read_handle_ = params->read_handle;
    write_handle_ = params->write_handle;

    // The transport is chosen here: a read handle that identifies itself as the driver's fast
    // pipe is served by the fast pipe loop; every other handle pair is a byte stream.
    FastPipeTransport fast(this);
    fast_pipe_ = fast.open(read_handle_);
    fast_mode_ = fast_pipe_ != nullptr;
    StreamTransport stream(this);
    // The ready line goes to the write handle in either mode.
    stream.write_ready_line();
    if (serve_error() == 0) set_serve_error(fast_mode_ ? fast.run() : stream.run());

    // Serving is over: whatever still waits (the writer, a read, the driver) gives up. Requests
    // in flight belong to the formatter until it completes them; their replies are not sent any
    // more.
    pin_signal(&cancel_);
    wait_idle();
    discard_queue();
    stream.join_writer();
    fast.finish();

    handler_ = nullptr;
    formatter_name_ = nullptr;
    read_handle_ = nullptr;
    write_handle_ = nullptr;
    fast_mode_ = false;
    serving_.store(false);
    return serve_error();
}

void MarshallerObject::ServeCancel() {
    Printf(text::kServeCancelCalled);
    pin_signal(&cancel_);
}

void MarshallerObject::wait_idle() {
    // A pin wait also returns when the pin is reset; only the signalled state counts.
    while (!pin_is_signalled(&idle_)) pin_wait(&idle_, nullptr, -1);
    // The last completion signalled idle under the lock: taking it once makes sure that
    // completion has left the lock before the marshaller may go away.
    hold_acquire(&lock_);
    hold_release(&lock_);
}

void MarshallerObject::discard_queue() {
    hold_acquire(&lock_);
    RequestContext* list = queue_first_;
    queue_first_ = queue_last_ = nullptr;
    delivery_offset_ = 0;
    RequestContext* read = pending_read_;
    pending_read_ = nullptr;
    hold_release(&lock_);
    if (read) {
        fast_pipe_->complete(&read->descriptor, 109, 0, 0);
        request_context_free(read);
    }
    while (list) {
        RequestContext* next = list->next;
        request_context_free(list);
        list = next;
    }
}

void MarshallerObject::dispatch(RequestContext* context, const uint8_t* message, uint32_t size,
                                bool message_is_stable) {
    start_request(context, request_build(context, message, size, message_is_stable));
}

void MarshallerObject::dispatch_failed(RequestContext* context, const uint8_t* header,
                                       ProtocolError error) {
    uint32_t id = code_word_request_id(load_u32(header + 4));
    start_request(context, request_build_failed(context, id, error));
}

void MarshallerObject::start_request(RequestContext* context, RequestObject* request) {
    context->request = request;
    // A fast pipe write lets its client go at once: its bytes are ours now, and its reply will
    // travel in a read transfer.
    if (context->descriptor.transfer_type == kTransferWrite)
        fast_pipe_->complete(&context->descriptor, 0, context->descriptor.data_size, 0);

    hold_acquire(&lock_);
    if (in_flight_.load(std::memory_order_relaxed) == 0) pin_reset(&idle_);
    in_flight_.fetch_add(1, std::memory_order_release);
    // On a stream, a failed reply write ends serving once the reader notices; the fast pipe
    // sends no replies through the write handle.
    if (!fast_mode_) set_serve_error(write_error());
    hold_release(&lock_);

    if (request->error == ProtocolError::Success)
        request->start(handler_, &context->scratch);
    else
        complete(request, request->error);
}

void MarshallerObject::complete(RequestObject* request, ProtocolError error) {
    RequestContext* context = request->context;
    request->error = error;
    if (error != ProtocolError::Success) request->reply = nullptr;
    if (request->id && !request->reply) {
        request->reply_length = encode_header_reply(request->header_reply, request->id, error);
        request->reply = request->header_reply;
    }

    bool queued = false;
    RequestContext* delivered = nullptr;
    hold_acquire(&lock_);
    bool trace = tracing();
    if (error == ProtocolError::Success)
        request->finish_locked(trace);
    else if (trace)
        Printf(text::kTraceError, request->id, static_cast<uint32_t>(error));
    if (context->descriptor.transfer_type == kTransferWriteDirect) {
        // The client waits for this reply in its own transfer.
        complete_direct_locked(request);
    } else if (request->id) {
        context->next = nullptr;
        if (queue_last_)
            queue_last_->next = context;
        else
            queue_first_ = context;
        queue_last_ = context;
        queued = true;
        if (fast_mode_) {
            deliver_replies_locked(&delivered);
        } else if (writer_waiting_) {
            // Replies the serving thread completes while it works through what it has read
            // leave together: the writer is woken once, before the next read (wake_writer).
            if (GetCurrentThreadId() == serving_thread_) {
                wake_deferred_ = true;
            } else {
                writer_waiting_ = false;
                wake_deferred_ = false;
                pin_signal(&reply_ready_);
            }
        }
    }
    if (in_flight_.fetch_sub(1, std::memory_order_acq_rel) == 1) pin_signal(&idle_);
    hold_release(&lock_);
    // From here on the marshaller may be gone (the serve may have ended); the contexts are ours.
    if (!queued) request_context_free(context);
    while (delivered) {
        RequestContext* next = delivered->next;
        request_context_free(delivered);
        delivered = next;
    }
}

void MarshallerObject::wake_writer() {
    hold_acquire(&lock_);
    bool wake = wake_deferred_ && writer_waiting_;
    if (wake) {
        writer_waiting_ = false;
        pin_signal(&reply_ready_);
    }
    hold_release(&lock_);
}

RequestContext* MarshallerObject::writer_take_replies() {
    for (;;) {
        hold_acquire(&lock_);
        if (write_error() || cancelled()) break;
        if (queue_first_) {
            RequestContext* list = queue_first_;
            queue_first_ = queue_last_ = nullptr;
            hold_release(&lock_);
            return list;
        }
        if (disconnecting() && in_flight() == 0) break;
        pin_reset(&reply_ready_);
        writer_waiting_ = true;
        hold_release(&lock_);
        // Woken by a queued reply; given up by the cancel signal (ServeCancel or the end of
        // serving). A disconnect with nothing in flight is noticed through the loop: the
        // receive loop ends and serving cancels.
        if (!pin_wait(&reply_ready_, &cancel_, -1) && cancelled()) return nullptr;
    }
    writer_waiting_ = false;
    hold_release(&lock_);
    return nullptr;
}

} // namespace zun
