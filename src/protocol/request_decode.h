// Decoding of request messages into their fields.
//
// One plain struct of fields per operation, filled from the message by its decode function.
// The same structs are what the protocol client encodes from, so a request built by the client
// and decoded here comes back field for field (except where decoding applies a rule of the
// protocol, such as a move's access level 0 meaning 4).
//
// Every decode function returns Invalid when the message is shorter than the operation's
// minimum. The marshaller checks the minimum first (operation_check), so an Invalid from
// decode_read, decode_write or decode_control after that check means that the size fields
// failed validation. Decoding never allocates except where it takes an object to fill (a
// RequestName, a ListReplyBuffer), which may fail with OutOfMemory.
#pragma once

#include <zun/protocol.h>

namespace zun {

class RequestName;
class ListReplyBuffer;

struct VersionFields {
    uint16_t client_version;
};

struct OpenFields {
    int8_t existing_access_level;
    int8_t create_file_type;
    uint8_t create_file_flags;
    int64_t write_time;
    uint64_t new_existing_open_id;
    uint64_t new_create_open_id;
};

struct ReplaceFields {
    uint64_t target_open_id;
    uint64_t target_parent_file_id;
    uint8_t create_file_flags;
    int64_t write_time;
    uint64_t new_create_open_id;
};

struct MoveFields {
    uint64_t source_open_id;
    uint64_t source_parent_file_id;
    bool delete_source;
    int8_t existing_access_level;
    int64_t write_time;
    uint64_t new_existing_open_id;
};

struct MoveReplaceFields {
    uint64_t source_open_id;
    uint64_t source_parent_file_id;
    uint64_t target_open_id;
    uint64_t target_parent_file_id;
    bool delete_source;
    int64_t write_time;
};

struct DeleteFields {
    uint64_t open_id;
    uint64_t parent_file_id;
    int64_t write_time;
};

// close, listend and setsize: the open id and one more word (open sequence, list id or file
// size).
struct CloseFields {
    uint64_t open_id;
    uint64_t value;
};

struct FlushFields {
    uint64_t open_id;
    uint8_t file_flags;
    uint8_t color;
    uint8_t flush_flags;
    int64_t create_time;
    int64_t access_time;
    int64_t write_time;
    int64_t change_time;
};

struct ListFields {
    uint64_t open_id;
    uint64_t list_id;
    uint32_t max_result_count;
    uint32_t max_reply_size;
};

struct ReadFields {
    uint64_t open_id;
    uint64_t file_offset;
    uint32_t requested_size;
    uint32_t padding; // alignment padding: the reply's data start at 16 + padding
};

struct WriteFields {
    uint64_t open_id;
    uint64_t file_offset;
    uint32_t requested_size;
    uint32_t padding;    // the data start at 32 + padding
    const uint8_t* data; // requested_size bytes inside the message
};

// capacity and mediainfo: only an open id.
struct OpenIdFields {
    uint64_t open_id;
};

struct ControlFields {
    uint64_t open_id;
    int8_t access_level;
    uint32_t control_code;
    uint32_t input_size;
    uint32_t max_output_size;
    const uint8_t* input; // input_size bytes inside the message, from offset 32
};

struct AccessFields {
    uint64_t open_id;
    int8_t access_level;
};

// Largest control output a request may ask for: the largest stream message less a reply header.
constexpr uint32_t kMaxControlOutput = 0x47FF0;

// Read and write bounds.
constexpr uint32_t kMaxDataPadding = 0x8000;
constexpr uint32_t kMaxDataSize = 0x1000000;

ProtocolError decode_version(const uint8_t* msg, uint32_t size, VersionFields* out);

// Names: open takes any number of components, replace and delete exactly one, move at least one
// (the source end name, then the target path), movereplace exactly two (source and target end
// names). All fail with Invalid for request id 0.
ProtocolError decode_open(const uint8_t* msg, uint32_t size, uint32_t request_id, OpenFields* out,
                          RequestName* name);
ProtocolError decode_replace(const uint8_t* msg, uint32_t size, uint32_t request_id,
                             ReplaceFields* out, RequestName* name);
ProtocolError decode_move(const uint8_t* msg, uint32_t size, uint32_t request_id, MoveFields* out,
                          RequestName* name);
ProtocolError decode_move_replace(const uint8_t* msg, uint32_t size, uint32_t request_id,
                                  MoveReplaceFields* out, RequestName* name);
ProtocolError decode_delete(const uint8_t* msg, uint32_t size, uint32_t request_id,
                            DeleteFields* out, RequestName* name);

// close, listend and setsize.
ProtocolError decode_close(const uint8_t* msg, uint32_t size, CloseFields* out);
ProtocolError decode_flush(const uint8_t* msg, uint32_t size, FlushFields* out);

// Also prepares the reply buffer (see ListReplyBuffer::init).
ProtocolError decode_list(const uint8_t* msg, uint32_t size, ListFields* out,
                          ListReplyBuffer* reply);

// Invalid unless padding <= 0x8000, requested size <= 0x1000000 and the whole reply
// (16 + padding + size) fits in 0x1000000 bytes.
ProtocolError decode_read(const uint8_t* msg, uint32_t size, ReadFields* out);

// Reads only the first 32 bytes, so that a stream reader can validate a write from its header
// before the data have arrived; size is the message size of the header. Invalid unless
// padding <= 0x8000, requested size <= 0x1000000, 32 + padding + size <= 0x1000000 and the data
// lie within the message.
ProtocolError decode_write(const uint8_t* msg, uint32_t size, WriteFields* out);

// A capacity request of 8 bytes carries no open id and asks about open id 0.
ProtocolError decode_capacity(const uint8_t* msg, uint32_t size, OpenIdFields* out);
ProtocolError decode_media_info(const uint8_t* msg, uint32_t size, OpenIdFields* out);

// Invalid unless the input lies within the message and the output fits a stream message.
ProtocolError decode_control(const uint8_t* msg, uint32_t size, ControlFields* out);
ProtocolError decode_access(const uint8_t* msg, uint32_t size, AccessFields* out);

} // namespace zun
