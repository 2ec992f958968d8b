// The request object of every operation.
//
// Each class decodes its message in its constructor (error stays Invalid when the message is
// shorter than the operation's minimum), prints its request block when decoding succeeded,
// forwards start to its slot of FormatterRequestHandler, and builds its reply in Complete. What
// must wait for the marshaller lock (the sequence hook and the record it may change, the
// success block) happens in finish_locked.
#include <new>
#include <stdlib.h>
#include <string.h>

#include "protocol/control_reply.h"
#include "protocol/data_placement.h"
#include "protocol/fast_pipe.h"
#include "protocol/list_reply.h"
#include "protocol/marshaller_messages.h"
#include "protocol/marshaller_object.h"
#include "protocol/operation.h"
#include "protocol/reply_encode.h"
#include "protocol/request_context.h"
#include "protocol/request_decode.h"
#include "protocol/request_name.h"
#include "protocol/request_object.h"
#include "protocol/small_buffer.h"
#include "protocol/utf8.h"
#include "protocol/wire.h"

namespace zun {

namespace text = marshaller_text;

MarshallerObject& RequestObject::marshaller() const {
    return *context->marshaller;
}

void RequestObject::complete(ProtocolError result) {
    context->marshaller->complete(this, result);
}

bool RequestObject::direct_result() const {
    return id != 0 && context->descriptor.transfer_type == kTransferWriteDirect;
}

namespace {

constexpr size_t kInlineReplySize = 320;

bool long_enough(uint32_t size, Operation op) {
    return size >= kMinimumRequestSize[static_cast<uint32_t>(op)];
}

// A name as traces print it: "/" before every component, so the root is empty and a/b is /a/b.
class NameText {
public:
    NameText(const NameComponent* components, size_t count) {
        size_t units = 1;
        for (size_t i = 0; i < count; ++i) units += components[i].utf16_length + 1;
        wchar_t* out = inline_;
        if (units > sizeof inline_ / sizeof inline_[0]) {
            heap_ = static_cast<wchar_t*>(malloc(units * sizeof(wchar_t)));
            if (!heap_) count = 0; // a trace line is not worth failing the request for
            out = heap_ ? heap_ : inline_;
        }
        text_ = out;
        for (size_t i = 0; i < count; ++i) {
            *out++ = L'/';
            memcpy(out, components[i].utf16, components[i].utf16_length * sizeof(wchar_t));
            out += components[i].utf16_length;
        }
        *out = L'\0';
    }
    ~NameText() { free(heap_); }
    NameText(const NameText&) = delete;
    NameText& operator=(const NameText&) = delete;
    const wchar_t* get() const { return text_; }

private:
    wchar_t inline_[160];
    wchar_t* heap_ = nullptr;
    const wchar_t* text_;
};

const FileInfo kNoFileInfo{};
const OpenedFileInfo kNoOpenedFileInfo{};

void print_opened_file_info(MarshallerObject& m, const wchar_t* format, uint32_t id,
                            const wchar_t* op, const OpenedFileInfo& o, uint8_t existed = 0,
                            uint64_t parent_file_id = 0, const char* end_name = nullptr) {
    const FileInfo& f = o.file;
    m.Printf(format, id, op, o.open_id, o.open_sequence, o.access_level, o.control_flags,
             f.file_type, f.file_flags, f.extra_flags, f.color, f.file_id, f.file_size,
             f.create_time, f.access_time, f.write_time, f.change_time, existed, parent_file_id,
             end_name);
}

// The formatter-facing interface first, the internal one behind it.
template <class Interface> class Request : public Interface, public RequestObject {
protected:
    Request(RequestContext* context, uint32_t id) : RequestObject(context, id) {}
};

// ---------------------------------------------------------------------------------------------
// Replies that carry an OpenedFileInfo. The record is kept until finish_locked, where the
// sequence hook may still change its open sequence.

class InfoRecord {
public:
    void keep(const OpenedFileInfo* info, SequenceHook* hook) {
        info_ = info ? *info : kNoOpenedFileInfo;
        hook_ = hook;
    }
    // Runs the hook and stores the record at `at`.
    void store(uint8_t* at) {
        if (hook_) hook_->UpdateOpenSequence(info_.open_id, &info_.open_sequence);
        store_opened_file_info(at, info_);
    }
    const OpenedFileInfo& info() const { return info_; }

private:
    OpenedFileInfo info_{};
    SequenceHook* hook_ = nullptr;
};

// open and move: the fixed part, the record and the end name as UTF-8.
class OpenReply {
public:
    ProtocolError build(uint32_t id, uint8_t existed, const OpenedFileInfo* info, uint64_t parent,
                        const wchar_t* end_name, SequenceHook* hook) {
        size_t size = open_reply_size(end_name);
        uint8_t* out = buffer_.acquire(size);
        if (!out) return ProtocolError::OutOfMemory;
        encode_open_reply(out, size, id, existed, nullptr, parent, end_name);
        record_.keep(info, hook);
        return ProtocolError::Success;
    }
    const uint8_t* data() const { return buffer_.data(); }
    size_t size() const { return buffer_.size(); }

