// The protocol trace as it reaches the status handle: request blocks, completion blocks,
// warnings, exactly.
#include "base/trace_hook.h"
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

constexpr char kZeroTime[] = "1601-01-01 00:00:00.000";

// Sends one request, waits for its reply and returns the text printed meanwhile.
std::string traced(ServeHarness& serve, const std::vector<uint8_t>& request, const char* last) {
    serve.clear_status();
    serve.transact(request);
    return serve.status_with(last);
}

} // namespace

TEST(ProtocolTrace, RequestAndCompletionBlocks) {
    TestFormatter formatter;
    formatter.open = [](OpenRequest* r) {
        OpenedFileInfo info{};
        info.open_id = 5;
        info.open_sequence = 6;
        info.access_level = -1;
        info.file.file_type = 2;
        info.file.file_size = 0x2A;
        r->Complete(ProtocolError::Success, 1, &info, 0, L"", nullptr);
    };
    formatter.list = [](ListRequest* r) {
        FileInfo f{};
        f.file_flags = 0x81;
        f.file_id = 12;
        r->AddUtf8(&f, "x.txt");
        r->Complete(ProtocolError::Success, 1);
    };
    formatter.read = [](ReadRequest* r) { r->Complete(ProtocolError::Success, 0x10); };
    ServeHarness serve(&formatter, {.data_align = 0x200});
    ASSERT_TRUE(serve.connect());
    std::string t(kZeroTime);

    // The root: "name " with nothing after it; id 0x1F prints as 0001F.
    EXPECT_EQ(traced(serve,
                     REQUEST(encode_open(out, cap, 0x1F, OpenFields{-2, 1, 0x80, 0, 7, 8},
                                         client::Name{nullptr, 0})),
                     "end name"),
              "0001F open\n  name \n  create file type 1\n  create file flags 0x80\n"
              "  write time " +
                  t +
                  "\n  new create open id 8\n  existing access level -2\n"
                  "  new existing open id 7\n"
                  "0001F open success\n  open id 5\n  open sequence 6\n  access level -1\n"
                  "  control flags 0x00\n  file type 2\n  file flags 0x00\n  extra flags 0x00\n"
                  "  color 0\n  file id 0\n  file size 0x2A\n  create time " +
                  t + "\n  access time " + t + "\n  write time " + t + "\n  change time " + t +
                  "\n  existed 1\n  parent file id 0\n  end name \n");

    EXPECT_EQ(traced(serve, REQUEST(encode_list(out, cap, 0xABCDE, ListFields{3, 4, 9, 4096})),
                     "no more"),
              "ABCDE list\n  open id 3\n  list id 4\n  max result count 9\n"
              "ABCDE list name x.txt\n  file type 0\n  file flags 0x81\n  extra flags 0x00\n"
              "  color 0\n  file id 12\n  file size 0x0\n  create time " +
                  t + "\n  access time " + t + "\n  write time " + t + "\n  change time " + t +
                  "\nABCDE list success\n  result count 1\n  no more 1\n");

    EXPECT_EQ(traced(serve, REQUEST(encode_read(out, cap, 2, ReadFields{1, 0x1003, 0x200, 0})),
                     "actual size"),
              "00002 read\n  open id 1\n  file offset 0x1003\n  requested size 0x200\n"
              "00002 read success\n  actual size 0x10\n");

    // An invalid read: its warning, no request block, the error line.
    EXPECT_EQ(
        traced(serve, REQUEST(encode_read(out, cap, 3, ReadFields{1, 0, 16, 0x8008})), "error"),
        "WARNING: Invalid read msg.\n00003 error 4\n");

    // Operation 42 is unknown.
    std::vector<uint8_t> unknown(8);
    unknown[0] = 8;
    uint32_t code = request_code_word(1, 42);
    memcpy(&unknown[4], &code, 4);
    EXPECT_EQ(traced(serve, unknown, "error"), "00001 unknown(42)\n00001 error 4\n");

    EXPECT_EQ(traced(serve, REQUEST(encode_cancel(out, cap, 4)), "cancel success"),
              "00004 cancel\nWARNING: Cancel not implemented.\n00004 cancel success\n");

    EXPECT_EQ(traced(serve, REQUEST(encode_version(out, cap, 5, 6)), "formatter name"),
              "00005 version\n  client version 6\n00005 version success\n  server version 7\n"
              "  min client compat version 1\n  volume flags 0x21\n  data align 0x200\n"
              "  formatter name testfs\n");
}

TEST(ProtocolTrace, NamesPrintAsPaths) {
    TestFormatter formatter;
    formatter.move = [](MoveRequest* r) {
        r->Complete(ProtocolError::AccessDenied, 0, nullptr, 0, nullptr, nullptr);
    };
    ServeHarness serve(&formatter);
    ASSERT_TRUE(serve.connect());
    const char* name[] = {"src", "d\xC3\xA9", "f"};
    EXPECT_EQ(traced(serve,
                     REQUEST(encode_move(out, cap, 9, MoveFields{1, 2, true, 0, 0, 3},
                                         client::Name{name, 3})),
                     "error"),
              "00009 move\n  source open id 1\n  source parent file id 2\n"
              "  source end name src\n  target name /d\xC3\xA9/f\n  delete source 1\n"
              "  write time " +
                  std::string(kZeroTime) +
                  "\n  existing access level 4\n  new existing open id 3\n00009 error 5\n");
}

TEST(ProtocolTrace, TraceChannelGetsTheSameText) {
    // The test trace library appends "<channel>: <text>" to the file ZUN_TRACE_FILE names.
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path, wcsrchr(path, L'\\'));
    std::wstring output = directory + L"\\protocol_trace.txt";
    DeleteFileW(output.c_str());
    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", output.c_str());
    SetDllDirectoryW((directory + L"\\tracetest").c_str());
    TraceChannel channel = trace_channel_open(L"proto");
    SetDllDirectoryW(nullptr);
    ASSERT_NE(channel, nullptr) << "no trace library in bin\\tracetest";

    TestFormatter formatter;
    formatter.capacity = [](CapacityRequest* r) { r->Complete(ProtocolError::Success, 16, 1); };
    {
        ServeHarness serve(&formatter, {.status = false});
        serve.marshaller->SetTraceChannel(channel);
        trace_channel_release(channel); // the marshaller holds its own reference
        serve.marshaller->PrintLine(L"line");
        serve.marshaller->Print(L"partial ");
        serve.marshaller->Printf(L"%05X done\n", 0x1F);
        ASSERT_TRUE(serve.connect());
        serve.transact(REQUEST(encode_capacity(out, cap, 2, nullptr)));
    }
    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", nullptr);

    std::string text;
    HANDLE file = CreateFileW(output.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              0, nullptr);
    char buffer[4096];
    DWORD got;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got) text.append(buffer, got);
    CloseHandle(file);
    DeleteFileW(output.c_str());
    EXPECT_EQ(text, "proto: line\nproto: partial proto: 0001F done\n"
                    "proto: 00002 capacity\n  open id 0\n"
                    "proto: 00002 capacity success\n  total capacity 0x10\n"
                    "  available capacity 0x1\n"
                    "proto: NOTE: ServeCancel called.\nproto: ERROR: 995 Socket read error.\n"
                    "released proto\n");
}
