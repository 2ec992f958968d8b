// Flat formatters served through ServeOps and ServeOpsV0: what the adapters pass in, how they
// complete from the answers, and the read-only adapter's refusals.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

// Counts calls and the strings handed out, which are copies so that FreeString gets them back.
struct Counting {
    int calls = 0, handed = 0, freed = 0;
    ProtocolError result = ProtocolError::Success;
    ProtocolError answer() { return ++calls, result; }
    wchar_t* hand(const wchar_t* text) { return ++handed, wcsdup(text); }
};

// An operation that only answers.
#define ANSWER(Operation, ...)                                                                     \
    ProtocolError Operation(__VA_ARGS__) override {                                                \
        return answer();                                                                           \
    }

// What both read-write interfaces share.
template <class Interface> struct ReadWrite : Interface, Counting {
    uint8_t flush_media_flag = 1; // what FlushMedia leaves in its flag
    int list_entries = 0;

    void FreeString(wchar_t* text) override { ++freed, free(text); }
    ProtocolError Open(const NameComponent*, size_t, int8_t, uint8_t, int64_t, uint64_t, int8_t,
                       uint64_t, uint8_t*, OpenedFileInfo*, uint64_t*,
                       wchar_t** end_name) override {
        *end_name = hand(L"end");
        return answer();
    }
    ANSWER(Replace, uint64_t, uint64_t, const NameComponent*, uint8_t, int64_t, uint64_t,
           OpenedFileInfo*)
    ANSWER(MoveReplace, uint64_t, uint64_t, const NameComponent*, uint64_t, uint64_t,
           const NameComponent*, bool, int64_t)
    ANSWER(Delete, uint64_t, uint64_t, const NameComponent*, int64_t)
    ANSWER(Close, uint64_t, uint64_t)
    ANSWER(ListEnd, uint64_t, uint64_t)
    ANSWER(SetSize, uint64_t, uint64_t)
    ANSWER(Read, uint64_t, uint64_t, void*, size_t, size_t*)
    ANSWER(Control, uint64_t, int8_t, uint32_t, const void*, size_t, void*, size_t, size_t*)
    ProtocolError List(uint64_t, uint64_t, ListSink* sink) override {
        FileInfo entry{};
        bool stored = false;
        // Until the reply is full; the entry that did not fit is not counted.
        while (sink->Add(&entry, L"entry", &stored) && stored) ++list_entries;
        EXPECT_FALSE(stored);
        sink->SetNoMore();
        return answer();
    }
    ANSWER(Write, uint64_t, uint64_t, const void*, size_t, size_t*)
    ANSWER(Capacity, uint64_t*, uint64_t*)
    ANSWER(Access, uint64_t, int8_t, OpenedFileInfo*)
    ProtocolError FlushMedia(uint8_t* no_flush) override {
        EXPECT_EQ(*no_flush, 1);
        *no_flush = flush_media_flag;
        return answer();
    }
    ProtocolError MediaInfo(uint64_t, zun::MediaInfo* info, wchar_t** label) override {
        info->id32 = 0x32;
        *label = hand(L"Label");
        return answer();
    }
};

// Version 6: move with the access level, flush with flags and a record.
struct Flat6 : ReadWrite<FlatFormatter> {
    int8_t move_access_level = -1;
    uint8_t flush_flags_seen = 0;
    ProtocolError Move(uint64_t, uint64_t, const NameComponent*, const NameComponent*, size_t, bool,
                       int64_t, int8_t access_level, uint64_t, uint8_t*, OpenedFileInfo*, uint64_t*,
                       wchar_t**) override {
        move_access_level = access_level;
        return answer();
    }
    ProtocolError Flush(uint64_t, uint8_t flush_flags, uint8_t, uint8_t, int64_t, int64_t, int64_t,
                        int64_t, OpenedFileInfo* info) override {
        flush_flags_seen = flush_flags;
        *info = {1, 6};
        return answer();
    }
};