    void finish(MarshallerObject& m, bool trace, uint32_t id, const wchar_t* op) {
        uint8_t* out = buffer_.data();
        record_.store(out + kOpenReplyInfoOffset);
        if (trace)
            print_opened_file_info(m, text::kTraceOpenSuccess, id, op, record_.info(),
                                   load_u8(out + 8), load_u64(out + 96),
                                   reinterpret_cast<const char*>(out + 104));
    }

private:
    SmallBuffer<kInlineReplySize> buffer_;
    InfoRecord record_;
};

// replace, access and flush with a record: 88 bytes.
class InfoReply {
public:
    void build(uint32_t id, const OpenedFileInfo* info, SequenceHook* hook) {
        encode_info_reply(bytes_, id, nullptr);
        record_.keep(info, hook);
    }
    const uint8_t* data() const { return bytes_; }

    void finish(MarshallerObject& m, bool trace, uint32_t id, const wchar_t* op) {
        record_.store(bytes_ + kInfoReplyInfoOffset);
        if (trace) print_opened_file_info(m, text::kTraceInfoSuccess, id, op, record_.info());
    }

private:
    alignas(8) uint8_t bytes_[kInfoReplySize];
    InfoRecord record_;
};

// ---------------------------------------------------------------------------------------------
// Built-in requests: answered by the marshaller itself.

class CancelRequestObject final : public RequestObject {
public:
    CancelRequestObject(RequestContext* c, uint32_t id) : RequestObject(c, id) {
        error = ProtocolError::Success;
        marshaller().Printf(text::kTraceCancel, id);
    }
    void start(FormatterRequestHandler*, FormatterScratch*) override {
        marshaller().Printf(text::kCancelNotImplemented);
        complete(ProtocolError::Success);
    }
    void finish_locked(bool trace) override {
        if (trace) marshaller().Printf(text::kTraceSuccess, id, L"cancel");
    }
};

class DisconnectRequestObject final : public RequestObject {
public:
    DisconnectRequestObject(RequestContext* c, uint32_t id) : RequestObject(c, id) {
        error = ProtocolError::Success;
        marshaller().set_disconnecting();
        marshaller().Printf(text::kTraceDisconnect, id);
    }
    void start(FormatterRequestHandler*, FormatterScratch*) override {
        complete(ProtocolError::Disconnected);
    }
};

class VersionRequestObject final : public RequestObject {
public:
    VersionRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : RequestObject(c, id) {
        VersionFields f;
        error = decode_version(msg, size, &f);
        if (error != ProtocolError::Success) return;
        marshaller().set_client_version(f.client_version);
        marshaller().Printf(text::kTraceVersion, id, f.client_version);
    }
    void start(FormatterRequestHandler*, FormatterScratch*) override {
        MarshallerObject& m = marshaller();
        VersionReplyFields f{m.volume_flags(), m.formatter_name(), m.data_align(), m.version_word(),
                             version_word_sent(m.fast_pipe(), m.client_version())};
        reply_length = encode_version_reply(bytes_, id, f);
        reply = bytes_;
        complete(ProtocolError::Success);
    }
    void finish_locked(bool trace) override {
        if (!trace) return;
        MarshallerObject& m = marshaller();
        const char* name = reinterpret_cast<const char*>(bytes_ + 16);
        m.Printf(text::kTraceVersionSuccess, id, kServerProtocolVersion, kMinClientCompatVersion,
                 m.volume_flags(), m.data_align(), name);
    }

private:
    alignas(8) uint8_t bytes_[kVersionReplySize];
};

// An operation this marshaller does not know.
class UnknownRequestObject final : public RequestObject {
public:
    UnknownRequestObject(RequestContext* c, uint32_t id, uint32_t op) : RequestObject(c, id) {
        marshaller().Printf(text::kTraceUnknown, id, op);
    }
    void start(FormatterRequestHandler*, FormatterScratch*) override {}
};

// A request that could not even be decoded (its message could not be kept).
class FailedRequestObject final : public RequestObject {
public:
    FailedRequestObject(RequestContext* c, uint32_t id, ProtocolError e) : RequestObject(c, id) {
        error = e;
    }
    void start(FormatterRequestHandler*, FormatterScratch*) override {}
};

// ---------------------------------------------------------------------------------------------
// Requests with names

class OpenRequestObject final : public Request<OpenRequest> {
public:
    OpenRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Open)) return;
        error = decode_open(msg, size, id, &f_, &name_);
        if (error != ProtocolError::Success || !marshaller().tracing()) return;
        NameText name(name_.components(), name_.count());
        marshaller().Printf(text::kTraceOpen, id, name.get(), f_.create_file_type,
                            f_.create_file_flags, f_.write_time, f_.new_create_open_id,
                            f_.existing_access_level, f_.new_existing_open_id);
    }
    const NameComponent* Name() override { return name_.components(); }
    size_t NameCount() override { return name_.count(); }
    int8_t CreateFileType() override { return f_.create_file_type; }
    uint8_t CreateFileFlags() override { return f_.create_file_flags; }
    int64_t WriteTime() override { return f_.write_time; }
    uint64_t NewCreateOpenId() override { return f_.new_create_open_id; }
    int8_t ExistingAccessLevel() override { return f_.existing_access_level; }
    uint64_t NewExistingOpenId() override { return f_.new_existing_open_id; }
    void Complete(ProtocolError e, uint8_t existed, const OpenedFileInfo* info, uint64_t parent,
                  const wchar_t* end_name, SequenceHook* hook) override {
        if (e == ProtocolError::Success) {
            e = reply_.build(id, existed, info, parent, end_name, hook);
            reply = reply_.data();
            reply_length = reply_.size();
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Open(this, s); }
    void finish_locked(bool trace) override { reply_.finish(marshaller(), trace, id, L"open"); }

private:
    OpenFields f_{};
    RequestName name_;
    OpenReply reply_;
};

