// Writing the table back as a text file, so that translators start from a complete file:
//
//     EF BB BF CR LF "# utf8" CR LF CR LF
//     text <key> {<text>} CR LF CR LF          (for every key in key order)
//
// Keys of the form locale_* (taken from the user's settings) and dnt_* (not to be translated)
// are left out. The braced word reads back as the text: line feeds are written as CR LF (the
// text's own carriage returns dropped), a balanced pair of braces stays, a "}" that closes
// nothing becomes "}$){" and a "{" left open becomes "}$({": the braced word is closed, the
// brace escape follows, and a new braced word goes on.
#include <windows.h>

#include "base/file_open.h"
#include "base/io.h"
#include "base/owned_handle.h"
#include "base/text.h"
#include "base/utf.h"
#include "base/wildcard.h"
#include "usertext/usertext_internal.h"

namespace {

class ByteBuffer {
public:
    ByteBuffer() = default;
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;
    ~ByteBuffer() {
        if (bytes_) HeapFree(GetProcessHeap(), 0, bytes_);
    }

    void put(const char* data, size_t n) {
        if (failed_ || !reserve(n)) return;
        memcpy(bytes_ + size_, data, n);
        size_ += n;
    }

    void put(const char* text) { put(text, strlen(text)); }

    void put_text(const wchar_t* text, size_t length) {
        char utf8[6];
        for (size_t i = 0; i < length;) {
            size_t used;
            uint32_t cp = utf16_decode(text + i, length - i, &used);
            i += used;
            put(utf8, utf8_encode(cp, utf8));
        }
    }

    // Hands the block over; null if any growth failed.
    char* take(size_t* size) {
        if (failed_) return nullptr;
        if (!bytes_ && !reserve(1)) return nullptr;
        *size = size_;
        char* block = bytes_;
        bytes_ = nullptr;
        return block;
    }

private:
    bool reserve(size_t n) {
        if (size_ + n <= capacity_) return true;
        size_t grown = (size_ + n) + (size_ + n) / 2 + 256;
        void* block = bytes_ ? HeapReAlloc(GetProcessHeap(), 0, bytes_, grown)
                             : HeapAlloc(GetProcessHeap(), 0, grown);
        if (!block) {
            failed_ = true;
            return false;
        }
        bytes_ = static_cast<char*>(block);
        capacity_ = grown;
        return true;
    }

    char* bytes_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
    bool failed_ = false;
};

// Marks the "{" that nothing closes. Walking backwards, a "{" pairs with the nearest "}" after
// it that is still unpaired; pairing from either end gives the same pairs.
void mark_open_braces(const wchar_t* text, size_t length, bool* unmatched) {
    size_t closes = 0;
    for (size_t i = length; i > 0; --i) {
        unmatched[i - 1] = false;
        if (text[i - 1] == '}') {
            ++closes;
        } else if (text[i - 1] == '{') {
            if (closes)
                --closes;
            else
                unmatched[i - 1] = true;
        }
    }
}

// Writes one text as its braced word; false when memory is short.
bool put_braced(ByteBuffer& out, const wchar_t* text, size_t length) {
    bool small[256];
    bool* unmatched =
        length <= 256 ? small : static_cast<bool*>(HeapAlloc(GetProcessHeap(), 0, length));
    if (!unmatched) return false;
    mark_open_braces(text, length, unmatched);

    out.put("{");
    size_t depth = 0; // paired "{" open here
    size_t start = 0; // the first unit not written yet
    for (size_t i = 0; i < length; ++i) {
        const char* replacement;
        switch (text[i]) {
        case '\r':
            replacement = "";
            break;
        case '\n':
            replacement = "\r\n";
            break;
        case '{':
            if (!unmatched[i]) {
                ++depth;
                continue;
            }
            replacement = "}$({";
            break;
        case '}':
            if (depth) {
                --depth;
                continue;
            }
            replacement = "}$){";
            break;
        default:
            continue;
        }
        out.put_text(text + start, i - start);
        out.put(replacement);
        start = i + 1;
    }
    out.put_text(text + start, length - start);
    out.put("}");
    if (unmatched != small) HeapFree(GetProcessHeap(), 0, unmatched);
    return true;
}

struct Writer {
    ByteBuffer out;
    bool test_mode;
    bool failed = false;
};

void write_entry(void* context, const wchar_t* key, const wchar_t* text) {
    auto* writer = static_cast<Writer*>(context);
    if (text_wildcard_match_ascii_nocase(L"locale_*", key) ||
        text_wildcard_match_ascii_nocase(L"dnt_*", key))
        return;
    // In test mode every text carries "(key) " in front; the file gets the text alone.
    if (writer->test_mode && text[0] == '(') {
        size_t key_length = text_length(key);
        if (text_compare(text + 1, key_length, key, key_length) == 0 &&
            text[key_length + 1] == ')' && text[key_length + 2] == ' ')
            text += key_length + 3;
    }
    writer->out.put("text ");
    writer->out.put_text(key, text_length(key));
    writer->out.put(" ");
    if (!put_braced(writer->out, text, text_length(text))) writer->failed = true;
    writer->out.put("\r\n\r\n");
}

} // namespace

char* usertext_table_file(size_t* size) {
    Writer writer;
    writer.test_mode = usertext_test_mode();
    writer.out.put("\xEF\xBB\xBF\r\n# utf8\r\n\r\n");
    usertext_enumerate(write_entry, &writer);
    return writer.failed ? nullptr : writer.out.take(size);
}

uint32_t usertext_write_file(const wchar_t* path, const void* bytes, size_t size) {
    OwnedHandle file;
    if (uint32_t error = file_open(file.out(), path, file_open_write | file_open_replace))
        return error;
    size_t written = 0;
    if (uint32_t error = io_write(file.get(), bytes, size, &written)) return error;
    return written == size ? 0 : ERROR_DISK_FULL;
}
