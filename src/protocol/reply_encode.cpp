#include "protocol/reply_encode.h"

#include <string.h>

#include "protocol/utf8.h"
#include "protocol/wire.h"

namespace zun {

namespace {

constexpr size_t kOpenReplyFixedSize = 104;
constexpr size_t kMediaInfoReplyFixedSize = 56;

size_t string_reply_size(size_t fixed, const wchar_t* text) {
    return round_up8(fixed + utf16_to_utf8_length(text, utf16_length(text)) + 1);
}

// Writes the UTF-8 form of text, its NUL and the zero padding from `at` to the end.
void store_trailing_string(uint8_t* out, size_t size, size_t at, const wchar_t* text) {
    size_t written = utf16_to_utf8(text, utf16_length(text), reinterpret_cast<char*>(out + at));
    memset(out + at + written, 0, size - at - written);
}

} // namespace

void encode_reply_header(uint8_t* reply, uint32_t size, uint32_t request_id, ProtocolError error) {
    store_u32(reply, size);
    store_u32(reply + 4, reply_code_word(request_id, static_cast<uint32_t>(error)));
}

size_t encode_header_reply(uint8_t* out, uint32_t request_id, ProtocolError error) {
    encode_reply_header(out, kHeaderReplySize, request_id, error);
    return kHeaderReplySize;
}

void store_file_info(uint8_t* at, const FileInfo& info) {
    store_i8(at + 0, info.file_type);
    store_u8(at + 1, info.file_flags);
    store_u8(at + 2, info.extra_flags);
    store_u8(at + 3, info.color);
    store_u32(at + 4, 0);
    store_u64(at + 8, info.file_id);
    store_u64(at + 16, info.file_size);
    store_i64(at + 24, info.create_time);
    store_i64(at + 32, info.access_time);
    store_i64(at + 40, info.write_time);
    store_i64(at + 48, info.change_time);
}

void store_opened_file_info(uint8_t* at, const OpenedFileInfo& info) {
    store_u64(at + 0, info.open_id);
    store_u64(at + 8, info.open_sequence);
    store_i8(at + 16, info.access_level);
    store_u8(at + 17, info.control_flags);
    store_u16(at + 18, 0);
    store_u32(at + 20, info.opaque);
    store_file_info(at + 24, info.file);
}

size_t open_reply_size(const wchar_t* end_name) {
    return string_reply_size(kOpenReplyFixedSize, end_name);
}

void encode_open_reply(uint8_t* out, size_t size, uint32_t request_id, uint8_t existed,
                       const OpenedFileInfo* info, uint64_t parent_file_id,
                       const wchar_t* end_name) {
    memset(out, 0, kOpenReplyFixedSize);
    encode_reply_header(out, static_cast<uint32_t>(size), request_id, ProtocolError::Success);
    store_u8(out + 8, existed ? 1 : 0);
    if (info) store_opened_file_info(out + kOpenReplyInfoOffset, *info);
    store_u64(out + 96, parent_file_id);
    store_trailing_string(out, size, kOpenReplyFixedSize, end_name);
}

size_t encode_info_reply(uint8_t* out, uint32_t request_id, const OpenedFileInfo* info) {
    encode_reply_header(out, kInfoReplySize, request_id, ProtocolError::Success);
    if (info)
        store_opened_file_info(out + kInfoReplyInfoOffset, *info);
    else
        memset(out + kInfoReplyInfoOffset, 0, sizeof(OpenedFileInfo));
    return kInfoReplySize;
}

size_t encode_write_reply(uint8_t* out, uint32_t request_id, uint32_t actual_size) {
    encode_reply_header(out, kWriteReplySize, request_id, ProtocolError::Success);
    store_u32(out + 8, actual_size);
    store_u32(out + 12, 0);
    return kWriteReplySize;
}

size_t encode_capacity_reply(uint8_t* out, uint32_t request_id, uint64_t total_capacity,
                             uint64_t available_capacity) {
    encode_reply_header(out, kCapacityReplySize, request_id, ProtocolError::Success);
    store_u64(out + 8, total_capacity);
    store_u64(out + 16, available_capacity);
    return kCapacityReplySize;
}

bool flush_delay_means_no_flush(int32_t flush_delay) {
    return flush_delay < 0 || flush_delay == 0x7FFFFFFF;
}

size_t encode_flush_media_reply(uint8_t* out, uint32_t request_id, int32_t flush_delay) {
    encode_reply_header(out, kFlushMediaReplySize, request_id, ProtocolError::Success);
    store_u8(out + 8, flush_delay_means_no_flush(flush_delay) ? 1 : 0);
    memset(out + 9, 0, 3);
    store_i32(out + 12, flush_delay);
    return kFlushMediaReplySize;
}

bool flush_delay_idle_timeout(int32_t flush_delay, uint32_t* timeout_ms) {
    if (flush_delay < 0 || int64_t{flush_delay} >= 2147453648) return false;
    *timeout_ms = static_cast<uint32_t>(flush_delay) + 30000;
    return true;
}

size_t media_info_reply_size(const wchar_t* label) {
    return string_reply_size(kMediaInfoReplyFixedSize, label);
}

void encode_media_info_reply(uint8_t* out, size_t size, uint32_t request_id, const MediaInfo* info,
                             const wchar_t* label) {
    memset(out, 0, kMediaInfoReplyFixedSize);
    encode_reply_header(out, static_cast<uint32_t>(size), request_id, ProtocolError::Success);
    if (info) {
        store_i64(out + 8, info->create_time);
        memcpy(out + 16, info->uuid, sizeof info->uuid);
        store_u64(out + 32, info->id64);
        store_u32(out + 40, info->id32);
        store_u8(out + 44, info->flags);
    }
    store_trailing_string(out, size, kMediaInfoReplyFixedSize, label);
}

size_t encode_version_reply(uint8_t* out, uint32_t request_id, const VersionReplyFields& fields) {
    memset(out, 0, kVersionReplySize);
    encode_reply_header(out, kVersionReplySize, request_id, ProtocolError::Success);
    store_u16(out + 8, kServerProtocolVersion);
    store_u16(out + 10, kMinClientCompatVersion);
    store_u32(out + 12, fields.volume_flags);
    if (fields.formatter_name) {
        size_t n = strnlen(fields.formatter_name, 23);
        memcpy(out + 16, fields.formatter_name, n); // the NUL is among the zeros
    }
    store_u32(out + 40, fields.data_align);
    if (fields.send_version_word) store_u32(out + 44, fields.version_word);
    return kVersionReplySize;
}

} // namespace zun
