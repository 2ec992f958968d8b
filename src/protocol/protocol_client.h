// The client side of the file-system protocol: builds request messages and reads reply
// messages, byte for byte as the driver does. Used wherever the library must play the driver:
// tests, the demo, benchmarks.
//
// It works on memory only. Each encode function writes a complete request (header, fields,
// name or data, zero padding to a multiple of 8) into out and returns its length; when out is
// null or capacity is too small it writes nothing and still returns the length needed. Each
// decode function checks that the message is a well-formed successful reply of its operation
// and fills the view; pointers in a view point into the message.
#pragma once

#include <zun/protocol.h>

#include "protocol/request_decode.h"

namespace zun::client {

// A name as the client sends it: UTF-8 components, without separators.
struct Name {
    const char* const* components;
    size_t count;
};

size_t encode_cancel(void* out, size_t capacity, uint32_t request_id);
size_t encode_disconnect(void* out, size_t capacity, uint32_t request_id);
size_t encode_version(void* out, size_t capacity, uint32_t request_id, uint16_t client_version);
size_t encode_open(void* out, size_t capacity, uint32_t request_id, const OpenFields& fields,
                   Name name);
size_t encode_replace(void* out, size_t capacity, uint32_t request_id, const ReplaceFields& fields,
                      const char* end_name);
// The name is the source end name, then the target path.
size_t encode_move(void* out, size_t capacity, uint32_t request_id, const MoveFields& fields,
                   Name name);
size_t encode_move_replace(void* out, size_t capacity, uint32_t request_id,
                           const MoveReplaceFields& fields, const char* source_end_name,
                           const char* target_end_name);
size_t encode_delete(void* out, size_t capacity, uint32_t request_id, const DeleteFields& fields,
                     const char* end_name);
size_t encode_close(void* out, size_t capacity, uint32_t request_id, const CloseFields& fields);
size_t encode_flush(void* out, size_t capacity, uint32_t request_id, const FlushFields& fields);
size_t encode_list(void* out, size_t capacity, uint32_t request_id, const ListFields& fields);
size_t encode_list_end(void* out, size_t capacity, uint32_t request_id, const CloseFields& fields);
size_t encode_read(void* out, size_t capacity, uint32_t request_id, const ReadFields& fields);
// The data (fields.data, fields.requested_size bytes) follow the header at 32 + padding.
size_t encode_write(void* out, size_t capacity, uint32_t request_id, const WriteFields& fields);
size_t encode_set_size(void* out, size_t capacity, uint32_t request_id, const CloseFields& fields);
// Without fields the request is the bare 8-byte header, which asks about open id 0.
size_t encode_capacity(void* out, size_t capacity, uint32_t request_id, const OpenIdFields* fields);
size_t encode_flush_media(void* out, size_t capacity, uint32_t request_id);
// The input (fields.input, fields.input_size bytes) follows the header at 32.
size_t encode_control(void* out, size_t capacity, uint32_t request_id, const ControlFields& fields);
size_t encode_media_info(void* out, size_t capacity, uint32_t request_id,
                         const OpenIdFields& fields);
size_t encode_access(void* out, size_t capacity, uint32_t request_id, const AccessFields& fields);

// The length of the message whose first bytes are at data: the header's size word, or 0 while
// fewer than 8 bytes are available. Splits a byte stream into messages.
size_t message_length(const void* data, size_t available);

struct Reply {
    uint32_t size;
    uint32_t request_id;
    ProtocolError error;
};

// Checks the framing of a reply (reply bit set, size at least 8, a multiple of 8 and within
// the bytes given) and reads its header.
bool decode_reply(const void* message, size_t size, Reply* out);

struct OpenReply { // open and move
    uint8_t existed;
    OpenedFileInfo info;
    uint64_t parent_file_id;
    const char* end_name;
};
bool decode_open_reply(const void* message, size_t size, OpenReply* out);

// replace, access and flush. A flush answered without a record yields has_info false.
struct InfoReply {
    bool has_info;
    OpenedFileInfo info;
};
bool decode_info_reply(const void* message, size_t size, InfoReply* out);

struct ListReply {
    uint32_t count;
    uint8_t no_more;
    const uint8_t* entries;
    const char* names;
    const char* names_end;
};
bool decode_list_reply(const void* message, size_t size, ListReply* out);
// The index-th entry and its name (walking the names from the first; fine for tests).
bool list_reply_entry(const ListReply& reply, uint32_t index, FileInfo* info, const char** name);

struct ReadReply {
    uint32_t actual_size;
    uint32_t padding;
    const uint8_t* data;
};
bool decode_read_reply(const void* message, size_t size, ReadReply* out);

bool decode_write_reply(const void* message, size_t size, uint32_t* actual_size);

struct CapacityReply {
    uint64_t total_capacity;
    uint64_t available_capacity;
};
bool decode_capacity_reply(const void* message, size_t size, CapacityReply* out);

struct FlushMediaReply {
    uint8_t no_flush;
    int32_t flush_delay;
};
bool decode_flush_media_reply(const void* message, size_t size, FlushMediaReply* out);

struct ControlReply {
    uint32_t output_size;
    const uint8_t* output;
};
bool decode_control_reply(const void* message, size_t size, ControlReply* out);

struct MediaInfoReply {
    MediaInfo info;
    const char* label;
};
bool decode_media_info_reply(const void* message, size_t size, MediaInfoReply* out);

struct VersionReply {
    uint16_t server_version;
    uint16_t min_client_compat_version;
    uint32_t volume_flags;
    char formatter_name[24]; // NUL-terminated
    uint32_t data_align;
    uint32_t version_word; // 0 when not sent
};
bool decode_version_reply(const void* message, size_t size, VersionReply* out);

} // namespace zun::client
