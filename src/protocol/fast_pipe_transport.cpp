#include "protocol/fast_pipe_transport.h"

#include <string.h>

#include "base/settle.h"
#include "protocol/fast_pipe.h"
#include "protocol/marshaller_messages.h"
#include "protocol/marshaller_object.h"
#include "protocol/request_context.h"
#include "protocol/request_object.h"
#include "protocol/stream_transport.h"
#include "protocol/wire.h"

namespace zun {

namespace text = marshaller_text;

namespace {
constexpr uint32_t kProtocolError = 11; // ERROR_BAD_FORMAT
constexpr uint32_t kNotEnoughMemory = 14;
constexpr size_t kDirectResultMinimum = 8; // room for the header of any reply
} // namespace

// ---------------------------------------------------------------------------------------------
// Opening and cancel

FastPipe* FastPipeTransport::open(HANDLE read_handle) {
    FastPipe* pipe = FastPipe::create();
    if (!pipe) return nullptr;
    if (pipe->open(read_handle) != 0) {
        pipe->release();
        return nullptr;
    }
    pipe_ = pipe;
    // The callback holds a reference to the marshaller until it has run.
    m_->add_ref();
    cancel_entry_.callback.store(cancel_fired, std::memory_order_release);
    if (!signalable_add_waiter(m_->cancel_signal(), &cancel_entry_)) cancel_fired(&cancel_entry_);
    return pipe;
}

void FastPipeTransport::issue_cancel() {
    pipe_->cancel();
    m_->Release();
}

void FastPipeTransport::cancel_fired(WaiterEntry* entry) {
    reinterpret_cast<FastPipeTransport*>(entry)->issue_cancel();
    entry->callback.store(nullptr, std::memory_order_release);
}

void FastPipeTransport::finish() {
    if (!pipe_) return;
    if (signalable_remove_waiter(m_->cancel_signal(), &cancel_entry_)) {
        cancel_entry_.callback.store(nullptr, std::memory_order_relaxed);
        issue_cancel();
    } else {
        // Taken by the signal: its callback has run or is running on another thread.
        callback_settle(cancel_entry_.callback);
    }
    pipe_ = nullptr;
}

// ---------------------------------------------------------------------------------------------
// The receive loop

uint32_t FastPipeTransport::protocol_error(RequestContext* context, const wchar_t* message) {
    m_->trace_printf(message);
    m_->set_serve_error(kProtocolError);
    pipe_->complete(&context->descriptor, kProtocolError, 0, 0);
    request_context_free(context);
    return kProtocolError;
}

uint32_t FastPipeTransport::run() {
    while (!m_->disconnecting()) {
        // A reply that did not fit its direct result buffer has broken the protocol.
        if (uint32_t error = m_->serve_error()) return error;

        RequestContext* context = request_context_create(m_);
        if (!context) return kNotEnoughMemory;
        FastPipeDescriptor& d = context->descriptor;
        FastPipe::descriptor_init(&d);
        if (uint32_t error = pipe_->receive(&d)) {
            m_->trace_printf(text::kFastPipeReceiveError, static_cast<int>(error));
            request_context_free(context);
            return error;
        }

        if (d.transfer_type == kTransferRead) {
            if (!m_->fast_pipe_read_arrived(context))
                return protocol_error(context, text::kConcurrentResultReads);
            continue;
        }
        if (d.transfer_type != kTransferWrite && d.transfer_type != kTransferWriteDirect)
            return protocol_error(context, text::kUnsupportedTransferType);

        if (!handshake_) {
            // Until the client's ready line, whatever it writes is taken and dropped.
            if (d.transfer_type == kTransferWrite && d.data_size >= kReadyLineLength &&
                memcmp(d.data, kClientReadyLine, kReadyLineLength) == 0)
                handshake_ = true;
            pipe_->complete(&d, 0, d.data_size, 0);
            request_context_free(context);
            continue;
        }

        if (d.data_size < sizeof(MessageHeader))
            return protocol_error(context, text::kFastPipeWriteTooSmall);
        uint32_t size = load_u32(d.data);
        uint32_t code = load_u32(d.data + 4);
        if (size < sizeof(MessageHeader) || size > kMaxMessageSize || size > d.data_size ||
            code_word_is_reply(code))
            return protocol_error(context, text::kFastPipeInvalidHeader);
        if (d.transfer_type == kTransferWriteDirect && code_word_request_id(code) != 0 &&
            d.output_size < kDirectResultMinimum)
            return protocol_error(context, text::kFastPipeInvalidDirectSize);
        // The message lives in the descriptor's buffer as long as the request does.
        m_->dispatch(context, d.data, size, true);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Reply delivery (marshaller side)

bool MarshallerObject::fast_pipe_read_arrived(RequestContext* read) {
    RequestContext* done = nullptr;
    hold_acquire(&lock_);
    if (pending_read_) {
        hold_release(&lock_);
        return false;
    }
    pending_read_ = read;
    deliver_replies_locked(&done);
    hold_release(&lock_);
    while (done) {
        RequestContext* next = done->next;
        request_context_free(done);
        done = next;
    }
    return true;
}

// One read carries bytes of one reply only: as much of the first queued reply as its buffer
// takes. A reply longer than the client's buffer goes out over several reads.
void MarshallerObject::deliver_replies_locked(RequestContext** done) {
    if (!pending_read_ || !queue_first_) return;
    RequestContext* read = pending_read_;
    RequestObject* reply = queue_first_->request;
    FastPipeDescriptor& d = read->descriptor;
    size_t left = reply->reply_length - delivery_offset_;
    size_t count = d.output_size < left ? static_cast<size_t>(d.output_size) : left;
    memcpy(d.output, reply->reply + delivery_offset_, count);
    delivery_offset_ += count;
    if (delivery_offset_ == reply->reply_length) {
        RequestContext* sent = queue_first_;
        queue_first_ = sent->next;
        if (!queue_first_) queue_last_ = nullptr;
        delivery_offset_ = 0;
        sent->next = *done;
        *done = sent;
    }
    // Completed under the lock: the client sees its reads completed in the order in which they
    // were given their bytes.
    fast_pipe_->complete(&d, 0, 0, count);
    pending_read_ = nullptr;
    read->next = *done;
    *done = read;
}

void MarshallerObject::complete_direct_locked(RequestObject* request) {
    FastPipeDescriptor& d = request->context->descriptor;
    uint64_t placed = 0;
    if (request->id) {
        if (request->reply_length > d.output_size) {
            set_serve_error(11);
            trace_printf(text::kDirectOutputTooSmall);
        } else {
            // A read reply is built in the client's buffer already.
            if (request->reply != d.output) memcpy(d.output, request->reply, request->reply_length);
            placed = request->reply_length;
        }
    }
    fast_pipe_->complete(&d, serve_error(), d.data_size, placed);
}

} // namespace zun
