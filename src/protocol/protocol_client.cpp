#include "protocol/protocol_client.h"

#include <string.h>

#include "protocol/wire.h"

namespace zun::client {

namespace {

// Writes header and zeroed body of a request of the given length and lets fill write the
// fields; or, when the caller's buffer is missing or short, only reports the length.
template <class Fill>
size_t emit(void* out, size_t capacity, uint32_t request_id, Operation op, size_t length,
            Fill fill) {
    if (!out || capacity < length) return length;
    auto* m = static_cast<uint8_t*>(out);
    memset(m, 0, length);
    store_u32(m, static_cast<uint32_t>(length));
    store_u32(m + 4, request_code_word(request_id, static_cast<uint32_t>(op)));
    fill(m);
    return length;
}

size_t name_bytes(Name name) {
    size_t n = 0;
    for (size_t i = 0; i < name.count; ++i) n += strlen(name.components[i]) + 1;
    return n;
}

// Components back to back, each with its NUL (already there: the body is zeroed).
void store_name(uint8_t* at, Name name) {
    for (size_t i = 0; i < name.count; ++i) {
        size_t n = strlen(name.components[i]);
        memcpy(at, name.components[i], n);
        at += n + 1;
    }
}

size_t with_name(size_t start, Name name, size_t minimum) {
    size_t length = round_up8(start + name_bytes(name));
    return length < minimum ? minimum : length;
}

FileInfo load_file_info(const uint8_t* at) {
    FileInfo f{};
    f.file_type = load_i8(at + 0);
    f.file_flags = load_u8(at + 1);
    f.extra_flags = load_u8(at + 2);
    f.color = load_u8(at + 3);
    f.zero = load_u32(at + 4);
    f.file_id = load_u64(at + 8);
    f.file_size = load_u64(at + 16);
    f.create_time = load_i64(at + 24);
    f.access_time = load_i64(at + 32);
    f.write_time = load_i64(at + 40);
    f.change_time = load_i64(at + 48);
    return f;
}

OpenedFileInfo load_opened_file_info(const uint8_t* at) {
    OpenedFileInfo o{};
    o.open_id = load_u64(at + 0);
    o.open_sequence = load_u64(at + 8);
    o.access_level = load_i8(at + 16);
    o.control_flags = load_u8(at + 17);
    o.zero = load_u16(at + 18);
    o.opaque = load_u32(at + 20);
    o.file = load_file_info(at + 24);
    return o;
}

// A successful reply at least min_length bytes long; returns its bytes and length.
const uint8_t* success_reply(const void* message, size_t size, size_t min_length, size_t* length) {
    Reply r;
    if (!decode_reply(message, size, &r) || r.error != ProtocolError::Success ||
        r.size < min_length)
        return nullptr;
    *length = r.size;
    return static_cast<const uint8_t*>(message);
}

// A NUL-terminated string at m[at, length), or null when it is not terminated in time.
const char* string_at(const uint8_t* m, size_t at, size_t length) {
    if (at >= length || !memchr(m + at, 0, length - at)) return nullptr;
    return reinterpret_cast<const char*>(m + at);
}

} // namespace

// ---- requests

size_t encode_cancel(void* out, size_t capacity, uint32_t request_id) {
    return emit(out, capacity, request_id, Operation::Cancel, 8, [](uint8_t*) {});
}

size_t encode_disconnect(void* out, size_t capacity, uint32_t request_id) {
    return emit(out, capacity, request_id, Operation::Disconnect, 8, [](uint8_t*) {});
}

size_t encode_version(void* out, size_t capacity, uint32_t request_id, uint16_t client_version) {
    return emit(out, capacity, request_id, Operation::Version, 16,
                [&](uint8_t* m) { store_u16(m + 8, client_version); });
}

size_t encode_open(void* out, size_t capacity, uint32_t request_id, const OpenFields& f,
                   Name name) {
    return emit(out, capacity, request_id, Operation::Open, with_name(48, name, 48),
                [&](uint8_t* m) {
                    store_i8(m + 8, f.existing_access_level);
                    store_i8(m + 9, f.create_file_type);
                    store_u8(m + 10, f.create_file_flags);
                    store_i64(m + 16, f.write_time);
                    store_u64(m + 24, f.new_existing_open_id);
                    store_u64(m + 32, f.new_create_open_id);
                    store_name(m + 48, name);
                });
}

size_t encode_replace(void* out, size_t capacity, uint32_t request_id, const ReplaceFields& f,
                      const char* end_name) {
    Name name{&end_name, 1};
    return emit(out, capacity, request_id, Operation::Replace, with_name(48, name, 48),
                [&](uint8_t* m) {
                    store_u64(m + 8, f.target_open_id);
                    store_u64(m + 16, f.target_parent_file_id);
                    store_u8(m + 24, f.create_file_flags);
                    store_i64(m + 32, f.write_time);
                    store_u64(m + 40, f.new_create_open_id);
                    store_name(m + 48, name);
                });
}

size_t encode_move(void* out, size_t capacity, uint32_t request_id, const MoveFields& f,
                   Name name) {
    return emit(out, capacity, request_id, Operation::Move, with_name(56, name, 56),
                [&](uint8_t* m) {
                    store_u64(m + 8, f.source_open_id);
                    store_u64(m + 16, f.source_parent_file_id);
                    store_u8(m + 24, f.delete_source ? 1 : 0);
                    store_i8(m + 25, f.existing_access_level);
                    store_i64(m + 32, f.write_time);
                    store_u64(m + 40, f.new_existing_open_id);
                    store_name(m + 56, name);
                });
}

size_t encode_move_replace(void* out, size_t capacity, uint32_t request_id,
                           const MoveReplaceFields& f, const char* source_end_name,
                           const char* target_end_name) {
    const char* parts[] = {source_end_name, target_end_name};
    Name name{parts, 2};
    return emit(out, capacity, request_id, Operation::MoveReplace, with_name(56, name, 56),
                [&](uint8_t* m) {
                    store_u64(m + 8, f.source_open_id);
                    store_u64(m + 16, f.source_parent_file_id);
                    store_u64(m + 24, f.target_open_id);
                    store_u64(m + 32, f.target_parent_file_id);
                    store_u8(m + 40, f.delete_source ? 1 : 0);
                    store_i64(m + 48, f.write_time);
                    store_name(m + 56, name);
                });
}

size_t encode_delete(void* out, size_t capacity, uint32_t request_id, const DeleteFields& f,
                     const char* end_name) {
    // The name starts at 32, inside the 40-byte minimum.
    Name name{&end_name, 1};
    return emit(out, capacity, request_id, Operation::Delete, with_name(32, name, 40),
                [&](uint8_t* m) {
                    store_u64(m + 8, f.open_id);
                    store_u64(m + 16, f.parent_file_id);
                    store_i64(m + 24, f.write_time);
                    store_name(m + 32, name);
                });
}

namespace {
size_t encode_id_and_value(void* out, size_t capacity, uint32_t request_id, Operation op,
                           const CloseFields& f) {
    return emit(out, capacity, request_id, op, 24, [&](uint8_t* m) {
        store_u64(m + 8, f.open_id);
        store_u64(m + 16, f.value);
    });
}
} // namespace

size_t encode_close(void* out, size_t capacity, uint32_t request_id, const CloseFields& f) {
    return encode_id_and_value(out, capacity, request_id, Operation::Close, f);
}

size_t encode_list_end(void* out, size_t capacity, uint32_t request_id, const CloseFields& f) {
    return encode_id_and_value(out, capacity, request_id, Operation::ListEnd, f);
}

size_t encode_set_size(void* out, size_t capacity, uint32_t request_id, const CloseFields& f) {
    return encode_id_and_value(out, capacity, request_id, Operation::SetSize, f);
}

size_t encode_flush(void* out, size_t capacity, uint32_t request_id, const FlushFields& f) {
    return emit(out, capacity, request_id, Operation::Flush, 56, [&](uint8_t* m) {
        store_u64(m + 8, f.open_id);
        store_u8(m + 16, f.file_flags);
        store_u8(m + 17, f.color);
        store_u8(m + 18, f.flush_flags);
        store_i64(m + 24, f.create_time);
        store_i64(m + 32, f.access_time);
        store_i64(m + 40, f.write_time);
        store_i64(m + 48, f.change_time);
    });
}

size_t encode_list(void* out, size_t capacity, uint32_t request_id, const ListFields& f) {
    return emit(out, capacity, request_id, Operation::List, 32, [&](uint8_t* m) {
        store_u64(m + 8, f.open_id);
        store_u64(m + 16, f.list_id);
        store_u32(m + 24, f.max_result_count);
        store_u32(m + 28, f.max_reply_size);
    });
}

size_t encode_read(void* out, size_t capacity, uint32_t request_id, const ReadFields& f) {
    return emit(out, capacity, request_id, Operation::Read, 32, [&](uint8_t* m) {
        store_u64(m + 8, f.open_id);
        store_u64(m + 16, f.file_offset);
        store_u32(m + 24, f.requested_size);
        store_u32(m + 28, f.padding);
    });
}

size_t encode_write(void* out, size_t capacity, uint32_t request_id, const WriteFields& f) {
    size_t length = round_up8(size_t{32} + f.padding + f.requested_size);
    return emit(out, capacity, request_id, Operation::Write, length, [&](uint8_t* m) {
        store_u64(m + 8, f.open_id);
        store_u64(m + 16, f.file_offset);
        store_u32(m + 24, f.requested_size);
        store_u32(m + 28, f.padding);
        if (f.requested_size) memcpy(m + 32 + f.padding, f.data, f.requested_size);
    });
}

size_t encode_capacity(void* out, size_t capacity, uint32_t request_id, const OpenIdFields* f) {
    return emit(out, capacity, request_id, Operation::Capacity, f ? 16 : 8, [&](uint8_t* m) {
        if (f) store_u64(m + 8, f->open_id);
    });
}

size_t encode_flush_media(void* out, size_t capacity, uint32_t request_id) {
    return emit(out, capacity, request_id, Operation::FlushMedia, 8, [](uint8_t*) {});
}

size_t encode_control(void* out, size_t capacity, uint32_t request_id, const ControlFields& f) {
    size_t length = round_up8(size_t{32} + f.input_size);
    return emit(out, capacity, request_id, Operation::Control, length, [&](uint8_t* m) {
        store_u64(m + 8, f.open_id);
        store_i8(m + 16, f.access_level);
        store_u32(m + 20, f.control_code);
        store_u32(m + 24, f.input_size);
        store_u32(m + 28, f.max_output_size);
        if (f.input_size) memcpy(m + 32, f.input, f.input_size);
    });
}

size_t encode_media_info(void* out, size_t capacity, uint32_t request_id, const OpenIdFields& f) {
    return emit(out, capacity, request_id, Operation::MediaInfo, 16,
                [&](uint8_t* m) { store_u64(m + 8, f.open_id); });
}

size_t encode_access(void* out, size_t capacity, uint32_t request_id, const AccessFields& f) {
    return emit(out, capacity, request_id, Operation::Access, 24, [&](uint8_t* m) {
        store_u64(m + 8, f.open_id);
        store_i8(m + 16, f.access_level);
    });
}

// ---- replies

size_t message_length(const void* data, size_t available) {
    return available < 8 ? 0 : load_u32(static_cast<const uint8_t*>(data));
}

bool decode_reply(const void* message, size_t size, Reply* out) {
    if (size < 8) return false;
    auto* m = static_cast<const uint8_t*>(message);
    uint32_t length = load_u32(m);
    uint32_t code = load_u32(m + 4);
    if (!code_word_is_reply(code) || length < 8 || length % 8 != 0 || length > size) return false;
    out->size = length;
    out->request_id = code_word_request_id(code);
    out->error = static_cast<ProtocolError>(code_word_field(code));
    return true;
}

bool decode_open_reply(const void* message, size_t size, OpenReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 112, &length);
    if (!m || !(out->end_name = string_at(m, 104, length))) return false;
    out->existed = load_u8(m + 8);
    out->info = load_opened_file_info(m + 16);
    out->parent_file_id = load_u64(m + 96);
    return true;
}