class ReplaceRequestObject final : public Request<ReplaceRequest> {
public:
    ReplaceRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Replace)) return;
        error = decode_replace(msg, size, id, &f_, &name_);
        if (error != ProtocolError::Success) return;
        marshaller().Printf(text::kTraceReplace, id, f_.target_open_id, f_.target_parent_file_id,
                            name_[0].utf16, f_.create_file_flags, f_.write_time,
                            f_.new_create_open_id);
    }
    uint64_t TargetOpenId() override { return f_.target_open_id; }
    uint64_t TargetParentFileId() override { return f_.target_parent_file_id; }
    const NameComponent* TargetEndName() override { return &name_[0]; }
    uint8_t CreateFileFlags() override { return f_.create_file_flags; }
    int64_t WriteTime() override { return f_.write_time; }
    uint64_t NewCreateOpenId() override { return f_.new_create_open_id; }
    void Complete(ProtocolError e, const OpenedFileInfo* info, SequenceHook* hook) override {
        if (e == ProtocolError::Success) {
            reply_.build(id, info, hook);
            reply = reply_.data();
            reply_length = kInfoReplySize;
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Replace(this, s); }
    void finish_locked(bool trace) override { reply_.finish(marshaller(), trace, id, L"replace"); }

private:
    ReplaceFields f_{};
    RequestName name_;
    InfoReply reply_;
};

class MoveRequestObject final : public Request<MoveRequest> {
public:
    MoveRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Move)) return;
        error = decode_move(msg, size, id, &f_, &name_);
        if (error != ProtocolError::Success || !marshaller().tracing()) return;
        NameText target(TargetName(), TargetNameCount());
        marshaller().Printf(text::kTraceMove, id, f_.source_open_id, f_.source_parent_file_id,
                            name_[0].utf16, target.get(), f_.delete_source ? 1 : 0, f_.write_time,
                            f_.existing_access_level, f_.new_existing_open_id);
    }
    uint64_t SourceOpenId() override { return f_.source_open_id; }
    uint64_t SourceParentFileId() override { return f_.source_parent_file_id; }
    const NameComponent* SourceEndName() override { return &name_[0]; }
    const NameComponent* TargetName() override { return name_.components() + 1; }
    size_t TargetNameCount() override { return name_.count() - 1; }
    bool DeleteSource() override { return f_.delete_source; }
    int64_t WriteTime() override { return f_.write_time; }
    uint64_t NewExistingOpenId() override { return f_.new_existing_open_id; }
    void Complete(ProtocolError e, uint8_t existed, const OpenedFileInfo* info, uint64_t parent,
                  const wchar_t* end_name, SequenceHook* hook) override {
        if (e == ProtocolError::Success) {
            e = reply_.build(id, existed, info, parent, end_name, hook);
            reply = reply_.data();
            reply_length = reply_.size();
        }
        complete(e);
    }
    int8_t ExistingAccessLevel() override { return f_.existing_access_level; }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Move(this, s); }
    void finish_locked(bool trace) override { reply_.finish(marshaller(), trace, id, L"move"); }

