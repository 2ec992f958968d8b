// The marshaller's text output and password prompt.
//
// Text goes to two places: the trace channel (the runtime's trace facility) and the status
// handle (a stream the host relays to a console or a dialog, as 8-bit text). Either may be
// missing; with neither, printing costs nothing, which is what keeps the protocol trace free
// when nobody looks.
#include <stdlib.h>
#include <string.h>

#include "base/format.h"
#include "base/io.h"
#include "base/trace_hook.h"
#include "protocol/marshaller_object.h"
#include "protocol/utf8.h"

namespace zun {

namespace {

// Short texts are converted and formatted on the stack.
constexpr size_t kStackText = 200;

// The prompt is cut to this many bytes; the line typed to one byte less.
constexpr size_t kPromptBytes = 300;
constexpr size_t kPasswordBytes = 299;

// Console input mode while the password is typed (processed line input, no echo), and after.
constexpr DWORD kPasswordInputMode = ENABLE_PROCESSED_INPUT | ENABLE_LINE_INPUT;
constexpr DWORD kNormalInputMode = kPasswordInputMode | ENABLE_ECHO_INPUT;

bool is_handle(HANDLE h) {
    return h != nullptr && h != INVALID_HANDLE_VALUE;
}

// UTF-16 text converted to UTF-8, on the stack when it is short.
class Utf8Text {
public:
    Utf8Text(const wchar_t* text, size_t length, bool line_end, size_t limit = SIZE_MAX) {
        size_t bytes = utf16_to_utf8_length(text, length);
        if (bytes > limit) {
            // Cut on a character boundary.
            while (length && utf16_to_utf8_length(text, length) > limit) --length;
            bytes = utf16_to_utf8_length(text, length);
        }
        size_t total = bytes + (line_end ? 1 : 0);
        data_ = total + 1 <= sizeof inline_ ? inline_ : static_cast<char*>(malloc(total + 1));
        if (!data_) return;
        utf16_to_utf8(text, length, data_);
        if (line_end) data_[bytes] = '\n';
        data_[total] = '\0';
        length_ = total;
    }
    ~Utf8Text() {
        if (data_ != inline_) free(data_);
    }
    Utf8Text(const Utf8Text&) = delete;
    Utf8Text& operator=(const Utf8Text&) = delete;

    const char* data() const { return data_; }
    size_t length() const { return length_; }

private:
    char inline_[kStackText];
    char* data_ = nullptr;
    size_t length_ = 0;
};

} // namespace

void MarshallerObject::SetTraceChannel(void* channel) {
    // The default channel's value (all ones) needs no reference: the hook resolves it per call.
    // (Null is passed to neither call: the first call of the process looks for the library.)
    void* old = trace_channel_;
    if (channel) trace_channel_reference(channel);
    trace_channel_ = channel;
    if (old) trace_channel_release(old);
}

void MarshallerObject::SetStatusHandle(HANDLE handle) {
    status_handle_ = is_handle(handle) ? handle : nullptr;
    status_kind_ = 0;
}

void MarshallerObject::write_status(const char* text, size_t length) {
    size_t count;
    io_write_ex(status_handle_, &status_kind_, nullptr, io_no_timeout, text, length, &count);
}

void MarshallerObject::PrintText(const wchar_t* text, bool line_end) {
    if (!status_handle_ && !trace_channel_) return;
    if (!text) text = L"";
    // The trace facility takes UTF-16 text; only the status handle gets 8-bit text.
    if (trace_channel_) trace_print(trace_channel_, line_end ? L"%s\n" : L"%s", text);
    if (!status_handle_) return;
    Utf8Text utf8(text, utf16_length(text), line_end);
    if (utf8.data()) write_status(utf8.data(), utf8.length());
}

void MarshallerObject::Print(const wchar_t* text) {
    PrintText(text, false);
}

void MarshallerObject::PrintLine(const wchar_t* text) {
    PrintText(text, true);
}

void MarshallerObject::VPrintf(const wchar_t* format, va_list args) {
    if (!status_handle_) {
        if (trace_channel_) trace_vprint(trace_channel_, format, args);
        return;
    }
    wchar_t stack[kStackText];
    va_list again;
    va_copy(again, args);
    size_t length = text_vformat(stack, kStackText, format, args);
    if (length < kStackText) {
        PrintText(stack, false);
    } else {
        auto* text = static_cast<wchar_t*>(malloc((length + 1) * sizeof(wchar_t)));
        if (text) {
            text_vformat(text, length + 1, format, again);
            PrintText(text, false);
            free(text);
        }
    }
    va_end(again);
}

void MarshallerObject::Printf(const wchar_t* format, ...) {
    if (!status_handle_ && !trace_channel_) return;
    va_list args;
    va_start(args, format);
    VPrintf(format, args);
    va_end(args);
}

void MarshallerObject::trace_printf(const wchar_t* format, ...) {
    if (!trace_channel_) return;
    va_list args;
    va_start(args, format);
    trace_vprint(trace_channel_, format, args);
    va_end(args);
}

// ---------------------------------------------------------------------------------------------
// Password prompt

void MarshallerObject::ClearPassword() {
    if (!password_) return;
    SecureZeroMemory(password_, password_length_ * sizeof(wchar_t));
    free(password_);
    password_ = nullptr;
    password_length_ = 0;
}

uint32_t MarshallerObject::ReadPassword(HANDLE input, const wchar_t* prompt, const wchar_t** line) {
    if (line) *line = nullptr;
    ClearPassword();

    size_t count = 0;
    uint32_t error = 0;
    if (status_handle_ && prompt) {
        Utf8Text text(prompt, utf16_length(prompt), false, kPromptBytes);
        if (!text.data()) return 14;
        error = io_write_ex(status_handle_, &status_kind_, nullptr, io_no_timeout, text.data(),
                            text.length(), &count);
        if (!error && count < text.length()) error = 109;
        if (error) return error;
    }

    // Typed characters must not appear: line input without echo for the duration.
    SetConsoleMode(input, kPasswordInputMode);
    char typed[kPasswordBytes + 1];
    size_t length = 0;
    uint8_t input_kind = 0;
    for (;;) {
        char c;
        error = io_read_ex(input, &input_kind, nullptr, io_no_timeout, &c, 1, &count);
        if (!error && !count) error = 109;
        if (error || c == '\n' || c == '\0') break;
        if (length < kPasswordBytes) typed[length++] = c;
    }
    SetConsoleMode(input, kNormalInputMode);
    if (!error && length && typed[length - 1] == '\r') --length;

    // The user's Enter was not echoed either.
    if (status_handle_) write_status("\n", 1);

    if (!error) {
        size_t units = utf8_to_utf16_length(typed, length);
        password_ = static_cast<wchar_t*>(malloc((units + 1) * sizeof(wchar_t)));
        if (password_) {
            utf8_to_utf16(typed, length, password_);
            password_[units] = L'\0';
            password_length_ = units;
            if (line) *line = password_;
        } else {
            error = 14;
        }
    }
    SecureZeroMemory(typed, sizeof typed);
    return error;
}

} // namespace zun
