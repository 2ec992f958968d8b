// zun/protocol.h: the wire of the file-system protocol.
//
// The driver (or any client) and the Marshaller exchange messages. Every message starts with a
// MessageHeader; every integer is little-endian; every reply length is a multiple of 8, and on a
// byte stream so is every request length. This header gives the header and its code word, the
// operation numbers with their minimum request sizes, the result codes and the records that
// several operations share. A formatter needs the records and ProtocolError; the rest documents
// what travels on the wire.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zun {

// ---------------------------------------------------------------------------------------------
// Message header and code word

struct MessageHeader {
    uint32_t size; // total length of the message in bytes, header included
    uint32_t code; // code word, below
};
static_assert(sizeof(MessageHeader) == 8);
static_assert(offsetof(MessageHeader, size) == 0);
static_assert(offsetof(MessageHeader, code) == 4);

// Request code word: bits 0-19 request id, bits 20-30 operation, bit 31 clear.
// Reply code word: bits 0-19 the id answered, bits 20-30 the ProtocolError, bit 31 set.
// Request id 0 asks for no reply: the request runs and nothing is sent back.
constexpr uint32_t kRequestIdMask = 0x000FFFFFu;
constexpr uint32_t kCodeFieldShift = 20;
constexpr uint32_t kCodeFieldMask = 0x7FFu; // 11 bits: the operation or the error code
constexpr uint32_t kReplyBit = 0x80000000u;

constexpr uint32_t request_code_word(uint32_t request_id, uint32_t operation) {
    return (request_id & kRequestIdMask) | ((operation & kCodeFieldMask) << kCodeFieldShift);
}
constexpr uint32_t reply_code_word(uint32_t request_id, uint32_t error) {
    return kReplyBit | ((error & kCodeFieldMask) << kCodeFieldShift) |
           (request_id & kRequestIdMask);
}
constexpr uint32_t code_word_request_id(uint32_t code) {
    return code & kRequestIdMask;
}
// The operation of a request, or the ProtocolError of a reply.
constexpr uint32_t code_word_field(uint32_t code) {
    return (code >> kCodeFieldShift) & kCodeFieldMask;
}
constexpr bool code_word_is_reply(uint32_t code) {
    return (code & kReplyBit) != 0;
}

// ---------------------------------------------------------------------------------------------
// Operations

enum class Operation : uint32_t {
    Cancel = 0,
    Disconnect = 1,
    Version = 2,
    Open = 3,
    Replace = 4,
    Move = 5,
    MoveReplace = 6,
    Delete = 7,
    Close = 8,
    Flush = 9,
    List = 10,
    ListEnd = 11,
    Read = 12,
    Write = 13,
    SetSize = 14,
    Capacity = 15,
    FlushMedia = 16,
    Control = 17,
    MediaInfo = 18, // known from marshaller version 2
    Access = 19,    // known from marshaller version 6
};
constexpr uint32_t kOperationCount = 20;

// A request shorter than its operation's minimum fails with ProtocolError::Invalid and never
// reaches the formatter. Write and control requests carry their data behind the minimum.
constexpr uint32_t kMinimumRequestSize[kOperationCount] = {
    8,  // cancel
    8,  // disconnect
    16, // version
    48, // open
    48, // replace
    56, // move
    56, // movereplace
    40, // delete
    24, // close
    56, // flush
    32, // list
    24, // listend
    32, // read
    32, // write
    24, // setsize
    8,  // capacity (the open id is present only from 16 bytes)
    8,  // flushmedia
    32, // control
    16, // mediainfo
    24, // access
};

// Largest request a byte stream carries, except for write requests, which may reach the
// largest message of all.
constexpr uint32_t kMaxStreamRequestSize = 294912;
constexpr uint32_t kMaxMessageSize = 0x1000000;

// The version the server reports in its version reply, and the oldest client it serves.
constexpr uint16_t kServerProtocolVersion = 7;
constexpr uint16_t kMinClientCompatVersion = 1;

// ---------------------------------------------------------------------------------------------
// Result codes

// The result of every request, carried in reply code words and passed to every Complete.
// The marshaller's ConvertSystemError maps Windows error codes onto these.
enum class ProtocolError : uint32_t {
    Success = 0,
    Disconnected = 1,   // 109
    Cancelled = 2,      // 1223, 995
    NotImplemented = 3, // 120
    Invalid = 4,        // 87
    AccessDenied = 5,   // 5
    OutOfMemory = 6,    // 14
    Failed = 7,         // 31 and every code without a counterpart
    NotFound = 8,       // 2, 1168
    PathNotFound = 9,   // 3
    Exists = 10,        // 183, 80
    NoSpace = 11,       // 39, 112
    BadName = 12,       // 123
    NotEmpty = 13,      // 145
    EndOfFile = 14,     // 38
    Forbidden = 15,     // no system code converts to it; its counterpart is 5
    DeletePending = 16, // 303
    Corrupt = 17,       // 11
    TimedOut = 18,      // 121, 64
    NotAFolder = 19,    // 267
};
constexpr uint32_t kProtocolErrorCount = 20;