private:
    MoveFields f_{};
    RequestName name_;
    OpenReply reply_;
};

class MoveReplaceRequestObject final : public Request<MoveReplaceRequest> {
public:
    MoveReplaceRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::MoveReplace)) return;
        error = decode_move_replace(msg, size, id, &f_, &name_);
        if (error != ProtocolError::Success) return;
        marshaller().Printf(text::kTraceMoveReplace, id, f_.source_open_id,
                            f_.source_parent_file_id, name_[0].utf16, f_.target_open_id,
                            f_.target_parent_file_id, name_[1].utf16, f_.delete_source ? 1 : 0,
                            f_.write_time);
    }
    uint64_t SourceOpenId() override { return f_.source_open_id; }
    uint64_t SourceParentFileId() override { return f_.source_parent_file_id; }
    const NameComponent* SourceEndName() override { return &name_[0]; }
    uint64_t TargetOpenId() override { return f_.target_open_id; }
    uint64_t TargetParentFileId() override { return f_.target_parent_file_id; }
    const NameComponent* TargetEndName() override { return &name_[1]; }
    bool DeleteSource() override { return f_.delete_source; }
    int64_t WriteTime() override { return f_.write_time; }
    void Complete(ProtocolError e) override { complete(e); }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override {
        h->MoveReplace(this, s);
    }
    void finish_locked(bool trace) override {
        if (trace) marshaller().Printf(text::kTraceSuccess, id, L"movereplace");
    }

private:
    MoveReplaceFields f_{};
    RequestName name_;
};

class DeleteRequestObject final : public Request<DeleteRequest> {
public:
    DeleteRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Delete)) return;
        error = decode_delete(msg, size, id, &f_, &name_);
        if (error != ProtocolError::Success) return;
        marshaller().Printf(text::kTraceDelete, id, f_.open_id, f_.parent_file_id, name_[0].utf16,
                            f_.write_time);
    }
    uint64_t OpenId() override { return f_.open_id; }
    uint64_t ParentFileId() override { return f_.parent_file_id; }
    const NameComponent* EndName() override { return &name_[0]; }
    int64_t WriteTime() override { return f_.write_time; }
    void Complete(ProtocolError e) override { complete(e); }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Delete(this, s); }
    void finish_locked(bool trace) override {
        if (trace) marshaller().Printf(text::kTraceSuccess, id, L"delete");
    }

private:
    DeleteFields f_{};
    RequestName name_;
};

// ---------------------------------------------------------------------------------------------
// close, listend and setsize share one interface and one object.

class CloseRequestObject final : public Request<CloseRequest> {
public:
    CloseRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size,
                       Operation op)
        : Request(c, id), op_(op) {
        if (!long_enough(size, op)) return;
        error = decode_close(msg, size, &f_);
        if (error != ProtocolError::Success) return;
        const wchar_t* format = op == Operation::Close     ? text::kTraceClose
                                : op == Operation::ListEnd ? text::kTraceListEnd
                                                           : text::kTraceSetSize;
        marshaller().Printf(format, id, f_.open_id, f_.value);
    }
    uint64_t OpenId() override { return f_.open_id; }
    uint64_t Value() override { return f_.value; }
    void Complete(ProtocolError e) override { complete(e); }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override {
        if (op_ == Operation::Close)
            h->Close(this, s);
        else if (op_ == Operation::ListEnd)
            h->ListEnd(this, s);
        else
            h->SetSize(this, s);
    }
    void finish_locked(bool trace) override {
        if (!trace) return;
        const wchar_t* name = op_ == Operation::Close     ? L"close"
                              : op_ == Operation::ListEnd ? L"listend"
                                                          : L"setsize";
        marshaller().Printf(text::kTraceSuccess, id, name);
    }

private:
    Operation op_;
    CloseFields f_{};
};

