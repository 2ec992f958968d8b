// Replies of every operation, byte for byte, as a client receives them from a real serve over a
// pipe pair; and the rules that decide whether a request reaches the formatter at all.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

constexpr uint32_t kId = 0x12345;

// Zero fields are filled, as they must never be sent.
const FileInfo kFile{1, 0x20, 3, 4, 0xFFFFFFFF, 0x55, 0x1000, 1, 2, 3, 4};
const OpenedFileInfo kInfo{7, 8, 2, 0x10, 0xFFFF, 0xAABBCCDD, kFile};

// The record above as sent, with the open sequence the hook leaves.
#define SAMPLE_RECORD(seq)                                                                         \
    "07000000 00000000" seq "02100000 ddccbbaa 01200304 00000000 55000000 00000000"                \
    "00100000 00000000 01000000 00000000 02000000 00000000 03000000 00000000 04000000 00000000"

struct SetSequence : SequenceHook {
    void UpdateOpenSequence(uint64_t open_id, uint64_t* seq) override {
        if (open_id == 7) *seq = 0x99;
    }
} g_hook;

// A formatter that answers every operation with fixed values.
struct FixedFormatter : TestFormatter {
    FixedFormatter() {
        open = [](OpenRequest* r) {
            r->Complete(ProtocolError::Success, 1, &kInfo, 9, L"bc", &g_hook);
        };
        move = [](MoveRequest* r) {
            EXPECT_EQ(r->ExistingAccessLevel(), 4); // sent as 0
            EXPECT_EQ(r->TargetNameCount(), 2u);
            r->Complete(ProtocolError::Success, 0, &kInfo, 9, L"u", nullptr);
        };
        auto done = [](auto* r) { r->Complete(ProtocolError::Success); };
        move_replace = done, remove = done, close = done, list_end = done, set_size = done;
        replace = [](ReplaceRequest* r) { r->Complete(ProtocolError::Success, &kInfo, nullptr); };
        flush = [](FlushRequest* r) {
            r->Complete(ProtocolError::Success, r->FlushFlags() ? &kInfo : nullptr, nullptr);
        };
        list = [](ListRequest* r) {
            FileInfo f{1, 0, 0, 0, 0, 2};
            EXPECT_TRUE(r->Add(&f, L"a"));
            EXPECT_TRUE(r->AddUtf8(&f, "bcd"));
            r->Complete(ProtocolError::Success, 1);
        };
        read = [](ReadRequest* r) {
            memcpy(r->Data(), "xyz", 3);
            r->Complete(ProtocolError::Success, 3);
        };
        write = [](WriteRequest* r) {
            EXPECT_EQ(std::string(static_cast<const char*>(r->Data()), r->RequestedSize()),
                      "hello");
            r->Complete(ProtocolError::Success, 5);
        };
        capacity = [](CapacityRequest* r) {
            EXPECT_EQ(r->OpenId(), 0u);
            r->Complete(ProtocolError::Success, 0x1000, 0x800);
        };
        flush_media = [](FlushMediaRequest* r) { r->Complete(ProtocolError::Success, 2000); };
        control = [](ControlRequest* r) {
            EXPECT_EQ(std::string(static_cast<const char*>(r->InputData()), r->InputSize()), "hi");
            memcpy(r->OutputBuffer(), "HI!", 3);
            r->Complete(ProtocolError::Success, 3);
        };
        media_info = [](MediaInfoRequest* r) {
            // The reserved bytes are not sent.
            zun::MediaInfo m{{1, 2, 3}, 0x1122334455667788, 0x99AABBCC, 5, {0xFF}, 6};
            r->Complete(ProtocolError::Success, &m, L"L");
        };
        access = [](AccessRequest* r) { r->Complete(ProtocolError::Success, &kInfo, &g_hook); };
    }
};

} // namespace

