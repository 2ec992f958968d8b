#include "protocol/request_name.h"

#include <string.h>

#include "protocol/utf8.h"

namespace zun {

namespace {

// One component as found in the message, before conversion.
struct RawComponent {
    const char* text;
    size_t length;
};

// Steps through the name region. Past its end, or on bytes that lack a terminating NUL, every
// component is empty.
class ComponentCursor {
public:
    ComponentCursor(const uint8_t* begin, const uint8_t* end) : pos_(begin), end_(end) {}

    RawComponent next() {
        auto* nul = static_cast<const uint8_t*>(memchr(pos_, 0, end_ - pos_));
        if (!nul) {
            pos_ = end_;
            return {"", 0};
        }
        RawComponent c{reinterpret_cast<const char*>(pos_), size_t(nul - pos_)};
        pos_ = nul + 1;
        return c;
    }

    // Whether the next component would be non-empty.
    bool next_is_nonempty() const {
        return pos_ < end_ && *pos_ != 0 && memchr(pos_, 0, end_ - pos_) != nullptr;
    }

private:
    const uint8_t* pos_;
    const uint8_t* end_;
};

} // namespace

ProtocolError RequestName::parse(const uint8_t* message, uint32_t size, uint32_t request_id,
                                 uint32_t start, uint32_t min_count, uint32_t max_count) {
    components_ = nullptr;
    count_ = 0;
    storage_.release();
    if (start > size || request_id == 0) return ProtocolError::Invalid;

    // First pass: which components, and how much room their conversions need.
    ComponentCursor cursor(message + start, message + size);
    size_t count = 0, text_units = 0;
    for (;; ++count) {
        if (count >= min_count && (count >= max_count || !cursor.next_is_nonempty())) break;
        RawComponent c = cursor.next();
        text_units += utf8_to_utf16_length(c.text, c.length) + 1;
    }

    size_t bytes = count * sizeof(NameComponent) + text_units * sizeof(wchar_t);
    uint8_t* block = storage_.acquire(bytes);
    if (!block) return ProtocolError::OutOfMemory;

    // Second pass: fill the array, the UTF-16 texts behind it.
    auto* array = reinterpret_cast<NameComponent*>(block);
    auto* text = reinterpret_cast<wchar_t*>(block + count * sizeof(NameComponent));
    cursor = ComponentCursor(message + start, message + size);
    for (size_t i = 0; i < count; ++i) {
        RawComponent c = cursor.next();
        size_t units = utf8_to_utf16(c.text, c.length, text);
        text[units] = L'\0';
        array[i] = NameComponent{text, units, c.text, c.length};
        text += units + 1;
    }
    components_ = array;
    count_ = count;
    return ProtocolError::Success;
}

} // namespace zun
