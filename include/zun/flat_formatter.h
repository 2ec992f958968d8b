// zun/flat_formatter.h: the two flat formatter interfaces.
//
// A formatter that prefers plain calls to request objects implements one of these and serves
// through the marshaller's ServeOps (read-write) or ServeOpsV0 (read-only). Every file operation
// is then one synchronous call: the arguments are the request's fields, the answers come back
// through out-parameters, and the result is the operation's ProtocolError. Out records start
// zeroed and out strings start null. A string the formatter returns (an end name or a label) is
// handed back to slot 0 once the reply has been built.
#pragma once

#include <zun/requests.h>

namespace zun {

// Receives the entries of one list call. Add returns whether the entry was stored; when it was
// not (the reply is full) the formatter stops and the entry belongs in the next list call.
// stored, when not null, receives the same answer.
struct ListSink {
    virtual bool Add(const FileInfo* info, const wchar_t* name, bool* stored) = 0;
    virtual bool AddUtf8(const FileInfo* info, const char* name, bool* stored) = 0;
    virtual void SetNoMore() = 0; // the listing is finished
};

// The read-write flat interface as marshallers of versions 1 to 5 call it: move has no
// existing access level and flush neither carries flush flags nor answers with a record.
struct FlatFormatterV5 {
    virtual void FreeString(wchar_t* text) = 0;
    virtual ProtocolError Open(const NameComponent* name, size_t name_count,
                               int8_t create_file_type, uint8_t create_file_flags,
                               int64_t write_time, uint64_t new_create_open_id,
                               int8_t existing_access_level, uint64_t new_existing_open_id,
                               uint8_t* existed, OpenedFileInfo* info, uint64_t* parent_file_id,
                               wchar_t** end_name) = 0;
    virtual ProtocolError Replace(uint64_t target_open_id, uint64_t target_parent_file_id,
                                  const NameComponent* target_end_name, uint8_t create_file_flags,
                                  int64_t write_time, uint64_t new_create_open_id,
                                  OpenedFileInfo* info) = 0;
    virtual ProtocolError Move(uint64_t source_open_id, uint64_t source_parent_file_id,
                               const NameComponent* source_end_name,
                               const NameComponent* target_name, size_t target_name_count,
                               bool delete_source, int64_t write_time,
                               uint64_t new_existing_open_id, uint8_t* existed,
                               OpenedFileInfo* info, uint64_t* parent_file_id,
                               wchar_t** end_name) = 0;
    virtual ProtocolError MoveReplace(uint64_t source_open_id, uint64_t source_parent_file_id,
                                      const NameComponent* source_end_name, uint64_t target_open_id,
                                      uint64_t target_parent_file_id,
                                      const NameComponent* target_end_name, bool delete_source,
                                      int64_t write_time) = 0;
    virtual ProtocolError Delete(uint64_t open_id, uint64_t parent_file_id,
                                 const NameComponent* end_name, int64_t write_time) = 0;
    virtual ProtocolError Close(uint64_t open_id, uint64_t open_sequence) = 0;
    virtual ProtocolError Flush(uint64_t open_id, uint8_t file_flags, int64_t create_time,
                                int64_t access_time, int64_t write_time, int64_t change_time) = 0;
    virtual ProtocolError List(uint64_t open_id, uint64_t list_id, ListSink* sink) = 0;
    virtual ProtocolError ListEnd(uint64_t open_id, uint64_t list_id) = 0;
    virtual ProtocolError Read(uint64_t open_id, uint64_t file_offset, void* data,
                               size_t requested_size, size_t* actual_size) = 0;
    virtual ProtocolError Write(uint64_t open_id, uint64_t file_offset, const void* data,
                                size_t requested_size, size_t* actual_size) = 0;
    virtual ProtocolError SetSize(uint64_t open_id, uint64_t file_size) = 0;
    virtual ProtocolError Capacity(uint64_t* total_capacity, uint64_t* available_capacity) = 0;
    // no_flush is 1 on entry; left nonzero it asks for no timed flushes, cleared it asks for a
    // flush every 2 seconds.
    virtual ProtocolError FlushMedia(uint8_t* no_flush) = 0;
    virtual ProtocolError Control(uint64_t open_id, int8_t access_level, uint32_t control_code,
                                  const void* input, size_t input_size, void* output,
                                  size_t max_output_size, size_t* output_size) = 0;
    virtual ProtocolError MediaInfo(uint64_t open_id, zun::MediaInfo* info, wchar_t** label) = 0;
    virtual ProtocolError Access(uint64_t open_id, int8_t access_level, OpenedFileInfo* info) = 0;
};

// The read-write flat interface as a version 6 marshaller calls it. Slots as FlatFormatterV5
// except move (slot 3) and flush (slot 7).
struct FlatFormatter {
    virtual void FreeString(wchar_t* text) = 0;
    virtual ProtocolError Open(const NameComponent* name, size_t name_count,
                               int8_t create_file_type, uint8_t create_file_flags,
                               int64_t write_time, uint64_t new_create_open_id,
                               int8_t existing_access_level, uint64_t new_existing_open_id,
                               uint8_t* existed, OpenedFileInfo* info, uint64_t* parent_file_id,
                               wchar_t** end_name) = 0;
    virtual ProtocolError Replace(uint64_t target_open_id, uint64_t target_parent_file_id,
                                  const NameComponent* target_end_name, uint8_t create_file_flags,
                                  int64_t write_time, uint64_t new_create_open_id,
                                  OpenedFileInfo* info) = 0;
    virtual ProtocolError Move(uint64_t source_open_id, uint64_t source_parent_file_id,
                               const NameComponent* source_end_name,
                               const NameComponent* target_name, size_t target_name_count,
                               bool delete_source, int64_t write_time, int8_t existing_access_level,
                               uint64_t new_existing_open_id, uint8_t* existed,
                               OpenedFileInfo* info, uint64_t* parent_file_id,
                               wchar_t** end_name) = 0;
    virtual ProtocolError MoveReplace(uint64_t source_open_id, uint64_t source_parent_file_id,
                                      const NameComponent* source_end_name, uint64_t target_open_id,
                                      uint64_t target_parent_file_id,
                                      const NameComponent* target_end_name, bool delete_source,
                                      int64_t write_time) = 0;
    virtual ProtocolError Delete(uint64_t open_id, uint64_t parent_file_id,
                                 const NameComponent* end_name, int64_t write_time) = 0;
    virtual ProtocolError Close(uint64_t open_id, uint64_t open_sequence) = 0;
    // A record left all zero still answers with the record.
    virtual ProtocolError Flush(uint64_t open_id, uint8_t flush_flags, uint8_t file_flags,
                                uint8_t color, int64_t create_time, int64_t access_time,
                                int64_t write_time, int64_t change_time, OpenedFileInfo* info) = 0;
    virtual ProtocolError List(uint64_t open_id, uint64_t list_id, ListSink* sink) = 0;
    virtual ProtocolError ListEnd(uint64_t open_id, uint64_t list_id) = 0;
    virtual ProtocolError Read(uint64_t open_id, uint64_t file_offset, void* data,
                               size_t requested_size, size_t* actual_size) = 0;
    virtual ProtocolError Write(uint64_t open_id, uint64_t file_offset, const void* data,
                                size_t requested_size, size_t* actual_size) = 0;
    virtual ProtocolError SetSize(uint64_t open_id, uint64_t file_size) = 0;
    virtual ProtocolError Capacity(uint64_t* total_capacity, uint64_t* available_capacity) = 0;
    virtual ProtocolError FlushMedia(uint8_t* no_flush) = 0;
    virtual ProtocolError Control(uint64_t open_id, int8_t access_level, uint32_t control_code,
                                  const void* input, size_t input_size, void* output,
                                  size_t max_output_size, size_t* output_size) = 0;
    virtual ProtocolError MediaInfo(uint64_t open_id, zun::MediaInfo* info, wchar_t** label) = 0;
    virtual ProtocolError Access(uint64_t open_id, int8_t access_level, OpenedFileInfo* info) = 0;
};

// The read-only flat interface. Requests that would change the volume never reach it: they
// are refused with AccessDenied. A flush that changes nothing (file flags 0xFF, colour, create
// and write time 0) succeeds without a call. An open answering NotFound for a request that
// would create a file is reported as AccessDenied.
struct ReadOnlyFlatFormatter {
    virtual void FreeString(wchar_t* text) = 0;
    virtual ProtocolError Open(const NameComponent* name, size_t name_count,
                               int8_t existing_access_level, uint64_t new_existing_open_id,
                               OpenedFileInfo* info, wchar_t** end_name) = 0;
    virtual ProtocolError Close(uint64_t open_id, uint64_t open_sequence) = 0;
    virtual ProtocolError List(uint64_t open_id, uint64_t list_id, ListSink* sink) = 0;
    virtual ProtocolError ListEnd(uint64_t open_id, uint64_t list_id) = 0;
    virtual ProtocolError Read(uint64_t open_id, uint64_t file_offset, void* data,
                               size_t requested_size, size_t* actual_size) = 0;
    virtual ProtocolError Capacity(uint64_t* total_capacity) = 0;
    // no_flush is 1 on entry; left positive it asks for no timed flushes.
    virtual ProtocolError FlushMedia(int32_t* no_flush) = 0;
    virtual ProtocolError Control(uint64_t open_id, int8_t access_level, uint32_t control_code,
                                  const void* input, size_t input_size, void* output,
                                  size_t max_output_size, size_t* output_size) = 0;
    virtual ProtocolError MediaInfo(uint64_t open_id, zun::MediaInfo* info, wchar_t** label) = 0;
    virtual ProtocolError Access(uint64_t open_id, int8_t access_level, OpenedFileInfo* info) = 0;
};

} // namespace zun
