// Assembly of a list reply.
//
// A list reply is a 16-byte header (result count, no-more flag), the FileInfo entries, and then
// the entries' names as UTF-8, each NUL-terminated, in entry order. Its length may not exceed
// the limit: the client's max reply size rounded down to a multiple of 8, and never more than
// 100000 bytes. While entries are being added the names cannot follow the entries yet, so the
// buffer is twice the limit: entries grow from the front, names from the middle, and finish()
// closes the gap.
#pragma once

#include <zun/protocol.h>

namespace zun {

constexpr uint32_t kMaxListReplySize = 100000;

// The length limit of a list reply for a client's max reply size.
constexpr uint32_t list_reply_limit(uint32_t max_reply_size) {
    uint32_t limit = max_reply_size & ~7u;
    return limit < kMaxListReplySize ? limit : kMaxListReplySize;
}

class ListReplyBuffer {
public:
    ListReplyBuffer() = default;
    ListReplyBuffer(const ListReplyBuffer&) = delete;
    ListReplyBuffer& operator=(const ListReplyBuffer&) = delete;
    ~ListReplyBuffer();

    // Invalid when the limit leaves no room for the 16-byte header; OutOfMemory when the
    // buffer cannot be had.
    ProtocolError init(uint32_t max_result_count, uint32_t max_reply_size);

    // Stores the entry when the count stays within max result count and the reply, with the
    // entry and its name and NUL, stays below the limit; otherwise stores nothing and returns
    // false. The entry's zero field is sent as zero whatever info holds. A null name is empty.
    bool add(const FileInfo& info, const char* name, size_t length);
    bool add_utf16(const FileInfo& info, const wchar_t* name, size_t length);

    // Completes the reply in place and returns it; *length receives its length (a multiple
    // of 8, at most the limit).
    uint8_t* finish(uint32_t request_id, uint8_t no_more, size_t* length);

    uint32_t count() const { return count_; }
    uint32_t limit() const { return limit_; }

private:
    // Room check shared by both adds; name_length excludes the NUL.
    bool fits(size_t name_length) const;
    void store_entry(const FileInfo& info);

    uint8_t* buffer_ = nullptr;
    uint32_t limit_ = 0;
    uint32_t max_count_ = 0;
    uint32_t count_ = 0;
    size_t names_size_ = 0; // bytes of names stored, NULs included
};

} // namespace zun
