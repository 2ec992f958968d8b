// Encoding of reply messages.
//
// Replies are written into memory the caller provides: fixed replies into arrays of their
// size, replies with a trailing string into a block of the size the matching *_size function
// gives. All bytes the layout does not name are zero, and every length is a multiple of 8.
// Replies carrying data (read, list, control) are assembled by their own buffers
// (data_placement.h, list_reply.h).
#pragma once

#include <zun/protocol.h>

namespace zun {

// Header of a reply: size and the code word 0x80000000 | (error << 20) | id.
void encode_reply_header(uint8_t* reply, uint32_t size, uint32_t request_id, ProtocolError error);

// The reply to a failed request (and to a successful cancel, movereplace, delete, close,
// listend or setsize when error is Success): the header alone.
constexpr size_t kHeaderReplySize = 8;
size_t encode_header_reply(uint8_t* out, uint32_t request_id, ProtocolError error);

// Records, copied field by field so that their zero fields are sent as zero whatever the
// formatter left there.
void store_file_info(uint8_t* at, const FileInfo& info);
void store_opened_file_info(uint8_t* at, const OpenedFileInfo& info);

// open and move: existed at 8, OpenedFileInfo at 16, parent file id at 96, end name (UTF-8)
// from 104. A null info leaves the record zero: the marshaller stores it later, once the
// sequence hook has run (store_opened_file_info at kOpenReplyInfoOffset).
constexpr size_t kOpenReplyInfoOffset = 16;
size_t open_reply_size(const wchar_t* end_name);
void encode_open_reply(uint8_t* out, size_t size, uint32_t request_id, uint8_t existed,
                       const OpenedFileInfo* info, uint64_t parent_file_id,
                       const wchar_t* end_name);

// replace, access and flush with a record: OpenedFileInfo at 8. A null info leaves it zero, to
// be stored at kInfoReplyInfoOffset.
constexpr size_t kInfoReplySize = 88;
constexpr size_t kInfoReplyInfoOffset = 8;
size_t encode_info_reply(uint8_t* out, uint32_t request_id, const OpenedFileInfo* info);

constexpr size_t kWriteReplySize = 16;
size_t encode_write_reply(uint8_t* out, uint32_t request_id, uint32_t actual_size);

constexpr size_t kCapacityReplySize = 24;
size_t encode_capacity_reply(uint8_t* out, uint32_t request_id, uint64_t total_capacity,
                             uint64_t available_capacity);

// flushmedia: the no-flush flag is derived from the delay (negative, or 0x7FFFFFFF).
constexpr size_t kFlushMediaReplySize = 16;
size_t encode_flush_media_reply(uint8_t* out, uint32_t request_id, int32_t flush_delay);
bool flush_delay_means_no_flush(int32_t flush_delay);

// The idle read time-out a successful flushmedia reply sets on the server: the delay plus 30
// seconds when 0 <= delay < 2147453648 (the sum stays a valid time-out), else none (false).
bool flush_delay_idle_timeout(int32_t flush_delay, uint32_t* timeout_ms);

// mediainfo: create time at 8, uuid at 16, id 64 at 32, id 32 at 40, flags at 44, label
// (UTF-8) from 56. A null info sends zeros.
size_t media_info_reply_size(const wchar_t* label);
void encode_media_info_reply(uint8_t* out, size_t size, uint32_t request_id, const MediaInfo* info,
                             const wchar_t* label);

struct VersionReplyFields {
    uint32_t volume_flags;
    const char* formatter_name; // at most 23 bytes are sent
    uint32_t data_align;
    uint32_t version_word;  // the sixth serve parameter word
    bool send_version_word; // see version_word_sent
};
constexpr size_t kVersionReplySize = 64;
size_t encode_version_reply(uint8_t* out, uint32_t request_id, const VersionReplyFields& fields);

// Old stream clients do not know the word at offset 44: it is sent on the fast pipe, and on a
// stream to clients of version 5 and later.
constexpr bool version_word_sent(bool fast_pipe, uint16_t client_version) {
    return fast_pipe || client_version >= 5;
}

} // namespace zun