bool decode_info_reply(const void* message, size_t size, InfoReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 8, &length);
    if (!m || (length != 8 && length < 88)) return false;
    out->has_info = length >= 88;
    out->info = out->has_info ? load_opened_file_info(m + 8) : OpenedFileInfo{};
    return true;
}

bool decode_list_reply(const void* message, size_t size, ListReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 16, &length);
    if (!m) return false;
    out->count = load_u32(m + 8);
    out->no_more = load_u8(m + 12);
    size_t names_at = 16 + size_t{out->count} * sizeof(FileInfo);
    if (names_at > length) return false;
    out->entries = m + 16;
    out->names = reinterpret_cast<const char*>(m + names_at);
    out->names_end = reinterpret_cast<const char*>(m + length);
    return true;
}

bool list_reply_entry(const ListReply& reply, uint32_t index, FileInfo* info, const char** name) {
    if (index >= reply.count) return false;
    const char* p = reply.names;
    for (uint32_t i = 0;; ++i) {
        auto* nul = static_cast<const char*>(memchr(p, 0, reply.names_end - p));
        if (!nul) return false;
        if (i == index) break;
        p = nul + 1;
    }
    *info = load_file_info(reply.entries + size_t{index} * sizeof(FileInfo));
    *name = p;
    return true;
}