// Versions 1 to 5: neither.
struct Flat5 : ReadWrite<FlatFormatterV5> {
    std::vector<int64_t> flush_times;
    ProtocolError Move(uint64_t, uint64_t, const NameComponent*, const NameComponent*, size_t, bool,
                       int64_t, uint64_t new_existing_open_id, uint8_t*, OpenedFileInfo*, uint64_t*,
                       wchar_t**) override {
        EXPECT_EQ(new_existing_open_id, 3u); // the eighth argument, without the access level
        return answer();
    }
    ProtocolError Flush(uint64_t, uint8_t, int64_t create, int64_t access, int64_t write,
                        int64_t change) override {
        flush_times = {create, access, write, change};
        return answer();
    }
};

// A read-only volume with one file, "a".
struct ReadOnlyFlat : ReadOnlyFlatFormatter, Counting {
    int32_t flush_media_flag = 1;

    void FreeString(wchar_t* text) override { ++freed, free(text); }
    ProtocolError Open(const NameComponent* name, size_t count, int8_t, uint64_t,
                       OpenedFileInfo* info, wchar_t** end_name) override {
        if (count != 1 || strcmp(name[0].utf8, "a") != 0) return ++calls, ProtocolError::NotFound;
        *info = {1, 3};
        *end_name = hand(L"a");
        return answer();
    }
    ANSWER(Close, uint64_t, uint64_t)
    ANSWER(List, uint64_t, uint64_t, ListSink*)
    ANSWER(ListEnd, uint64_t, uint64_t)
    ANSWER(Read, uint64_t, uint64_t, void*, size_t, size_t*)
    ANSWER(Control, uint64_t, int8_t, uint32_t, const void*, size_t, void*, size_t, size_t*)
    ANSWER(MediaInfo, uint64_t, zun::MediaInfo*, wchar_t**)
    ANSWER(Access, uint64_t, int8_t, OpenedFileInfo*)
    ProtocolError Capacity(uint64_t* total) override {
        *total = 4096;
        return answer();
    }
    ProtocolError FlushMedia(int32_t* no_flush) override {
        EXPECT_EQ(*no_flush, 1);
        *no_flush = flush_media_flag;
        return answer();
    }
};
#undef ANSWER

// Serves `flat` through the flat serve operation of its interface.
template <class Flat> ServeOptions flat(Flat* formatter, uint32_t version = 6) {
    return {.version = version, .serve = [formatter](MarshallerObject* m, const ServeParams& p) {
                auto flags = static_cast<uint32_t>(p.volume_flags);
                if constexpr (std::is_base_of_v<ReadOnlyFlatFormatter, Flat>)
                    return m->ServeOpsV0(formatter, flags, p.formatter_name, p.read_handle,
                                         p.write_handle);
                else
                    return m->ServeOps(formatter, flags, p.formatter_name, p.read_handle,
                                       p.write_handle);
            }};
}

FlushFields flush_fields(uint8_t file_flags, uint8_t color, int64_t create, int64_t write) {
    return FlushFields{1, file_flags, color, 0x40, create, 11, write, 12};
}

std::vector<uint8_t> open_request(uint32_t id, const char* name, int8_t create_file_type) {
    return REQUEST(
        encode_open(out, cap, id, OpenFields{0, create_file_type}, client::Name{&name, 1}));
}

const char* const kPath[] = {"x", "y"};

} // namespace

