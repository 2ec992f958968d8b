// The protocol trace as it reaches the status handle: request blocks, completion blocks,
// warnings, exactly.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

#define TIMES(zero)                                                                                \
    "  create time " zero "\n  access time " zero "\n  write time " zero "\n  change time " zero   \
    "\n"
#define ZERO "1601-01-01 00:00:00.000"

TEST(ProtocolTrace, RequestAndCompletionBlocks) {
    TestFormatter formatter;
    formatter.open = [](OpenRequest* r) {
        OpenedFileInfo info{5, 6, -1, 0, 0, 0, FileInfo{2, 0, 0, 0, 0, 0, 0x2A}};
        r->Complete(ProtocolError::Success, 1, &info, 0, L"", nullptr);
    };
    formatter.move = [](MoveRequest* r) {
        r->Complete(ProtocolError::AccessDenied, 0, nullptr, 0, nullptr, nullptr);
    };
    formatter.list = [](ListRequest* r) {
        FileInfo f{0, 0x81, 0, 0, 0, 12};
        r->AddUtf8(&f, "x.txt");
        r->Complete(ProtocolError::Success, 1);
    };
    formatter.read = [](ReadRequest* r) {
        // Offset 0x1003 with data align 0x200: the data start 3 bytes past a multiple of 0x200.
        EXPECT_EQ(reinterpret_cast<uintptr_t>(r->Data()) % 0x200, 3u);
        r->Complete(ProtocolError::Success, 0x10);
    };
    ServeHarness serve(&formatter, {.data_align = 0x200, .status = true});
    ASSERT_TRUE(serve.connect());
    // Sends one request, waits for its reply and returns the text printed meanwhile.
    auto traced = [&](const std::vector<uint8_t>& request, const char* last) {
        size_t before = serve.status().size();
        serve.transact(request);
        return serve.status_with(last).substr(before);
    };

    // The root: "name " with nothing after it; id 0x1F prints as 0001F.
    EXPECT_EQ(traced(REQUEST(encode_open(out, cap, 0x1F, OpenFields{-2, 1, 0x80, 0, 7, 8},
                                         client::Name{nullptr, 0})),
                     "end name"),
              "0001F open\n  name \n  create file type 1\n  create file flags 0x80\n"
              "  write time " ZERO "\n  new create open id 8\n  existing access level -2\n"
              "  new existing open id 7\n"
              "0001F open success\n  open id 5\n  open sequence 6\n  access level -1\n"
              "  control flags 0x00\n  file type 2\n  file flags 0x00\n  extra flags 0x00\n"
              "  color 0\n  file id 0\n  file size 0x2A\n" TIMES(
                  ZERO) "  existed 1\n  parent file id 0\n  end name \n");
    // Names print as paths.
    const char* name[] = {"src", "d\xC3\xA9", "f"};
    EXPECT_EQ(traced(REQUEST(encode_move(out, cap, 9, MoveFields{1, 2, true, 0, 0, 3},
                                         client::Name{name, 3})),
                     "error"),
              "00009 move\n  source open id 1\n  source parent file id 2\n"
              "  source end name src\n  target name /d\xC3\xA9/f\n  delete source 1\n"
              "  write time " ZERO "\n  existing access level 4\n  new existing open id 3\n"
              "00009 error 5\n");
    EXPECT_EQ(traced(REQUEST(encode_list(out, cap, 0xABCDE, ListFields{3, 4, 9, 4096})), "no more"),
              "ABCDE list\n  open id 3\n  list id 4\n  max result count 9\n"
              "ABCDE list name x.txt\n  file type 0\n  file flags 0x81\n  extra flags 0x00\n"
              "  color 0\n  file id 12\n  file size 0x0\n" TIMES(
                  ZERO) "ABCDE list success\n  result count 1\n  no more 1\n");
    EXPECT_EQ(
        traced(REQUEST(encode_read(out, cap, 2, ReadFields{1, 0x1003, 0x200, 0})), "actual size"),
        "00002 read\n  open id 1\n  file offset 0x1003\n  requested size 0x200\n"
        "00002 read success\n  actual size 0x10\n");
    // An invalid read: its warning, no request block, the error line. An unknown operation.
    EXPECT_EQ(traced(REQUEST(encode_read(out, cap, 3, ReadFields{1, 0, 16, 0x8008})), "error"),
              "WARNING: Invalid read msg.\n00003 error 4\n");
    EXPECT_EQ(traced(header_only(8, request_code_word(1, 42)), "error"),
              "00001 unknown(42)\n00001 error 4\n");
    EXPECT_EQ(traced(REQUEST(encode_cancel(out, cap, 4)), "cancel success"),
              "00004 cancel\nWARNING: Cancel not implemented.\n00004 cancel success\n");
    EXPECT_EQ(traced(REQUEST(encode_version(out, cap, 5, 6)), "formatter name"),
              "00005 version\n  client version 6\n00005 version success\n  server version 7\n"
              "  min client compat version 1\n  volume flags 0x21\n  data align 0x200\n"
              "  formatter name testfs\n");
}