// ---------------------------------------------------------------------------------------------
// flush: a FlushRequest from effective version 6, the older FlushRequestV1 below.

void print_flush_request(MarshallerObject& m, uint32_t id, const FlushFields& f) {
    m.Printf(text::kTraceFlush, id, f.open_id, f.flush_flags, f.file_flags, f.color, f.create_time,
             f.access_time, f.write_time, f.change_time);
}

class FlushRequestObject final : public Request<FlushRequest> {
public:
    FlushRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Flush)) return;
        error = decode_flush(msg, size, &f_);
        if (error == ProtocolError::Success) print_flush_request(marshaller(), id, f_);
    }
    uint64_t OpenId() override { return f_.open_id; }
    uint8_t FlushFlags() override { return f_.flush_flags; }
    uint8_t FileFlags() override { return f_.file_flags; }
    uint8_t Color() override { return f_.color; }
    int64_t CreateTime() override { return f_.create_time; }
    int64_t AccessTime() override { return f_.access_time; }
    int64_t WriteTime() override { return f_.write_time; }
    int64_t ChangeTime() override { return f_.change_time; }
    void Complete(ProtocolError e, const OpenedFileInfo* info, SequenceHook* hook) override {
        if (e == ProtocolError::Success && info) {
            reply_.build(id, info, hook);
            reply = reply_.data();
            reply_length = kInfoReplySize;
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Flush(this, s); }
    void finish_locked(bool trace) override {
        if (reply)
            reply_.finish(marshaller(), trace, id, L"flush");
        else if (trace)
            print_opened_file_info(marshaller(), text::kTraceInfoSuccess, id, L"flush",
                                   kNoOpenedFileInfo);
    }

private:
    FlushFields f_{};
    InfoReply reply_;
};

class FlushRequestV1Object final : public Request<FlushRequestV1> {
public:
    FlushRequestV1Object(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Flush)) return;
        error = decode_flush(msg, size, &f_);
        if (error == ProtocolError::Success) print_flush_request(marshaller(), id, f_);
    }
    uint64_t OpenId() override { return f_.open_id; }
    uint8_t FileFlags() override { return f_.file_flags; }
    int64_t CreateTime() override { return f_.create_time; }
    int64_t AccessTime() override { return f_.access_time; }
    int64_t WriteTime() override { return f_.write_time; }
    int64_t ChangeTime() override { return f_.change_time; }
    void Complete(ProtocolError e) override { complete(e); }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override {
        // The handler's slot is typed for the current table; formatters of older marshallers
        // know that they are given this one (as_flush_request_v1).
        h->Flush(reinterpret_cast<FlushRequest*>(static_cast<FlushRequestV1*>(this)), s);
    }
    void finish_locked(bool trace) override {
        if (trace)
            print_opened_file_info(marshaller(), text::kTraceInfoSuccess, id, L"flush",
                                   kNoOpenedFileInfo);
    }

private:
    FlushFields f_{};
};

// ---------------------------------------------------------------------------------------------
// list

class ListRequestObject final : public Request<ListRequest> {
public:
    ListRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::List)) return;
        error = decode_list(msg, size, &f_, &buffer_);
        if (error != ProtocolError::Success) return;
        marshaller().Printf(text::kTraceList, id, f_.open_id, f_.list_id, f_.max_result_count);
    }
    uint64_t OpenId() override { return f_.open_id; }
    uint64_t ListId() override { return f_.list_id; }
    bool Add(const FileInfo* info, const wchar_t* name) override {
        return buffer_.add_utf16(info ? *info : kNoFileInfo, name, utf16_length(name));
    }
    bool AddUtf8(const FileInfo* info, const char* name) override {
        return buffer_.add(info ? *info : kNoFileInfo, name, name ? strlen(name) : 0);
    }
    void Complete(ProtocolError e, uint8_t no_more) override {
        if (e == ProtocolError::Success) reply = buffer_.finish(id, no_more, &reply_length);
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->List(this, s); }
    void finish_locked(bool trace) override {
        if (!trace) return;
        MarshallerObject& m = marshaller();
        uint32_t count = load_u32(reply + 8);
        const uint8_t* entry = reply + 16;
        const char* name = reinterpret_cast<const char*>(entry + sizeof(FileInfo) * count);
        for (uint32_t i = 0; i < count; ++i, entry += sizeof(FileInfo)) {
            m.Printf(text::kTraceListEntry, id, name, load_i8(entry), load_u8(entry + 1),
                     load_u8(entry + 2), load_u8(entry + 3), load_u64(entry + 8),
                     load_u64(entry + 16), load_i64(entry + 24), load_i64(entry + 32),
                     load_i64(entry + 40), load_i64(entry + 48));
            name += strlen(name) + 1;
        }
        m.Printf(text::kTraceListSuccess, id, count, load_u8(reply + 12));
    }

