// The fixed texts the marshaller prints through its Printf: the protocol's own warnings and
// stream errors, and every trace block. They are part of the protocol's observable behaviour
// (hosts and tools match on them), so they live here, in one place, rather than in the user
// text table.
#pragma once

namespace zun::marshaller_text {

// Warnings and notes.
constexpr wchar_t kCancelNotImplemented[] = L"WARNING: Cancel not implemented.\n";
constexpr wchar_t kServeCancelCalled[] = L"NOTE: ServeCancel called.\n";
constexpr wchar_t kUnexpectedSystemError[] = L"WARNING: Unexpected system error %i.\n";
constexpr wchar_t kInvalidRead[] = L"WARNING: Invalid read msg.\n";
constexpr wchar_t kInvalidWrite[] = L"WARNING: Invalid write msg.\n";
constexpr wchar_t kInvalidDirectReadPadding[] =
    L"WARNING: Invalid direct read alignment padding.\n";
constexpr wchar_t kInvalidDirectReadSize[] = L"WARNING: Invalid direct read max output size.\n";
constexpr wchar_t kInvalidDirectWriteSize[] = L"WARNING: Invalid direct write output size.\n";

// Stream transport errors.
constexpr wchar_t kSocketReadError[] = L"ERROR: %i Socket read error.\n";
constexpr wchar_t kSocketWriteError[] = L"ERROR: %i Socket write error.\n";
constexpr wchar_t kHandshakeError[] = L"ERROR: %i during ready handshake with client.\n";
constexpr wchar_t kProtocolStreamError[] = L"ERROR: Protocol stream error.\n";

// Fast pipe errors: they go to the trace channel only.
constexpr wchar_t kFastPipeReceiveError[] = L"ERROR: %i Fast pipe receive error.\n";
constexpr wchar_t kConcurrentResultReads[] =
    L"ERROR: Protocol stream error, concurrent result reads.\n";
constexpr wchar_t kFastPipeWriteTooSmall[] = L"ERROR: Protocol stream error, write too small.\n";
constexpr wchar_t kFastPipeInvalidHeader[] =
    L"ERROR: Protocol stream error, invalid fastpipe msg header.\n";
constexpr wchar_t kFastPipeInvalidDirectSize[] =
    L"ERROR: Protocol stream error, invalid fastpipe direct result size.\n";
constexpr wchar_t kUnsupportedTransferType[] =
    L"ERROR: Protocol stream error, unsupported fastpipe op type.\n";
constexpr wchar_t kDirectOutputTooSmall[] =
    L"ERROR: Protocol stream error, direct I/O output buffer too small.\n";

// Request blocks, printed once a request has been decoded.
constexpr wchar_t kTraceCancel[] = L"%05X cancel\n";
constexpr wchar_t kTraceDisconnect[] = L"%05X disconnect\n";
constexpr wchar_t kTraceVersion[] = L"%05X version\n  client version %i\n";
constexpr wchar_t kTraceOpen[] = L"%05X open\n  name %s\n  create file type %i\n"
                                 L"  create file flags 0x%02X\n  write time %T\n"
                                 L"  new create open id %I64i\n  existing access level %i\n"
                                 L"  new existing open id %I64i\n";
constexpr wchar_t kTraceReplace[] =
    L"%05X replace\n  target open id %I64i\n  target parent file id %I64i\n"
    L"  target end name %s\n  create file flags 0x%02X\n  write time %T\n"
    L"  new create open id %I64i\n";
constexpr wchar_t kTraceMove[] =
    L"%05X move\n  source open id %I64i\n  source parent file id %I64i\n"
    L"  source end name %s\n  target name %s\n  delete source %i\n  write time %T\n"
    L"  existing access level %i\n  new existing open id %I64i\n";
constexpr wchar_t kTraceMoveReplace[] =
    L"%05X movereplace\n  source open id %I64i\n  source parent file id %I64i\n"
    L"  source end name %s\n  target open id %I64i\n  target parent file id %I64i\n"
    L"  target end name %s\n  delete source %i\n  write time %T\n";
constexpr wchar_t kTraceDelete[] = L"%05X delete\n  open id %I64i\n  parent file id %I64i\n"
                                   L"  end name %s\n  write time %T\n";
constexpr wchar_t kTraceClose[] = L"%05X close\n  open id %I64i\n  open sequence %I64i\n";
constexpr wchar_t kTraceFlush[] =
    L"%05X flush\n  open id %I64i\n  flush flags 0x%02X\n  file flags 0x%02X\n  color %i\n"
    L"  create time %T\n  access time %T\n  write time %T\n  change time %T\n";
constexpr wchar_t kTraceList[] =
    L"%05X list\n  open id %I64i\n  list id %I64i\n  max result count %u\n";
constexpr wchar_t kTraceListEnd[] = L"%05X listend\n  open id %I64i\n  list id %I64i\n";
constexpr wchar_t kTraceRead[] =
    L"%05X read\n  open id %I64i\n  file offset 0x%I64X\n  requested size 0x%P\n";
constexpr wchar_t kTraceWrite[] =
    L"%05X write\n  open id %I64i\n  file offset 0x%I64X\n  requested size 0x%P\n";
constexpr wchar_t kTraceSetSize[] = L"%05X setsize\n  open id %I64i\n  file size 0x%I64X\n";
constexpr wchar_t kTraceCapacity[] = L"%05X capacity\n  open id %I64i\n";
constexpr wchar_t kTraceFlushMedia[] = L"%05X flushmedia\n";
constexpr wchar_t kTraceControl[] =
    L"%05X control\n  open id %I64i\n  access level %i\n  control code %i\n"
    L"  input size 0x%P\n  max output size 0x%P\n";
constexpr wchar_t kTraceMediaInfo[] = L"%05X mediainfo\n  open id %I64i\n";
constexpr wchar_t kTraceAccess[] = L"%05X access\n  open id %I64i\n  access level %i\n";
constexpr wchar_t kTraceUnknown[] = L"%05X unknown(%i)\n";

// Completion blocks, printed under the marshaller lock.
constexpr wchar_t kTraceError[] = L"%05X error %i\n";
constexpr wchar_t kTraceSuccess[] = L"%05X %ls success\n";
// The record of open, move, replace, flush and access, after their success line.
// clang-format off
#define ZUN_TRACE_OPENED_FILE_INFO                                                                 \
    L"  open id %I64i\n  open sequence %I64i\n  access level %i\n  control flags 0x%02X\n"         \
    L"  file type %i\n  file flags 0x%02X\n  extra flags 0x%02X\n  color %i\n  file id %I64i\n"    \
    L"  file size 0x%I64X\n  create time %T\n  access time %T\n  write time %T\n"                  \
    L"  change time %T\n"
constexpr wchar_t kTraceInfoSuccess[] = L"%05X %ls success\n" ZUN_TRACE_OPENED_FILE_INFO;
constexpr wchar_t kTraceOpenSuccess[] = L"%05X %ls success\n" ZUN_TRACE_OPENED_FILE_INFO
    L"  existed %i\n  parent file id %I64i\n  end name %hs\n";
// clang-format on
#undef ZUN_TRACE_OPENED_FILE_INFO
constexpr wchar_t kTraceListEntry[] =
    L"%05X list name %hs\n  file type %i\n  file flags 0x%02X\n  extra flags 0x%02X\n"
    L"  color %i\n  file id %I64i\n  file size 0x%I64X\n  create time %T\n  access time %T\n"
    L"  write time %T\n  change time %T\n";
constexpr wchar_t kTraceListSuccess[] = L"%05X list success\n  result count %u\n  no more %i\n";
constexpr wchar_t kTraceDataSuccess[] = L"%05X %ls success\n  actual size 0x%P\n";
constexpr wchar_t kTraceCapacitySuccess[] =
    L"%05X capacity success\n  total capacity 0x%I64X\n  available capacity 0x%I64X\n";
constexpr wchar_t kTraceFlushMediaSuccess[] = L"%05X flushmedia success\n  flush delay %i\n";
constexpr wchar_t kTraceControlSuccess[] = L"%05X control success\n  output size 0x%P\n";
constexpr wchar_t kTraceMediaInfoSuccess[] =
    L"%05X mediainfo success\n  uuid %R\n  id 64 0x%I64X\n  id 32 0x%X\n  flags 0x%02X\n"
    L"  create time %T\n  label %hs\n";
constexpr wchar_t kTraceVersionSuccess[] =
    L"%05X version success\n  server version %i\n  min client compat version %i\n"
    L"  volume flags 0x%02X\n  data align 0x%03X\n  formatter name %hs\n";

} // namespace zun::marshaller_text