TEST(ServeReplies, EveryOperationByteExact) {
    FixedFormatter formatter;
    ServeHarness serve(&formatter);
    ASSERT_TRUE(serve.connect());

    const char* move_name[] = {"s", "t", "u"};
    const char* open_name[] = {"a", "bc"};
    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o'};
    const uint8_t hi[] = {'h', 'i'};
    const struct {
        std::vector<uint8_t> request;
        const char* reply;
    } cases[] = {
        {REQUEST(encode_cancel(out, cap, kId)), "08000000 45230180"},
        {REQUEST(encode_version(out, cap, kId, 5)),
         "40000000 45230180 07000100 21000000 74657374 66730000 00000000 00000000"
         "00000000 00000000 01000000 00000001 00000000 00000000 00000000 00000000"},
        {REQUEST(encode_version(out, cap, kId, 4)), // an old client does not get word 44
         "40000000 45230180 07000100 21000000 74657374 66730000 00000000 00000000"
         "00000000 00000000 01000000 00000000 00000000 00000000 00000000 00000000"},
        {REQUEST(encode_open(out, cap, kId, OpenFields{}, client::Name{open_name, 2})),
         "70000000 45230180 01000000 00000000" SAMPLE_RECORD(
             "99000000 00000000") "09000000 00000000 62630000 00000000"},
        {REQUEST(encode_replace(out, cap, kId, ReplaceFields{}, "x")),
         "58000000 45230180" SAMPLE_RECORD("08000000 00000000")},
        {REQUEST(encode_move(out, cap, kId, MoveFields{1, 2, true, 0, 5, 6},
                             client::Name{move_name, 3})),
         "70000000 45230180 00000000 00000000" SAMPLE_RECORD(
             "08000000 00000000") "09000000 00000000 75000000 00000000"},
        {REQUEST(encode_move_replace(out, cap, kId, MoveReplaceFields{}, "a", "b")),
         "08000000 45230180"},
        {REQUEST(encode_delete(out, cap, kId, DeleteFields{}, "a")), "08000000 45230180"},
        {REQUEST(encode_close(out, cap, kId, CloseFields{})), "08000000 45230180"},
        {REQUEST(encode_flush(out, cap, kId, FlushFields{1, 0, 0, 1})),
         "58000000 45230180" SAMPLE_RECORD("08000000 00000000")},
        {REQUEST(encode_flush(out, cap, kId, FlushFields{})), "08000000 45230180"},
        {REQUEST(encode_list(out, cap, kId, ListFields{1, 2, 10, 1000})),
         "88000000 45230180 02000000 01000000"
         "01000000 00000000 02000000 00000000 00000000 00000000 00000000 00000000"
         "00000000 00000000 00000000 00000000 00000000 00000000"
         "01000000 00000000 02000000 00000000 00000000 00000000 00000000 00000000"
         "00000000 00000000 00000000 00000000 00000000 00000000"
         "61006263 64000000"},
        {REQUEST(encode_list_end(out, cap, kId, CloseFields{})), "08000000 45230180"},
        {REQUEST(encode_read(out, cap, kId, ReadFields{1, 0, 16, 0})),
         "18000000 45230180 03000000 00000000 78797a00 00000000"},
        {REQUEST(encode_write(out, cap, kId, WriteFields{1, 0, 5, 0, hello})),
         "10000000 45230180 05000000 00000000"},
        {REQUEST(encode_set_size(out, cap, kId, CloseFields{})), "08000000 45230180"},
        {REQUEST(encode_capacity(out, cap, kId, nullptr)),
         "18000000 45230180 00100000 00000000 00080000 00000000"},
        {REQUEST(encode_flush_media(out, cap, kId)), "10000000 45230180 00000000 d0070000"},
        {REQUEST(encode_control(out, cap, kId, ControlFields{1, 0, 7, 2, 4, hi})),
         "18000000 45230180 03000000 00000000 48492100 00000000"},
        {REQUEST(encode_media_info(out, cap, kId, OpenIdFields{1})),
         "40000000 45230180 06000000 00000000 01020300 00000000 00000000 00000000"
         "88776655 44332211 ccbbaa99 05000000 00000000 00000000 4c000000 00000000"},
        {REQUEST(encode_access(out, cap, kId, AccessFields{7, 1})),
         "58000000 45230180" SAMPLE_RECORD("99000000 00000000")},
    };
    for (const auto& c : cases)
        EXPECT_EQ(hex(serve.transact(c.request)), hex_norm(c.reply)) << hex(c.request);

    // A successful flushmedia with delay d keeps a silent client for d + 30 s.
    EXPECT_EQ(serve.marshaller->idle_read_timeout(), 32000u);
}

TEST(ServeReplies, FailuresAndRequestsTheFormatterNeverSees) {
    TestFormatter formatter;
    formatter.open = [](OpenRequest* r) {
        r->Complete(ProtocolError::NotFound, 0, nullptr, 0, nullptr, nullptr);
    };
    ServeHarness serve(&formatter);
    ASSERT_TRUE(serve.connect());

    const char* name[] = {"x"};
    // Code 8 for id 0x12345.
    EXPECT_EQ(hex(serve.transact(
                  REQUEST(encode_open(out, cap, kId, OpenFields{}, client::Name{name, 1})))),
              "0800000045238180");

    auto invalid = hex_norm("08000000 45234180");
    // Shorter than its operation's minimum: a read of 24 bytes.
    std::vector<uint8_t> short_read = REQUEST(encode_read(out, cap, kId, ReadFields{}));
    short_read.resize(24);
    short_read[0] = 24;
    EXPECT_EQ(hex(serve.transact(short_read)), invalid);
    // A 16-byte request of an unknown operation; serving goes on.
    EXPECT_EQ(hex(serve.transact(header_only(16, request_code_word(kId, 42)))), invalid);
    // Names are refused for request id 0 (no reply either), and a read asking for too much.
    serve.send(REQUEST(encode_open(out, cap, 0, OpenFields{}, client::Name{name, 1})));
    EXPECT_EQ(
        hex(serve.transact(REQUEST(encode_read(out, cap, kId, ReadFields{1, 0, 0x1000000, 0})))),
        invalid);
    // A control asking for more output than a stream message holds.
    EXPECT_EQ(hex(serve.transact(
                  REQUEST(encode_control(out, cap, kId, ControlFields{1, 0, 1, 0, 0x47FF8})))),
              invalid);
    EXPECT_EQ(formatter.calls.load(), 1);
}

TEST(ServeReplies, VersionsDecideTheOperations) {
    // Version 1 does not know mediainfo, version 5 not access; both hand flush over as
    // FlushRequestV1 and answer it with the header only.
    for (uint32_t version : {1u, 5u}) {
        TestFormatter formatter;
        formatter.flush = [](FlushRequest* r) {
            EXPECT_EQ(as_flush_request_v1(r)->ChangeTime(), 9);
            as_flush_request_v1(r)->Complete(ProtocolError::Success);
        };
        ServeHarness serve(&formatter, {.version = version});
        ASSERT_TRUE(serve.connect());
        EXPECT_EQ(hex(serve.transact(
                      version == 1 ? REQUEST(encode_media_info(out, cap, kId, OpenIdFields{1}))
                                   : REQUEST(encode_access(out, cap, kId, AccessFields{1, 1})))),
                  "0800000045234180");
        EXPECT_EQ(hex(serve.transact(REQUEST(
                      encode_flush(out, cap, kId, FlushFields{3, 0x7F, 1, 2, 6, 7, 8, 9})))),
                  "0800000045230180");
        EXPECT_EQ(formatter.calls.load(), 1);
    }
}