private:
    ListFields f_{};
    ListReplyBuffer buffer_;
};

// ---------------------------------------------------------------------------------------------
// read and write

class ReadRequestObject final : public Request<ReadRequest> {
public:
    ReadRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Read)) return;
        error = decode_read(msg, size, &f_);
        if (error != ProtocolError::Success) {
            marshaller().Printf(text::kInvalidRead);
            return;
        }
        if (direct_result()) {
            // Built in the client's buffer, whose alignment the client chose with the padding.
            const FastPipeDescriptor& d = context->descriptor;
            DirectReadCheck check = buffer_.init_direct(f_, marshaller().data_align(), d.output,
                                                        static_cast<size_t>(d.output_size));
            if (check != DirectReadCheck::Ok) {
                marshaller().Printf(check == DirectReadCheck::BadPadding
                                        ? text::kInvalidDirectReadPadding
                                        : text::kInvalidDirectReadSize);
                error = ProtocolError::Invalid;
                return;
            }
        } else {
            error = buffer_.init(f_, marshaller().data_align());
            if (error != ProtocolError::Success) return;
        }
        marshaller().Printf(text::kTraceRead, id, f_.open_id, f_.file_offset,
                            uint64_t{f_.requested_size});
    }
    uint64_t OpenId() override { return f_.open_id; }
    uint64_t FileOffset() override { return f_.file_offset; }
    void* Data() override { return buffer_.data(); }
    size_t RequestedSize() override { return f_.requested_size; }
    void Complete(ProtocolError e, size_t actual_size) override {
        if (e == ProtocolError::Success) {
            reply_length = buffer_.finish(id, actual_size);
            reply = buffer_.reply();
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Read(this, s); }
    void finish_locked(bool trace) override {
        if (trace)
            marshaller().Printf(text::kTraceDataSuccess, id, L"read",
                                uint64_t{load_u32(reply + 8)});
    }

private:
    ReadFields f_{};
    ReadReplyBuffer buffer_;
};

class WriteRequestObject final : public Request<WriteRequest> {
public:
    WriteRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Write)) return;
        error = decode_write(msg, size, &f_);
        if (error != ProtocolError::Success) {
            marshaller().Printf(text::kInvalidWrite);
            return;
        }
        if (direct_result() && !write_direct_output_fits(context->descriptor.output_size)) {
            marshaller().Printf(text::kInvalidDirectWriteSize);
            error = ProtocolError::Invalid;
            return;
        }
        marshaller().Printf(text::kTraceWrite, id, f_.open_id, f_.file_offset,
                            uint64_t{f_.requested_size});
    }
    uint64_t OpenId() override { return f_.open_id; }
    uint64_t FileOffset() override { return f_.file_offset; }
    const void* Data() override { return f_.data; }
    size_t RequestedSize() override { return f_.requested_size; }
    void Complete(ProtocolError e, size_t actual_size) override {
        if (e == ProtocolError::Success) {
            uint32_t actual = actual_size < f_.requested_size ? static_cast<uint32_t>(actual_size)
                                                              : f_.requested_size;
            reply_length = encode_write_reply(bytes_, id, actual);
            reply = bytes_;
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Write(this, s); }
    void finish_locked(bool trace) override {
        if (trace)
            marshaller().Printf(text::kTraceDataSuccess, id, L"write",
                                uint64_t{load_u32(bytes_ + 8)});
    }

private:
    WriteFields f_{};
    alignas(8) uint8_t bytes_[kWriteReplySize];
};

// ---------------------------------------------------------------------------------------------
// setsize lives with close; capacity, flushmedia, control, mediainfo, access

class CapacityRequestObject final : public Request<CapacityRequest> {
public:
    CapacityRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        error = decode_capacity(msg, size, &f_);
        if (error == ProtocolError::Success)
            marshaller().Printf(text::kTraceCapacity, id, f_.open_id);
    }
    uint64_t OpenId() override { return f_.open_id; }
    void Complete(ProtocolError e, uint64_t total, uint64_t available) override {
        if (e == ProtocolError::Success) {
            reply_length = encode_capacity_reply(bytes_, id, total, available);
            reply = bytes_;
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Capacity(this, s); }
    void finish_locked(bool trace) override {
        if (trace)
            marshaller().Printf(text::kTraceCapacitySuccess, id, load_u64(bytes_ + 8),
                                load_u64(bytes_ + 16));
    }

private:
    OpenIdFields f_{};
    alignas(8) uint8_t bytes_[kCapacityReplySize];
};

