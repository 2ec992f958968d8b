#include "protocol/request_decode.h"

#include "protocol/list_reply.h"
#include "protocol/request_name.h"
#include "protocol/wire.h"

namespace zun {

namespace {

bool too_short(uint32_t size, Operation op) {
    return size < kMinimumRequestSize[static_cast<uint32_t>(op)];
}

// Where each name starts.
constexpr uint32_t kOpenNameOffset = 48;
constexpr uint32_t kReplaceNameOffset = 48;
constexpr uint32_t kMoveNameOffset = 56;
constexpr uint32_t kMoveReplaceNameOffset = 56;
constexpr uint32_t kDeleteNameOffset = 32;

} // namespace

ProtocolError decode_version(const uint8_t* msg, uint32_t size, VersionFields* out) {
    if (too_short(size, Operation::Version)) return ProtocolError::Invalid;
    out->client_version = load_u16(msg + 8);
    return ProtocolError::Success;
}

ProtocolError decode_open(const uint8_t* msg, uint32_t size, uint32_t request_id, OpenFields* out,
                          RequestName* name) {
    if (too_short(size, Operation::Open)) return ProtocolError::Invalid;
    out->existing_access_level = load_i8(msg + 8);
    out->create_file_type = load_i8(msg + 9);
    out->create_file_flags = load_u8(msg + 10);
    out->write_time = load_i64(msg + 16);
    out->new_existing_open_id = load_u64(msg + 24);
    out->new_create_open_id = load_u64(msg + 32);
    return name->parse(msg, size, request_id, kOpenNameOffset, 0, kNameUnlimited);
}

ProtocolError decode_replace(const uint8_t* msg, uint32_t size, uint32_t request_id,
                             ReplaceFields* out, RequestName* name) {
    if (too_short(size, Operation::Replace)) return ProtocolError::Invalid;
    out->target_open_id = load_u64(msg + 8);
    out->target_parent_file_id = load_u64(msg + 16);
    out->create_file_flags = load_u8(msg + 24);
    out->write_time = load_i64(msg + 32);
    out->new_create_open_id = load_u64(msg + 40);
    return name->parse(msg, size, request_id, kReplaceNameOffset, 1, 1);
}

ProtocolError decode_move(const uint8_t* msg, uint32_t size, uint32_t request_id, MoveFields* out,
                          RequestName* name) {
    if (too_short(size, Operation::Move)) return ProtocolError::Invalid;
    out->source_open_id = load_u64(msg + 8);
    out->source_parent_file_id = load_u64(msg + 16);
    out->delete_source = load_u8(msg + 24) != 0;
    // Clients older than the access level field leave the byte zero; they meant level 4.
    int8_t level = load_i8(msg + 25);
    out->existing_access_level = level == 0 ? 4 : level;
    out->write_time = load_i64(msg + 32);
    out->new_existing_open_id = load_u64(msg + 40);
    return name->parse(msg, size, request_id, kMoveNameOffset, 1, kNameUnlimited);
}

ProtocolError decode_move_replace(const uint8_t* msg, uint32_t size, uint32_t request_id,
                                  MoveReplaceFields* out, RequestName* name) {
    if (too_short(size, Operation::MoveReplace)) return ProtocolError::Invalid;
    out->source_open_id = load_u64(msg + 8);
    out->source_parent_file_id = load_u64(msg + 16);
    out->target_open_id = load_u64(msg + 24);
    out->target_parent_file_id = load_u64(msg + 32);
    out->delete_source = load_u8(msg + 40) != 0;
    out->write_time = load_i64(msg + 48);
    return name->parse(msg, size, request_id, kMoveReplaceNameOffset, 2, 2);
}

ProtocolError decode_delete(const uint8_t* msg, uint32_t size, uint32_t request_id,
                            DeleteFields* out, RequestName* name) {
    if (too_short(size, Operation::Delete)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->parent_file_id = load_u64(msg + 16);
    out->write_time = load_i64(msg + 24);
    return name->parse(msg, size, request_id, kDeleteNameOffset, 1, 1);
}

ProtocolError decode_close(const uint8_t* msg, uint32_t size, CloseFields* out) {
    // close, listend and setsize share the minimum of 24 bytes.
    if (too_short(size, Operation::Close)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->value = load_u64(msg + 16);
    return ProtocolError::Success;
}

ProtocolError decode_flush(const uint8_t* msg, uint32_t size, FlushFields* out) {
    if (too_short(size, Operation::Flush)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->file_flags = load_u8(msg + 16);
    out->color = load_u8(msg + 17);
    out->flush_flags = load_u8(msg + 18);
    out->create_time = load_i64(msg + 24);
    out->access_time = load_i64(msg + 32);
    out->write_time = load_i64(msg + 40);
    out->change_time = load_i64(msg + 48);
    return ProtocolError::Success;
}

ProtocolError decode_list(const uint8_t* msg, uint32_t size, ListFields* out,
                          ListReplyBuffer* reply) {
    if (too_short(size, Operation::List)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->list_id = load_u64(msg + 16);
    out->max_result_count = load_u32(msg + 24);
    out->max_reply_size = load_u32(msg + 28);
    return reply->init(out->max_result_count, out->max_reply_size);
}

ProtocolError decode_read(const uint8_t* msg, uint32_t size, ReadFields* out) {
    if (too_short(size, Operation::Read)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->file_offset = load_u64(msg + 16);
    out->requested_size = load_u32(msg + 24);
    out->padding = load_u32(msg + 28);
    if (out->padding > kMaxDataPadding || out->requested_size > kMaxDataSize ||
        uint64_t{out->requested_size} + out->padding + 16 > kMaxDataSize)
        return ProtocolError::Invalid;
    return ProtocolError::Success;
}

ProtocolError decode_write(const uint8_t* msg, uint32_t size, WriteFields* out) {
    if (too_short(size, Operation::Write)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->file_offset = load_u64(msg + 16);
    out->requested_size = load_u32(msg + 24);
    out->padding = load_u32(msg + 28);
    out->data = nullptr;
    uint64_t end = uint64_t{out->padding} + 32 + out->requested_size;
    if (out->padding > kMaxDataPadding || out->requested_size > kMaxDataSize ||
        end > kMaxDataSize || end > size)
        return ProtocolError::Invalid;
    out->data = msg + 32 + out->padding;
    return ProtocolError::Success;
}

ProtocolError decode_capacity(const uint8_t* msg, uint32_t size, OpenIdFields* out) {
    if (too_short(size, Operation::Capacity)) return ProtocolError::Invalid;
    out->open_id = size >= 16 ? load_u64(msg + 8) : 0;
    return ProtocolError::Success;
}

ProtocolError decode_media_info(const uint8_t* msg, uint32_t size, OpenIdFields* out) {
    if (too_short(size, Operation::MediaInfo)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    return ProtocolError::Success;
}

ProtocolError decode_control(const uint8_t* msg, uint32_t size, ControlFields* out) {
    if (too_short(size, Operation::Control)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->access_level = load_i8(msg + 16);
    out->control_code = load_u32(msg + 20);
    out->input_size = load_u32(msg + 24);
    out->max_output_size = load_u32(msg + 28);
    out->input = msg + 32;
    if (out->input_size > size - 32 || out->max_output_size > kMaxControlOutput)
        return ProtocolError::Invalid;
    return ProtocolError::Success;
}

ProtocolError decode_access(const uint8_t* msg, uint32_t size, AccessFields* out) {
    if (too_short(size, Operation::Access)) return ProtocolError::Invalid;
    out->open_id = load_u64(msg + 8);
    out->access_level = load_i8(msg + 16);
    return ProtocolError::Success;
}

} // namespace zun
