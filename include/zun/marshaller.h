// zun/marshaller.h: the Marshaller, which serves one mount's requests to one formatter.
//
// A formatter obtains a marshaller from the library's factory by interface id, optionally gives
// it a status handle and a trace channel, and calls Serve (or ServeOps / ServeOpsV0 with a flat
// formatter) with the mount's read and write handles. Serve runs on the calling thread until the
// client disconnects or ServeCancel is called. The id picks the marshaller version, and with it
// the table below that is returned and the request tables the formatter sees.
#pragma once

#include <stdarg.h>
#include <windows.h>

#include <zun/flat_formatter.h>
#include <zun/requests.h>

namespace zun {

// Interface ids: ASCII, compared exactly.
constexpr char kMarshallerId1[] = "ZunMarshaller1"; // MarshallerV2, version 1
constexpr char kMarshallerId2[] = "ZunMarshaller2"; // MarshallerV2, version 2: mediainfo
constexpr char kMarshallerId3[] = "ZunMarshaller3"; // MarshallerV5, version 3
constexpr char kMarshallerId4[] = "ZunMarshaller4"; // MarshallerV5, version 4
constexpr char kMarshallerId5[] = "ZunMarshaller5"; // MarshallerV5, version 5
constexpr char kMarshallerId6[] = "ZunMarshaller6"; // Marshaller, version 6: access, FlushRequest

// The parameter block of Serve: eight pointer-sized words.
struct ServeParams {
    uintptr_t word_count;             // at least 8, else Serve fails with 87
    FormatterRequestHandler* handler; //
    uintptr_t volume_flags;           // low 32 bits, reported in the version reply
    const char* formatter_name;       // reported in the version reply (at most 23 bytes sent)
    uintptr_t data_align;             // rounded up to a power of two, at most 4096
    uintptr_t version_word;           // reported at offset 44 of the version reply
    HANDLE read_handle;
    HANDLE write_handle;
};
static_assert(sizeof(ServeParams) == 8 * sizeof(void*));
static_assert(offsetof(ServeParams, word_count) == 0 * sizeof(void*));
static_assert(offsetof(ServeParams, handler) == 1 * sizeof(void*));
static_assert(offsetof(ServeParams, volume_flags) == 2 * sizeof(void*));
static_assert(offsetof(ServeParams, formatter_name) == 3 * sizeof(void*));
static_assert(offsetof(ServeParams, data_align) == 4 * sizeof(void*));
static_assert(offsetof(ServeParams, version_word) == 5 * sizeof(void*));
static_assert(offsetof(ServeParams, read_handle) == 6 * sizeof(void*));
static_assert(offsetof(ServeParams, write_handle) == 7 * sizeof(void*));

// Operations every marshaller table begins with. Results named uint32_t are Windows error
// codes (0 = success).
//
//   Release                drops the caller's reference.
//   SetTraceChannel        trace output for request traces and messages; all ones = the
//                          process's default channel.
//   SetStatusHandle        a handle that receives the same text as 8-bit characters.
//   ConvertSystemError     a Windows error code as a ProtocolError (Failed when it has none).
//   IdentifyScriptHeader   0 when the data begin with a "#!" line naming formatter_name, 11 when
//                          they begin with no "#!" line, 1168 when the line names another.
//   ReadPassword           prompts on the status handle and reads a line from input without
//                          echo; the line stays owned by the marshaller until ClearPassword.
//   ServeOps / ServeOpsV0  serve a flat formatter; see zun/flat_formatter.h.

// Table of ZunMarshaller1 and ZunMarshaller2.
struct MarshallerV2 {
    virtual void Release() = 0;
    virtual void SetTraceChannel(void* channel) = 0;
    virtual void SetStatusHandle(HANDLE handle) = 0;
    virtual ProtocolError ConvertSystemError(uint32_t system_error) = 0;
    virtual uint32_t IdentifyScriptHeader(const void* data, size_t size,
                                          const char* formatter_name) = 0;
    virtual uint32_t ReadPassword(HANDLE input, const wchar_t* prompt, const wchar_t** line) = 0;
    virtual void ClearPassword() = 0;
    virtual uint32_t ServeOps(FlatFormatterV5* formatter, uint32_t volume_flags,
                              const char* formatter_name, HANDLE read_handle,
                              HANDLE write_handle) = 0;
    virtual uint32_t ServeOpsV0(ReadOnlyFlatFormatter* formatter, uint32_t volume_flags,
                                const char* formatter_name, HANDLE read_handle,
                                HANDLE write_handle) = 0;
    virtual void Print(const wchar_t* text) = 0;
    virtual void VPrintf(const wchar_t* format, va_list args) = 0;
    virtual void Printf(const wchar_t* format, ...) = 0;
    virtual void PrintLine(const wchar_t* text) = 0;
};

// Table of ZunMarshaller3 to ZunMarshaller5.
struct MarshallerV5 {
    virtual void Release() = 0;
    virtual void SetTraceChannel(void* channel) = 0;
    virtual void SetStatusHandle(HANDLE handle) = 0;
    virtual ProtocolError ConvertSystemError(uint32_t system_error) = 0;
    virtual uint32_t IdentifyScriptHeader(const void* data, size_t size,
                                          const char* formatter_name) = 0;
    virtual uint32_t ReadPassword(HANDLE input, const wchar_t* prompt, const wchar_t** line) = 0;
    virtual void ClearPassword() = 0;
    virtual uint32_t ServeOps(FlatFormatterV5* formatter, uint32_t volume_flags,
                              const char* formatter_name, HANDLE read_handle,
                              HANDLE write_handle) = 0;
    virtual uint32_t ServeOpsV0(ReadOnlyFlatFormatter* formatter, uint32_t volume_flags,
                                const char* formatter_name, HANDLE read_handle,
                                HANDLE write_handle) = 0;
    virtual uint32_t Serve(const ServeParams* params) = 0;
    virtual void PrintText(const wchar_t* text, bool line_end) = 0;
    virtual void Print(const wchar_t* text) = 0;
    virtual void VPrintf(const wchar_t* format, va_list args) = 0;
    virtual void Printf(const wchar_t* format, ...) = 0;
    virtual void ServeCancel() = 0;
};

// Table of ZunMarshaller6: the order of MarshallerV5; ServeOps takes the current flat interface.
struct Marshaller {
    virtual void Release() = 0;
    virtual void SetTraceChannel(void* channel) = 0;
    virtual void SetStatusHandle(HANDLE handle) = 0;
    virtual ProtocolError ConvertSystemError(uint32_t system_error) = 0;
    virtual uint32_t IdentifyScriptHeader(const void* data, size_t size,
                                          const char* formatter_name) = 0;
    virtual uint32_t ReadPassword(HANDLE input, const wchar_t* prompt, const wchar_t** line) = 0;
    virtual void ClearPassword() = 0;
    virtual uint32_t ServeOps(FlatFormatter* formatter, uint32_t volume_flags,
                              const char* formatter_name, HANDLE read_handle,
                              HANDLE write_handle) = 0;
    virtual uint32_t ServeOpsV0(ReadOnlyFlatFormatter* formatter, uint32_t volume_flags,
                                const char* formatter_name, HANDLE read_handle,
                                HANDLE write_handle) = 0;
    virtual uint32_t Serve(const ServeParams* params) = 0;
    virtual void PrintText(const wchar_t* text, bool line_end) = 0;
    virtual void Print(const wchar_t* text) = 0;
    virtual void VPrintf(const wchar_t* format, va_list args) = 0;
    virtual void Printf(const wchar_t* format, ...) = 0;
    virtual void ServeCancel() = 0;
};

} // namespace zun