class FlushMediaRequestObject final : public Request<FlushMediaRequest> {
public:
    FlushMediaRequestObject(RequestContext* c, uint32_t id) : Request(c, id) {
        error = ProtocolError::Success;
        marshaller().Printf(text::kTraceFlushMedia, id);
    }
    void Complete(ProtocolError e, int32_t flush_delay) override {
        if (e == ProtocolError::Success) {
            reply_length = encode_flush_media_reply(bytes_, id, flush_delay);
            reply = bytes_;
            // The client promises to flush again within the delay: a receive loop with nothing
            // in flight may then give up on a client that stays silent much longer.
            uint32_t timeout = 0;
            if (!flush_delay_idle_timeout(flush_delay, &timeout)) timeout = 0;
            marshaller().set_idle_read_timeout(timeout);
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->FlushMedia(this, s); }
    void finish_locked(bool trace) override {
        if (trace) marshaller().Printf(text::kTraceFlushMediaSuccess, id, load_i32(bytes_ + 12));
    }

private:
    alignas(8) uint8_t bytes_[kFlushMediaReplySize];
};

class ControlRequestObject final : public Request<ControlRequest> {
public:
    ControlRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Control)) return;
        error = decode_control(msg, size, &f_);
        if (error != ProtocolError::Success) return;
        error = buffer_.init(f_);
        if (error != ProtocolError::Success) return;
        marshaller().Printf(text::kTraceControl, id, f_.open_id, f_.access_level, f_.control_code,
                            uint64_t{f_.input_size}, uint64_t{f_.max_output_size});
    }
    uint64_t OpenId() override { return f_.open_id; }
    int8_t AccessLevel() override { return f_.access_level; }
    uint32_t ControlCode() override { return f_.control_code; }
    const void* InputData() override { return buffer_.input(); }
    size_t InputSize() override { return f_.input_size; }
    void* OutputBuffer() override { return buffer_.output(); }
    size_t MaxOutputSize() override { return f_.max_output_size; }
    void Complete(ProtocolError e, size_t output_size) override {
        if (e == ProtocolError::Success) reply = buffer_.finish(id, output_size, &reply_length);
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Control(this, s); }
    void finish_locked(bool trace) override {
        if (trace)
            marshaller().Printf(text::kTraceControlSuccess, id, uint64_t{load_u32(reply + 8)});
    }

private:
    ControlFields f_{};
    ControlReplyBuffer buffer_;
};

class MediaInfoRequestObject final : public Request<MediaInfoRequest> {
public:
    MediaInfoRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::MediaInfo)) return;
        error = decode_media_info(msg, size, &f_);
        if (error == ProtocolError::Success)
            marshaller().Printf(text::kTraceMediaInfo, id, f_.open_id);
    }
    uint64_t OpenId() override { return f_.open_id; }
    void Complete(ProtocolError e, const MediaInfo* info, const wchar_t* label) override {
        if (e == ProtocolError::Success) {
            size_t size = media_info_reply_size(label);
            uint8_t* out = buffer_.acquire(size);
            if (out) {
                encode_media_info_reply(out, size, id, info, label);
                reply = out;
                reply_length = size;
            } else {
                e = ProtocolError::OutOfMemory;
            }
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->MediaInfo(this, s); }
    void finish_locked(bool trace) override {
        if (!trace) return;
        marshaller().Printf(text::kTraceMediaInfoSuccess, id, reply + 16, load_u64(reply + 32),
                            load_u32(reply + 40), load_u8(reply + 44), load_i64(reply + 8),
                            reinterpret_cast<const char*>(reply + 56));
    }

private:
    OpenIdFields f_{};
    SmallBuffer<kInlineReplySize> buffer_;
};