TEST(FlatAdapters, ReadOnlyFindsButNeverChanges) {
    ReadOnlyFlat ro;
    ServeHarness serve(nullptr, flat(&ro));
    ASSERT_TRUE(serve.connect());
    // A missing file: not found, but access denied to a request that would create it.
    EXPECT_EQ(reply_error(serve.transact(open_request(1, "missing", 0))), ProtocolError::NotFound);
    EXPECT_EQ(reply_error(serve.transact(open_request(2, "missing", 5))),
              ProtocolError::AccessDenied);
    // Found: existed, no parent, the end name sent and handed back.
    auto reply = serve.transact(open_request(3, "a", 5));
    client::OpenReply open{};
    ASSERT_TRUE(client::decode_open_reply(reply.data(), reply.size(), &open));
    EXPECT_EQ(open.existed, 1);
    EXPECT_EQ(open.parent_file_id, 0u);
    EXPECT_EQ(open.info.open_sequence, 3u);
    EXPECT_STREQ(open.end_name, "a");
    EXPECT_EQ(ro.handed, 1);
    EXPECT_EQ(ro.freed, 1);

    // Changes are refused without a call: a flush that would set times, flags or colour too.
    const uint8_t byte = 1;
    const std::vector<uint8_t> changes[] = {
        REQUEST(encode_replace(out, cap, 1, ReplaceFields{}, "x")),
        REQUEST(encode_move(out, cap, 2, MoveFields{}, client::Name{kPath, 2})),
        REQUEST(encode_move_replace(out, cap, 3, MoveReplaceFields{}, "x", "y")),
        REQUEST(encode_delete(out, cap, 4, DeleteFields{}, "x")),
        REQUEST(encode_write(out, cap, 5, WriteFields{1, 0, 1, 0, &byte})),
        REQUEST(encode_set_size(out, cap, 6, CloseFields{1, 0})),
        REQUEST(encode_flush(out, cap, 7, flush_fields(0xFF, 0, 1, 0))),
        REQUEST(encode_flush(out, cap, 8, flush_fields(0xFF, 0, 0, 1))),
        REQUEST(encode_flush(out, cap, 9, flush_fields(0xFF, 2, 0, 0))),
        REQUEST(encode_flush(out, cap, 10, flush_fields(0x20, 0, 0, 0))),
    };
    for (const auto& request : changes) {
        auto reply = serve.transact(request);
        EXPECT_EQ(reply.size(), 8u);
        EXPECT_EQ(reply_error(reply), ProtocolError::AccessDenied) << hex(request);
    }
    EXPECT_EQ(ro.calls, 3);
    // A flush that changes nothing (access and change times do not count) succeeds, without a
    // record and without a call.
    EXPECT_EQ(hex(serve.transact(REQUEST(encode_flush(out, cap, 11, flush_fields(0xFF, 0, 0, 0))))),
              "080000000b000080");
    // Capacity has nothing available.
    reply = serve.transact(REQUEST(encode_capacity(out, cap, 12, nullptr)));
    client::CapacityReply capacity{};
    ASSERT_TRUE(client::decode_capacity_reply(reply.data(), reply.size(), &capacity));
    EXPECT_EQ(capacity.total_capacity, 4096u);
    EXPECT_EQ(capacity.available_capacity, 0u);
    EXPECT_EQ(ro.calls, 4);
}

TEST(FlatAdapters, FlushMediaFlagChoosesTheFlushDelay) {
    // The read-write flag is a byte, the read-only one a signed word: only a positive value
    // asks for no timed flushes. A delay of 2000 ms keeps a silent client for 32 s.
    const struct {
        bool read_only;
        int32_t flag;
        int32_t delay;
    } cases[] = {{false, 1, -1}, {false, 7, -1},  {false, 0, 2000},
                 {true, 1, -1},  {true, 0, 2000}, {true, -3, 2000}};
    for (const auto& c : cases) {
        Flat6 rw;
        ReadOnlyFlat ro;
        rw.flush_media_flag = static_cast<uint8_t>(c.flag);
        ro.flush_media_flag = c.flag;
        ServeHarness serve(nullptr, c.read_only ? flat(&ro) : flat(&rw));
        ASSERT_TRUE(serve.connect());
        auto reply = serve.transact(REQUEST(encode_flush_media(out, cap, 1)));
        client::FlushMediaReply media{};
        ASSERT_TRUE(client::decode_flush_media_reply(reply.data(), reply.size(), &media));
        EXPECT_EQ(media.no_flush, c.delay < 0 ? 1 : 0) << c.flag;
        EXPECT_EQ(media.flush_delay, c.delay) << c.flag;
        EXPECT_EQ(serve.marshaller->idle_read_timeout(), c.delay < 0 ? 0u : 32000u) << c.flag;
    }
}

