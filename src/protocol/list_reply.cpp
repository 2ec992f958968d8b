#include "protocol/list_reply.h"

#include <stdlib.h>
#include <string.h>

#include "protocol/reply_encode.h"
#include "protocol/utf8.h"
#include "protocol/wire.h"

namespace zun {

namespace {
constexpr size_t kHeaderSize = 16;
constexpr size_t kEntrySize = sizeof(FileInfo);
} // namespace

ListReplyBuffer::~ListReplyBuffer() {
    free(buffer_);
}

ProtocolError ListReplyBuffer::init(uint32_t max_result_count, uint32_t max_reply_size) {
    free(buffer_);
    buffer_ = nullptr;
    count_ = 0;
    names_size_ = 0;
    max_count_ = max_result_count;
    limit_ = list_reply_limit(max_reply_size);
    if (limit_ < kHeaderSize) return ProtocolError::Invalid;
    buffer_ = static_cast<uint8_t*>(malloc(size_t{limit_} * 2));
    return buffer_ ? ProtocolError::Success : ProtocolError::OutOfMemory;
}

bool ListReplyBuffer::fits(size_t name_length) const {
    if (count_ >= max_count_) return false;
    size_t used = kHeaderSize + kEntrySize * (count_ + 1) + names_size_;
    return used < limit_ && used + name_length < limit_;
}

void ListReplyBuffer::store_entry(const FileInfo& info) {
    store_file_info(buffer_ + kHeaderSize + kEntrySize * count_, info);
    ++count_;
}

bool ListReplyBuffer::add(const FileInfo& info, const char* name, size_t length) {
    if (!name) length = 0;
    if (!fits(length)) return false;
    char* at = reinterpret_cast<char*>(buffer_ + limit_ + names_size_);
    if (length) memcpy(at, name, length);
    at[length] = '\0';
    names_size_ += length + 1;
    store_entry(info);
    return true;
}

bool ListReplyBuffer::add_utf16(const FileInfo& info, const wchar_t* name, size_t length) {
    if (!name) length = 0;
    size_t bytes = utf16_to_utf8_length(name, length);
    if (!fits(bytes)) return false;
    char* at = reinterpret_cast<char*>(buffer_ + limit_ + names_size_);
    utf16_to_utf8(name, length, at);
    at[bytes] = '\0';
    names_size_ += bytes + 1;
    store_entry(info);
    return true;
}

uint8_t* ListReplyBuffer::finish(uint32_t request_id, uint8_t no_more, size_t* length) {
    size_t names_at = kHeaderSize + kEntrySize * count_;
    memmove(buffer_ + names_at, buffer_ + limit_, names_size_);
    size_t size = names_at + names_size_;
    size_t padded = round_up8(size);
    memset(buffer_ + size, 0, padded - size);
    encode_reply_header(buffer_, static_cast<uint32_t>(padded), request_id, ProtocolError::Success);
    store_u32(buffer_ + 8, count_);
    store_u8(buffer_ + 12, no_more ? 1 : 0);
    memset(buffer_ + 13, 0, 3);
    *length = padded;
    return buffer_;
}

} // namespace zun