bool decode_read_reply(const void* message, size_t size, ReadReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 16, &length);
    if (!m) return false;
    out->actual_size = load_u32(m + 8);
    out->padding = load_u32(m + 12);
    if (16 + uint64_t{out->padding} + out->actual_size > length) return false;
    out->data = m + 16 + out->padding;
    return true;
}

bool decode_write_reply(const void* message, size_t size, uint32_t* actual_size) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 16, &length);
    if (!m) return false;
    *actual_size = load_u32(m + 8);
    return true;
}

bool decode_capacity_reply(const void* message, size_t size, CapacityReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 24, &length);
    if (!m) return false;
    out->total_capacity = load_u64(m + 8);
    out->available_capacity = load_u64(m + 16);
    return true;
}

bool decode_flush_media_reply(const void* message, size_t size, FlushMediaReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 16, &length);
    if (!m) return false;
    out->no_flush = load_u8(m + 8);
    out->flush_delay = load_i32(m + 12);
    return true;
}

bool decode_control_reply(const void* message, size_t size, ControlReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 16, &length);
    if (!m) return false;
    out->output_size = load_u32(m + 8);
    if (16 + uint64_t{out->output_size} > length) return false;
    out->output = m + 16;
    return true;
}

bool decode_media_info_reply(const void* message, size_t size, MediaInfoReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 64, &length);
    if (!m || !(out->label = string_at(m, 56, length))) return false;
    out->info = MediaInfo{};
    out->info.create_time = load_i64(m + 8);
    memcpy(out->info.uuid, m + 16, sizeof out->info.uuid);
    out->info.id64 = load_u64(m + 32);
    out->info.id32 = load_u32(m + 40);
    out->info.flags = load_u8(m + 44);
    return true;
}

bool decode_version_reply(const void* message, size_t size, VersionReply* out) {
    size_t length;
    const uint8_t* m = success_reply(message, size, 64, &length);
    if (!m) return false;
    out->server_version = load_u16(m + 8);
    out->min_client_compat_version = load_u16(m + 10);
    out->volume_flags = load_u32(m + 12);
    memcpy(out->formatter_name, m + 16, 24);
    out->formatter_name[23] = '\0';
    out->data_align = load_u32(m + 40);
    out->version_word = load_u32(m + 44);
    return true;
}

} // namespace zun::client