TEST(FlatAdapters, ReadWriteCallsFollowTheInterfaceVersion) {
    // Version 5: six arguments, a header-only reply; move without an access level.
    Flat5 flat5;
    {
        ServeHarness serve(nullptr, flat(&flat5, 5));
        ASSERT_TRUE(serve.connect());
        EXPECT_EQ(hex(serve.transact(REQUEST(encode_flush(out, cap, 1, flush_fields(0, 0, 1, 3))))),
                  "0800000001000080");
        EXPECT_EQ(flat5.flush_times, std::vector<int64_t>({1, 11, 3, 12}));
        MoveFields move{};
        move.new_existing_open_id = 3;
        EXPECT_EQ(reply_error(serve.transact(
                      REQUEST(encode_move(out, cap, 2, move, client::Name{kPath, 2})))),
                  ProtocolError::Success);
        // The flush version is the flat serve's while it serves; the version reply tells what
        // the flat serve asked for.
        EXPECT_EQ(serve.marshaller->flush_version(), kFlushVersionAlways);
        auto reply = serve.transact(REQUEST(encode_version(out, cap, 3, 7)));
        client::VersionReply version{};
        ASSERT_TRUE(client::decode_version_reply(reply.data(), reply.size(), &version));
        EXPECT_EQ(version.data_align, 64u);
        EXPECT_EQ(version.version_word, 0x1000000u);
        serve.send(REQUEST(encode_disconnect(out, cap, 4)));
        EXPECT_EQ(serve.wait_served(), 0u);
        EXPECT_EQ(serve.marshaller->flush_version(), 5u);
    }
    EXPECT_EQ(flat5.calls, 2);

    // Version 6: the flush flags go in and the record comes back; move carries its access level.
    Flat6 flat6;
    {
        ServeHarness serve(nullptr, flat(&flat6));
        ASSERT_TRUE(serve.connect());
        auto reply = serve.transact(REQUEST(encode_flush(out, cap, 1, flush_fields(0, 0, 1, 3))));
        client::InfoReply info{};
        ASSERT_TRUE(client::decode_info_reply(reply.data(), reply.size(), &info));
        EXPECT_TRUE(info.has_info);
        EXPECT_EQ(info.info.open_sequence, 6u);
        EXPECT_EQ(flat6.flush_flags_seen, 0x40);
        serve.transact(REQUEST(encode_move(out, cap, 2, MoveFields{}, client::Name{kPath, 2})));
        EXPECT_EQ(flat6.move_access_level, 4); // sent as 0

        // A list fills the reply through the sink until it is full, then says there is no more.
        reply = serve.transact(REQUEST(encode_list(out, cap, 3, ListFields{1, 2, 1000, 300})));
        client::ListReply list{};
        ASSERT_TRUE(client::decode_list_reply(reply.data(), reply.size(), &list));
        EXPECT_EQ(list.count, static_cast<uint32_t>(flat6.list_entries));
        EXPECT_EQ(list.count, 4u); // 16 + 4 * (56 + 6) fits 296; a fifth does not
        EXPECT_EQ(list.no_more, 1);
        // Strings are sent and handed back, also those of a failed call.
        reply = serve.transact(REQUEST(encode_media_info(out, cap, 4, OpenIdFields{1})));
        client::MediaInfoReply media{};
        ASSERT_TRUE(client::decode_media_info_reply(reply.data(), reply.size(), &media));
        EXPECT_EQ(media.info.id32, 0x32u);
        EXPECT_STREQ(media.label, "Label");
        flat6.result = ProtocolError::Exists;
        EXPECT_EQ(hex(serve.transact(open_request(5, "a", 1))), "080000000500a080");
    }
    EXPECT_EQ(flat6.handed, 2);
    EXPECT_EQ(flat6.freed, 2);
}
