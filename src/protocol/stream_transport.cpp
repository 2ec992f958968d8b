#include "protocol/stream_transport.h"

#include <atomic>
#include <stdlib.h>
#include <string.h>

#include "base/io.h"
#include "base/thread.h"
#include "protocol/data_placement.h"
#include "protocol/marshaller_messages.h"
#include "protocol/marshaller_object.h"
#include "protocol/request_context.h"
#include "protocol/request_decode.h"
#include "protocol/request_object.h"
#include "protocol/wire.h"

namespace zun {

namespace text = marshaller_text;

namespace {

std::atomic<long> g_live_writers{0};

// Replies queued together are copied into one block of this size and sent with one write;
// a reply larger than the block goes out on its own, uncopied.
constexpr size_t kGatherSize = 128 * 1024;

constexpr uint32_t kWriteHeaderSize = 32;

// The reply writer thread's own state; it frees it on its way out.
struct StreamWriter {
    MarshallerObject* marshaller;
    HANDLE handle;
    uint8_t kind;
    Pin* done;
    uint8_t* gather;
};

uint32_t write_all(StreamWriter* w, const uint8_t* data, size_t length) {
    size_t count = 0;
    w->marshaller->transport_writes.fetch_add(1, std::memory_order_relaxed);
    uint32_t error = io_write_ex(w->handle, &w->kind, w->marshaller->cancel_signal(), io_no_timeout,
                                 data, length, &count);
    // A write that stops short has met the end of the pipe.
    if (!error && count < length) error = 109;
    return error;
}

// Sends every reply of the list, in order, with as few writes as the gather block allows, and
// frees their contexts. Returns the first write error.
uint32_t write_replies(StreamWriter* w, RequestContext* list) {
    uint32_t error = 0;
    if (!list->next) {
        error = write_all(w, list->request->reply, list->request->reply_length);
    } else {
        size_t capacity = w->gather ? kGatherSize : 0;
        size_t used = 0;
        for (RequestContext* c = list; c && !error; c = c->next) {
            const uint8_t* reply = c->request->reply;
            size_t length = c->request->reply_length;
            if (used + length > capacity && used) {
                error = write_all(w, w->gather, used);
                used = 0;
                if (error) break;
            }
            if (length > capacity) {
                error = write_all(w, reply, length);
            } else {
                memcpy(w->gather + used, reply, length);
                used += length;
            }
        }
        if (!error && used) error = write_all(w, w->gather, used);
    }
    while (list) {
        RequestContext* next = list->next;
        request_context_free(list);
        list = next;
    }
    return error;
}

void writer_main(void* argument) {
    auto* w = static_cast<StreamWriter*>(argument);
    MarshallerObject* m = w->marshaller;
    while (RequestContext* list = m->writer_take_replies()) {
        uint32_t error = write_replies(w, list);
        if (!error) continue;
        // A write broken off because serving ended is no stream failure.
        if (!m->cancelled()) {
            m->set_write_error(error);
            m->Printf(text::kSocketWriteError, static_cast<int>(error));
        }
        break;
    }
    Pin* done = w->done;
    free(w->gather);
    free(w);
    m->Release();
    g_live_writers.fetch_sub(1, std::memory_order_relaxed);
    // The serving thread may return (and the pin go away) as soon as this is seen.
    pin_signal(done);
}

// Where the ready line begins in data[0, length), or length when it is not there.
size_t find_ready_line(const uint8_t* data, size_t length) {
    if (length < kReadyLineLength) return length;
    for (size_t i = 0; i + kReadyLineLength <= length; ++i) {
        const void* at = memchr(data + i, '+', length - kReadyLineLength + 1 - i);
        if (!at) break;
        i = static_cast<const uint8_t*>(at) - data;
        if (memcmp(at, kClientReadyLine, kReadyLineLength) == 0) return i;
    }
    return length;
}

} // namespace

StreamTransport::~StreamTransport() {
    free(buffer_);
}

long StreamTransport::writer_live_count() {
    return g_live_writers.load(std::memory_order_relaxed);
}

void StreamTransport::write_ready_line() {
    size_t count = 0;
    uint32_t error = io_write_ex(m_->write_handle(), &write_kind_, m_->cancel_signal(),
                                 io_no_timeout, kServerReadyLine, kReadyLineLength, &count);
    if (!error && count < kReadyLineLength) error = 109;
    if (error) {
        m_->set_write_error(error);
        m_->Printf(text::kSocketWriteError, static_cast<int>(error));
    }
}

uint32_t StreamTransport::run() {
    buffer_ = static_cast<uint8_t*>(malloc(kStreamReceiveBufferSize));
    if (!buffer_) return 14;
    uint32_t error = handshake();
    if (error) return error;
    error = start_writer();
    if (error) return error;
    error = receive_loop();
    // Replies of the last messages read (up to a disconnect) go out like any others.
    m_->wake_writer();
    return error;
}

void StreamTransport::join_writer() {
    if (!writer_started_) return;
    while (!pin_is_signalled(&writer_done_)) pin_wait(&writer_done_, nullptr, -1);
    // The flag is set under the pin's hold; once the hold has been ours the writer's
    // pin_signal no longer touches the pin.
    hold_acquire(&writer_done_.hold);
    hold_release(&writer_done_.hold);
    writer_started_ = false;
}

uint32_t StreamTransport::start_writer() {
    auto* w = static_cast<StreamWriter*>(malloc(sizeof(StreamWriter)));
    if (!w) return 14;
    *w = StreamWriter{m_, m_->write_handle(), write_kind_, &writer_done_,
                      static_cast<uint8_t*>(malloc(kGatherSize))};
    m_->add_ref();
    g_live_writers.fetch_add(1, std::memory_order_relaxed);
    if (!thread_start(writer_main, w)) {
        g_live_writers.fetch_sub(1, std::memory_order_relaxed);
        m_->Release();
        free(w->gather);
        free(w);
        return 14;
    }
    writer_started_ = true;
    return 0;
}

// The client's ready line may follow anything (a shell's banner, a previous session's tail);
// whatever comes before it is dropped. Whatever follows it in the same read is already the
// first request and stays in the receive buffer.
uint32_t StreamTransport::handshake() {
    for (;;) {
        size_t at = find_ready_line(buffer_ + begin_, buffered());
        if (at < buffered()) {
            begin_ += at + kReadyLineLength;
            return 0;
        }
        // Keep only what may be the start of the line.
        if (buffered() >= kReadyLineLength) begin_ = end_ - (kReadyLineLength - 1);
        memmove(buffer_, buffer_ + begin_, buffered());
        end_ -= begin_;
        begin_ = 0;

        size_t count = 0;
        m_->transport_reads.fetch_add(1, std::memory_order_relaxed);
        uint32_t error =
            io_read_ex(m_->read_handle(), &read_kind_, m_->cancel_signal(), io_no_timeout,
                       buffer_ + end_, kStreamReceiveBufferSize - end_, &count);
        if (!error && !count) error = 109;
        if (error) {
            m_->Printf(text::kHandshakeError, static_cast<int>(error));
            return error;
        }
        end_ += count;
    }
}

uint32_t StreamTransport::read_some(uint8_t* at, size_t length, size_t* count) {
    m_->wake_writer();
    for (;;) {
        // While the formatter works on requests, wake up now and then: the state the wait
        // depends on (in flight or idle, the idle time-out) may have changed meanwhile.
        bool busy = m_->in_flight() > 0;
        uint32_t idle = m_->idle_read_timeout();
        uint32_t timeout = busy ? kStreamBusyReadTimeout : idle ? idle : io_no_timeout;
        *count = 0;
        m_->transport_reads.fetch_add(1, std::memory_order_relaxed);
        uint32_t error = io_read_ex(m_->read_handle(), &read_kind_, m_->cancel_signal(), timeout,
                                    at, length, count);
        if (error == 121 && busy) continue;
        if (!error && !*count) error = 109;
        if (error) m_->Printf(text::kSocketReadError, static_cast<int>(error));
        return error;
    }
}

uint32_t StreamTransport::read_exact(uint8_t* at, size_t length) {
    while (length) {
        size_t count;
        uint32_t error = read_some(at, length, &count);
        if (error) return error;
        at += count;
        length -= count;
    }
    return 0;
}

uint32_t StreamTransport::fill(size_t length) {
    while (buffered() < length) {
        // Move the partial message to the front when the rest would not fit behind it, or when
        // so little room is left that the next read would carry little.
        size_t room = kStreamReceiveBufferSize - end_;
        if (begin_ && (room < length - buffered() || room < 4096)) {
            memmove(buffer_, buffer_ + begin_, buffered());
            end_ -= begin_;
            begin_ = 0;
        }
        size_t count;
        uint32_t error = read_some(buffer_ + end_, kStreamReceiveBufferSize - end_, &count);
        if (error) return error;
        end_ += count;
    }
    return 0;
}

void StreamTransport::consume(size_t length) {
    begin_ += length;
    if (begin_ == end_) begin_ = end_ = 0;
}

uint32_t StreamTransport::discard(size_t length) {
    size_t from_buffer = length < buffered() ? length : buffered();
    consume(from_buffer);
    length -= from_buffer;
    while (length) {
        size_t count;
        size_t chunk = length < kStreamReceiveBufferSize ? length : kStreamReceiveBufferSize;
        uint32_t error = read_some(buffer_, chunk, &count);
        if (error) return error;
        length -= count;
    }
    return 0;
}

uint32_t StreamTransport::receive_loop() {
    while (!m_->disconnecting()) {
        uint32_t error = fill(8);
        if (error) return error;
        const uint8_t* header = buffer_ + begin_;
        uint32_t size = load_u32(header);
        uint32_t code = load_u32(header + 4);
        uint32_t op = code_word_field(code);
        bool is_write = op == static_cast<uint32_t>(Operation::Write);
        uint32_t limit = is_write ? kMaxMessageSize : kMaxStreamRequestSize;
        if (size < 8 || size % 8 || code_word_is_reply(code) || size > limit) {
            m_->Printf(text::kProtocolStreamError);
            return 11;
        }

        RequestContext* context = request_context_create(m_);
        if (!context) return 14;
        if (is_write && size >= kWriteHeaderSize) {
            error = receive_write(context, size);
        } else {
            error = fill(size);
            if (!error) {
                m_->dispatch(context, buffer_ + begin_, size, false);
                consume(size);
            }
        }
        if (error) {
            request_context_free(context);
            return error;
        }
    }
    return 0;
}

// A write request: its data go to a block of their own, placed so that they sit at an address
// aligned like their file offset; whatever of them has already arrived is copied there, the rest
// is read straight into place.
uint32_t StreamTransport::receive_write(RequestContext* context, uint32_t size) {
    uint32_t error = fill(kWriteHeaderSize);
    if (error) return error;
    WriteFields fields;
    if (decode_write(buffer_ + begin_, size, &fields) != ProtocolError::Success) {
        // Not relocated: the request is answered from its header alone. A body that fits the
        // receive buffer is read with it; a longer one is dropped, so the stream stays in step.
        if (size <= kStreamReceiveBufferSize) {
            error = fill(size);
            if (error) return error;
            m_->dispatch(context, buffer_ + begin_, size, false);
            consume(size);
            return 0;
        }
        uint8_t header[kWriteHeaderSize];
        memcpy(header, buffer_ + begin_, kWriteHeaderSize);
        error = discard(size);
        if (error) return error;
        m_->dispatch(context, header, kWriteHeaderSize, false);
        return 0;
    }

    uint32_t align = m_->data_align();
    auto* block = static_cast<uint8_t*>(malloc(write_relocation_size(size, align)));
    if (!block) {
        uint8_t header[kWriteHeaderSize];
        memcpy(header, buffer_ + begin_, kWriteHeaderSize);
        error = discard(size);
        if (error) return error;
        m_->dispatch_failed(context, header, ProtocolError::OutOfMemory);
        return 0;
    }
    context->message_block = block;
    uint8_t* message = write_relocation_place(block, fields, align);
    size_t have = buffered() < size ? buffered() : size;
    memcpy(message, buffer_ + begin_, have);
    consume(have);
    error = read_exact(message + have, size - have);
    if (error) return error;
    m_->dispatch(context, message, size, true);
    return 0;
}

} // namespace zun
