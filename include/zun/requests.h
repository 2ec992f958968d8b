// zun/requests.h: what a formatter implements and what it receives.
//
// The marshaller decodes each request into a request object and calls the matching operation
// of the formatter's FormatterRequestHandler with it. The formatter reads the request through
// its getters and, then or later and on any thread, calls its Complete exactly once. Until then
// the object and everything its getters returned (names, data buffers) stay valid; after
// Complete the formatter must not touch them again. Many requests are in flight at once and
// may be completed in any order.
//
// All interfaces here are tables of operations in a fixed slot order, shared with modules built
// by other compilers: no virtual destructors, no overloaded names, plain types only.
#pragma once

#include <zun/protocol.h>

namespace zun {

// 240 bytes that travel with every request and belong to the formatter alone: the marshaller
// never reads or writes them. Room for a formatter's per-request state without an allocation.
struct FormatterScratch {
    alignas(8) uint8_t bytes[240];
};
static_assert(sizeof(FormatterScratch) == 240);
static_assert(alignof(FormatterScratch) == 8);

// Optionally passed to the Complete of an open, move, replace, flush or access. Called once,
// just before the reply is finalised, with the open id and the open sequence of the record being
// sent; it may change the open sequence. It runs under the marshaller's lock: keep it short.
struct SequenceHook {
    virtual void UpdateOpenSequence(uint64_t open_id, uint64_t* open_sequence) = 0;
};

// Strings a formatter passes to Complete (end names, labels, list names) are NUL-terminated;
// a null pointer stands for the empty string. Records passed to Complete are copied before it
// returns.

// open: open or create the file named by the path from the volume root.
struct OpenRequest {
    virtual const NameComponent* Name() = 0;
    virtual size_t NameCount() = 0; // 0 for the volume root
    virtual int8_t CreateFileType() = 0;
    virtual uint8_t CreateFileFlags() = 0;
    virtual int64_t WriteTime() = 0;
    virtual uint64_t NewCreateOpenId() = 0;
    virtual int8_t ExistingAccessLevel() = 0;
    virtual uint64_t NewExistingOpenId() = 0;
    virtual void Complete(ProtocolError error, uint8_t existed, const OpenedFileInfo* info,
                          uint64_t parent_file_id, const wchar_t* end_name, SequenceHook* hook) = 0;
};

// replace: the target is named by its end name within the target's parent.
struct ReplaceRequest {
    virtual uint64_t TargetOpenId() = 0;
    virtual uint64_t TargetParentFileId() = 0;
    virtual const NameComponent* TargetEndName() = 0;
    virtual uint8_t CreateFileFlags() = 0;
    virtual int64_t WriteTime() = 0;
    virtual uint64_t NewCreateOpenId() = 0;
    virtual void Complete(ProtocolError error, const OpenedFileInfo* info, SequenceHook* hook) = 0;
};

// move: the source is named by its end name within the source's parent; the target by its
// path from the volume root.
struct MoveRequest {
    virtual uint64_t SourceOpenId() = 0;
    virtual uint64_t SourceParentFileId() = 0;
    virtual const NameComponent* SourceEndName() = 0;
    virtual const NameComponent* TargetName() = 0;
    virtual size_t TargetNameCount() = 0;
    virtual bool DeleteSource() = 0;
    virtual int64_t WriteTime() = 0;
    virtual uint64_t NewExistingOpenId() = 0;
    virtual void Complete(ProtocolError error, uint8_t existed, const OpenedFileInfo* info,
                          uint64_t parent_file_id, const wchar_t* end_name, SequenceHook* hook) = 0;
    // Appended after Complete by a later version of the interface. A request carrying access
    // level 0 reports 4.
    virtual int8_t ExistingAccessLevel() = 0;
};

// movereplace: source and target are each named by an end name within their parent.
struct MoveReplaceRequest {
    virtual uint64_t SourceOpenId() = 0;
    virtual uint64_t SourceParentFileId() = 0;
    virtual const NameComponent* SourceEndName() = 0;
    virtual uint64_t TargetOpenId() = 0;
    virtual uint64_t TargetParentFileId() = 0;
    virtual const NameComponent* TargetEndName() = 0;
    virtual bool DeleteSource() = 0;
    virtual int64_t WriteTime() = 0;
    virtual void Complete(ProtocolError error) = 0;
};

struct DeleteRequest {
    virtual uint64_t OpenId() = 0;
    virtual uint64_t ParentFileId() = 0;
    virtual const NameComponent* EndName() = 0;
    virtual int64_t WriteTime() = 0;
    virtual void Complete(ProtocolError error) = 0;
};

// Shared by close, listend and setsize: Value() is the open sequence (close), the list id
// (listend) or the new file size (setsize).
struct CloseRequest {
    virtual uint64_t OpenId() = 0;
    virtual uint64_t Value() = 0;
    virtual void Complete(ProtocolError error) = 0;
};

// flush, as handed out by ZunMarshaller6 and by the flat adapters. A null info answers with
// the header only.
struct FlushRequest {
    virtual uint64_t OpenId() = 0;
    virtual uint8_t FlushFlags() = 0;
    virtual uint8_t FileFlags() = 0;
    virtual uint8_t Color() = 0;
    virtual int64_t CreateTime() = 0;
    virtual int64_t AccessTime() = 0;
    virtual int64_t WriteTime() = 0;
    virtual int64_t ChangeTime() = 0;
    virtual void Complete(ProtocolError error, const OpenedFileInfo* info, SequenceHook* hook) = 0;
};

// flush, as handed out by marshallers of versions 1 to 5; the reply is the header only.
struct FlushRequestV1 {
    virtual uint64_t OpenId() = 0;
    virtual uint8_t FileFlags() = 0;
    virtual int64_t CreateTime() = 0;
    virtual int64_t AccessTime() = 0;
    virtual int64_t WriteTime() = 0;
    virtual int64_t ChangeTime() = 0;
    virtual void Complete(ProtocolError error) = 0;
};

// list: add entries until Add returns false (the reply is full: that entry was not stored and
// belongs in the next list request), then Complete. no_more = 1 says the listing is finished.
struct ListRequest {
    virtual uint64_t OpenId() = 0;
    virtual uint64_t ListId() = 0;
    virtual bool Add(const FileInfo* info, const wchar_t* name) = 0;
    virtual bool AddUtf8(const FileInfo* info, const char* name) = 0;
    virtual void Complete(ProtocolError error, uint8_t no_more) = 0;
};

// read: write at most RequestedSize() bytes to Data() and report how many. Data() is the
// reply's own data area, placed so that its address is congruent to FileOffset() modulo the
// data align the formatter asked for when it started serving.
struct ReadRequest {
    virtual uint64_t OpenId() = 0;
    virtual uint64_t FileOffset() = 0;
    virtual void* Data() = 0;
    virtual size_t RequestedSize() = 0;
    virtual void Complete(ProtocolError error, size_t actual_size) = 0;
};

// write: Data() is aligned like FileOffset() modulo the data align, as for read.
struct WriteRequest {
    virtual uint64_t OpenId() = 0;
    virtual uint64_t FileOffset() = 0;
    virtual const void* Data() = 0;
    virtual size_t RequestedSize() = 0;
    virtual void Complete(ProtocolError error, size_t actual_size) = 0;
};

struct CapacityRequest {
    virtual uint64_t OpenId() = 0; // 0 when the client sent none
    virtual void Complete(ProtocolError error, uint64_t total_capacity,
                          uint64_t available_capacity) = 0;
};

// flushmedia: the flush delay (milliseconds) tells the client when to flush again; a negative
// delay, or 0x7FFFFFFF, asks for no timed flushes.
struct FlushMediaRequest {
    virtual void Complete(ProtocolError error, int32_t flush_delay) = 0;
};

// control: write at most MaxOutputSize() bytes to OutputBuffer() and report how many.
struct ControlRequest {
    virtual uint64_t OpenId() = 0;
    virtual int8_t AccessLevel() = 0;
    virtual uint32_t ControlCode() = 0;
    virtual const void* InputData() = 0;
    virtual size_t InputSize() = 0;
    virtual void* OutputBuffer() = 0;
    virtual size_t MaxOutputSize() = 0;
    virtual void Complete(ProtocolError error, size_t output_size) = 0;
};

struct MediaInfoRequest {
    virtual uint64_t OpenId() = 0;
    virtual void Complete(ProtocolError error, const MediaInfo* info, const wchar_t* label) = 0;
};

struct AccessRequest {
    virtual uint64_t OpenId() = 0;
    virtual int8_t AccessLevel() = 0;
    virtual void Complete(ProtocolError error, const OpenedFileInfo* info, SequenceHook* hook) = 0;
};

// Implemented by the formatter: one operation per file-system request, in this slot order.
// Each returns at once or after completing; the request is finished only by its Complete.
struct FormatterRequestHandler {
    virtual void Open(OpenRequest* request, FormatterScratch* scratch) = 0;
    virtual void Replace(ReplaceRequest* request, FormatterScratch* scratch) = 0;
    virtual void Move(MoveRequest* request, FormatterScratch* scratch) = 0;
    virtual void MoveReplace(MoveReplaceRequest* request, FormatterScratch* scratch) = 0;
    virtual void Delete(DeleteRequest* request, FormatterScratch* scratch) = 0;
    virtual void Close(CloseRequest* request, FormatterScratch* scratch) = 0;
    // Marshallers of versions 1 to 5 pass a FlushRequestV1 here: see as_flush_request_v1.
    virtual void Flush(FlushRequest* request, FormatterScratch* scratch) = 0;
    virtual void List(ListRequest* request, FormatterScratch* scratch) = 0;
    virtual void ListEnd(CloseRequest* request, FormatterScratch* scratch) = 0;
    virtual void Read(ReadRequest* request, FormatterScratch* scratch) = 0;
    virtual void Write(WriteRequest* request, FormatterScratch* scratch) = 0;
    virtual void SetSize(CloseRequest* request, FormatterScratch* scratch) = 0;
    virtual void Capacity(CapacityRequest* request, FormatterScratch* scratch) = 0;
    virtual void FlushMedia(FlushMediaRequest* request, FormatterScratch* scratch) = 0;
    virtual void Control(ControlRequest* request, FormatterScratch* scratch) = 0;
    virtual void MediaInfo(MediaInfoRequest* request, FormatterScratch* scratch) = 0;
    virtual void Access(AccessRequest* request, FormatterScratch* scratch) = 0;
};

// The flush request of a marshaller below version 6 has the older table.
inline FlushRequestV1* as_flush_request_v1(FlushRequest* request) {
    return reinterpret_cast<FlushRequestV1*>(request);
}

} // namespace zun