class AccessRequestObject final : public Request<AccessRequest> {
public:
    AccessRequestObject(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size)
        : Request(c, id) {
        if (!long_enough(size, Operation::Access)) return;
        error = decode_access(msg, size, &f_);
        if (error == ProtocolError::Success)
            marshaller().Printf(text::kTraceAccess, id, f_.open_id, f_.access_level);
    }
    uint64_t OpenId() override { return f_.open_id; }
    int8_t AccessLevel() override { return f_.access_level; }
    void Complete(ProtocolError e, const OpenedFileInfo* info, SequenceHook* hook) override {
        if (e == ProtocolError::Success) {
            reply_.build(id, info, hook);
            reply = reply_.data();
            reply_length = kInfoReplySize;
        }
        complete(e);
    }
    void start(FormatterRequestHandler* h, FormatterScratch* s) override { h->Access(this, s); }
    void finish_locked(bool trace) override { reply_.finish(marshaller(), trace, id, L"access"); }

private:
    AccessFields f_{};
    InfoReply reply_;
};

// ---------------------------------------------------------------------------------------------
// Building

constexpr size_t kStorageSize = sizeof(RequestContext::storage);

template <class T, class... Args> RequestObject* build(RequestContext* c, Args... args) {
    static_assert(sizeof(T) <= kStorageSize, "request object too large for its context");
    static_assert(alignof(T) <= 8);
    return new (c->storage) T(c, args...);
}

// Names stay as the client sent them (the UTF-8 texts of the components point into the
// message), so a message that arrived in a shared receive buffer is copied: behind the object
// in the context when it fits, else into a block of its own.
template <class T>
RequestObject* build_named(RequestContext* c, uint32_t id, const uint8_t* msg, uint32_t size,
                           bool stable) {
    static_assert(sizeof(T) <= kStorageSize);
    if (!stable) {
        constexpr size_t at = round_up8(sizeof(T));
        uint8_t* copy;
        if (at + size <= kStorageSize) {
            copy = c->storage + at;
        } else {
            copy = static_cast<uint8_t*>(malloc(size));
            if (!copy) return build<FailedRequestObject>(c, id, ProtocolError::OutOfMemory);
            c->message_block = copy;
        }
        memcpy(copy, msg, size);
        msg = copy;
    }
    return build<T>(c, id, msg, size);
}

} // namespace

RequestObject* request_build_failed(RequestContext* c, uint32_t id, ProtocolError error) {
    return build<FailedRequestObject>(c, id, error);
}

RequestObject* request_build(RequestContext* c, const uint8_t* msg, uint32_t size, bool stable) {
    uint32_t code = load_u32(msg + 4);
    uint32_t id = code_word_request_id(code);
    uint32_t op = code_word_field(code);
    MarshallerObject& m = *c->marshaller;
    if (!operation_find(op, m.version())) return build<UnknownRequestObject>(c, id, op);

    switch (static_cast<Operation>(op)) {
    case Operation::Cancel:
        return build<CancelRequestObject>(c, id);
    case Operation::Disconnect:
        return build<DisconnectRequestObject>(c, id);
    case Operation::Version:
        return build<VersionRequestObject>(c, id, msg, size);
    case Operation::Open:
        return build_named<OpenRequestObject>(c, id, msg, size, stable);
    case Operation::Replace:
        return build_named<ReplaceRequestObject>(c, id, msg, size, stable);
    case Operation::Move:
        return build_named<MoveRequestObject>(c, id, msg, size, stable);
    case Operation::MoveReplace:
        return build_named<MoveReplaceRequestObject>(c, id, msg, size, stable);
    case Operation::Delete:
        return build_named<DeleteRequestObject>(c, id, msg, size, stable);
    case Operation::Close:
    case Operation::ListEnd:
    case Operation::SetSize:
        return build<CloseRequestObject>(c, id, msg, size, static_cast<Operation>(op));
    case Operation::Flush:
        if (m.flush_version() >= 6) return build<FlushRequestObject>(c, id, msg, size);
        return build<FlushRequestV1Object>(c, id, msg, size);
    case Operation::List:
        return build<ListRequestObject>(c, id, msg, size);
    case Operation::Read:
        return build<ReadRequestObject>(c, id, msg, size);
    case Operation::Write:
        return build<WriteRequestObject>(c, id, msg, size);
    case Operation::Capacity:
        return build<CapacityRequestObject>(c, id, msg, size);
    case Operation::FlushMedia:
        return build<FlushMediaRequestObject>(c, id);
    case Operation::Control:
        return build<ControlRequestObject>(c, id, msg, size);
    case Operation::MediaInfo:
        return build<MediaInfoRequestObject>(c, id, msg, size);
    case Operation::Access:
        return build<AccessRequestObject>(c, id, msg, size);
    }
    return build<UnknownRequestObject>(c, id, op);
}

} // namespace zun