// ---------------------------------------------------------------------------------------------
// Shared records
//
// Times are signed 64-bit values passed through unchanged; ids, sizes and offsets are unsigned.
// Type, flag, colour and access level values are the formatter's and the driver's business: the
// protocol carries them without interpreting them, with two exceptions stated where they apply
// (a move's existing access level 0 means 4; see the request interfaces).

// Describes one file: inside OpenedFileInfo, and as the entry of a list reply.
struct FileInfo {
    int8_t file_type;
    uint8_t file_flags;
    uint8_t extra_flags;
    uint8_t color;
    uint32_t zero; // always sent as zero
    uint64_t file_id;
    uint64_t file_size;
    int64_t create_time;
    int64_t access_time;
    int64_t write_time;
    int64_t change_time;
};
static_assert(sizeof(FileInfo) == 56);
static_assert(offsetof(FileInfo, file_type) == 0);
static_assert(offsetof(FileInfo, file_flags) == 1);
static_assert(offsetof(FileInfo, extra_flags) == 2);
static_assert(offsetof(FileInfo, color) == 3);
static_assert(offsetof(FileInfo, zero) == 4);
static_assert(offsetof(FileInfo, file_id) == 8);
static_assert(offsetof(FileInfo, file_size) == 16);
static_assert(offsetof(FileInfo, create_time) == 24);
static_assert(offsetof(FileInfo, access_time) == 32);
static_assert(offsetof(FileInfo, write_time) == 40);
static_assert(offsetof(FileInfo, change_time) == 48);

// What a formatter answers for an open, move, replace, flush or access. The client proposes the
// open id (the new open id fields of its request); the open sequence is the formatter's own and
// comes back with close. The marshaller copies the record field by field, so whatever the
// formatter leaves in the zero fields is never sent.
struct OpenedFileInfo {
    uint64_t open_id;
    uint64_t open_sequence;
    int8_t access_level;
    uint8_t control_flags;
    uint16_t zero;   // always sent as zero
    uint32_t opaque; // passed to the client unchanged
    FileInfo file;
};
static_assert(sizeof(OpenedFileInfo) == 80);
static_assert(offsetof(OpenedFileInfo, open_id) == 0);
static_assert(offsetof(OpenedFileInfo, open_sequence) == 8);
static_assert(offsetof(OpenedFileInfo, access_level) == 16);
static_assert(offsetof(OpenedFileInfo, control_flags) == 17);
static_assert(offsetof(OpenedFileInfo, zero) == 18);
static_assert(offsetof(OpenedFileInfo, opaque) == 20);
static_assert(offsetof(OpenedFileInfo, file) == 24);

// Media information as the formatter supplies it (the reply orders the fields differently).
struct MediaInfo {
    uint8_t uuid[16];
    uint64_t id64;
    uint32_t id32;
    uint8_t flags;
    uint8_t reserved[3];
    int64_t create_time;
};
static_assert(sizeof(MediaInfo) == 40);
static_assert(offsetof(MediaInfo, uuid) == 0);
static_assert(offsetof(MediaInfo, id64) == 16);
static_assert(offsetof(MediaInfo, id32) == 24);
static_assert(offsetof(MediaInfo, flags) == 28);
static_assert(offsetof(MediaInfo, reserved) == 29);
static_assert(offsetof(MediaInfo, create_time) == 32);

// One component of a name in a request. The UTF-8 text points into the message (or at an empty
// string); the UTF-16 text is its conversion, NUL-terminated. Lengths count code units and
// exclude the NUL. Both stay valid until the request is completed. Names are passed as
// (first component, count); a path from the volume root has one component per folder level and
// the root itself has none.
struct NameComponent {
    const wchar_t* utf16;
    size_t utf16_length;
    const char* utf8;
    size_t utf8_length;
};
static_assert(sizeof(NameComponent) == 4 * sizeof(void*));
static_assert(offsetof(NameComponent, utf16) == 0);
static_assert(offsetof(NameComponent, utf16_length) == sizeof(void*));
static_assert(offsetof(NameComponent, utf8) == 2 * sizeof(void*));
static_assert(offsetof(NameComponent, utf8_length) == 3 * sizeof(void*));

} // namespace zun
