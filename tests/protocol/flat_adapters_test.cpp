// Flat formatters served through ServeOps and ServeOpsV0: what the adapters pass in, how they
// complete from the answers, and the read-only adapter's refusals.
#include <wchar.h>

#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

constexpr wchar_t kEndName[] = L"end";
constexpr wchar_t kLabel[] = L"Label";

// Strings handed out are copies, so that FreeString can check that it gets them back.
struct StringLedger {
    int handed = 0;
    int freed = 0;
    wchar_t* hand(const wchar_t* text) {
        ++handed;
        return wcsdup(text);
    }
    void free_string(wchar_t* text) {
        ++freed;
        free(text);
    }
};

OpenedFileInfo info_with_sequence(uint64_t sequence) {
    OpenedFileInfo info{};
    info.open_id = 1;
    info.open_sequence = sequence;
    info.file.file_id = 77;
    return info;
}

// The read-write interface of version 6. Every call is counted; answers are set per test.
struct Flat6 : FlatFormatter {
    int calls = 0;
    StringLedger strings;
    ProtocolError result = ProtocolError::Success;
    uint8_t flush_media_flag = 1; // what FlushMedia leaves in its flag
    int8_t move_access_level = -1;
    uint8_t flush_flags_seen = 0;
    int list_entries = 0;

    void FreeString(wchar_t* text) override { strings.free_string(text); }
    ProtocolError Open(const NameComponent*, size_t, int8_t, uint8_t, int64_t, uint64_t, int8_t,
                       uint64_t, uint8_t* existed, OpenedFileInfo* info, uint64_t* parent,
                       wchar_t** end_name) override {
        ++calls;
        *existed = 1;
        *info = info_with_sequence(5);
        *parent = 9;
        *end_name = strings.hand(kEndName);
        return result;
    }
    ProtocolError Replace(uint64_t, uint64_t, const NameComponent*, uint8_t, int64_t, uint64_t,
                          OpenedFileInfo*) override {
        return ++calls, result;
    }
    ProtocolError Move(uint64_t, uint64_t, const NameComponent*, const NameComponent*, size_t, bool,
                       int64_t, int8_t access_level, uint64_t, uint8_t*, OpenedFileInfo*, uint64_t*,
                       wchar_t**) override {
        ++calls;
        move_access_level = access_level;
        return result;
    }
    ProtocolError MoveReplace(uint64_t, uint64_t, const NameComponent*, uint64_t, uint64_t,
                              const NameComponent*, bool, int64_t) override {
        return ++calls, result;
    }
    ProtocolError Delete(uint64_t, uint64_t, const NameComponent*, int64_t) override {
        return ++calls, result;
    }
    ProtocolError Close(uint64_t, uint64_t) override { return ++calls, result; }
    ProtocolError Flush(uint64_t, uint8_t flush_flags, uint8_t, uint8_t, int64_t, int64_t, int64_t,
                        int64_t, OpenedFileInfo* info) override {
        ++calls;
        flush_flags_seen = flush_flags;
        *info = info_with_sequence(6);
        return result;
    }
    ProtocolError List(uint64_t, uint64_t, ListSink* sink) override {
        ++calls;
        FileInfo entry{};
        bool stored = false;
        // Until the reply is full; the entry that did not fit is not counted.
        while (sink->Add(&entry, L"entry", &stored) && stored) ++list_entries;
        EXPECT_FALSE(stored);
        sink->SetNoMore();
        return result;
    }
    ProtocolError ListEnd(uint64_t, uint64_t) override { return ++calls, result; }
    ProtocolError Read(uint64_t, uint64_t, void* data, size_t size, size_t* actual) override {
        ++calls;
        memset(data, 'r', size);
        *actual = size;
        return result;
    }
    ProtocolError Write(uint64_t, uint64_t, const void*, size_t size, size_t* actual) override {
        ++calls;
        *actual = size - 1;
        return result;
    }
    ProtocolError SetSize(uint64_t, uint64_t) override { return ++calls, result; }
    ProtocolError Capacity(uint64_t* total, uint64_t* available) override {
        ++calls;
        *total = 100;
        *available = 40;
        return result;
    }
    ProtocolError FlushMedia(uint8_t* no_flush) override {
        ++calls;
        EXPECT_EQ(*no_flush, 1);
        *no_flush = flush_media_flag;
        return result;
    }
    ProtocolError Control(uint64_t, int8_t, uint32_t, const void*, size_t, void*, size_t,
                          size_t*) override {
        return ++calls, result;
    }
    ProtocolError MediaInfo(uint64_t, zun::MediaInfo* info, wchar_t** label) override {
        ++calls;
        info->id32 = 0x32;
        *label = strings.hand(kLabel);
        return result;
    }
    ProtocolError Access(uint64_t, int8_t, OpenedFileInfo* info) override {
        ++calls;
        *info = info_with_sequence(7);
        return result;
    }
};

// The read-write interface of versions 1 to 5: only move and flush differ.
struct Flat5 : FlatFormatterV5 {
    int calls = 0;
    int64_t flush_times[4] = {};
    void FreeString(wchar_t* text) override { free(text); }
#define NOT_HERE                                                                                   \
    ++calls;                                                                                       \
    return ProtocolError::NotImplemented;
    ProtocolError Open(const NameComponent*, size_t, int8_t, uint8_t, int64_t, uint64_t, int8_t,
                       uint64_t, uint8_t*, OpenedFileInfo*, uint64_t*,
                       wchar_t**) override{NOT_HERE} ProtocolError
        Replace(uint64_t, uint64_t, const NameComponent*, uint8_t, int64_t, uint64_t,
                OpenedFileInfo*) override{NOT_HERE} ProtocolError
        Move(uint64_t, uint64_t, const NameComponent*, const NameComponent*, size_t, bool, int64_t,
             uint64_t new_existing_open_id, uint8_t*, OpenedFileInfo*, uint64_t*,
             wchar_t**) override {
        ++calls;
        // Without the access level, the open id is the eighth argument.
        EXPECT_EQ(new_existing_open_id, 3u);
        return ProtocolError::Success;
    }
    ProtocolError MoveReplace(uint64_t, uint64_t, const NameComponent*, uint64_t, uint64_t,
                              const NameComponent*, bool, int64_t) override{NOT_HERE} ProtocolError
        Delete(uint64_t, uint64_t, const NameComponent*, int64_t) override{NOT_HERE} ProtocolError
        Close(uint64_t, uint64_t) override{NOT_HERE} ProtocolError
        Flush(uint64_t, uint8_t, int64_t create, int64_t access, int64_t write,
              int64_t change) override {
        ++calls;
        int64_t times[4] = {create, access, write, change};
        memcpy(flush_times, times, sizeof times);
        return ProtocolError::Success;
    }
    ProtocolError List(uint64_t, uint64_t, ListSink*) override{NOT_HERE} ProtocolError
        ListEnd(uint64_t, uint64_t) override{NOT_HERE} ProtocolError
        Read(uint64_t, uint64_t, void*, size_t, size_t*) override{NOT_HERE} ProtocolError
        Write(uint64_t, uint64_t, const void*, size_t, size_t*) override{NOT_HERE} ProtocolError
        SetSize(uint64_t, uint64_t) override{NOT_HERE} ProtocolError
        Capacity(uint64_t*, uint64_t*) override{NOT_HERE} ProtocolError
        FlushMedia(uint8_t*) override{NOT_HERE} ProtocolError
        Control(uint64_t, int8_t, uint32_t, const void*, size_t, void*, size_t,
                size_t*) override{NOT_HERE} ProtocolError
        MediaInfo(uint64_t, zun::MediaInfo*, wchar_t**) override{NOT_HERE} ProtocolError
        Access(uint64_t, int8_t, OpenedFileInfo*) override {
        NOT_HERE
    }
#undef NOT_HERE
};

// A read-only volume with one file, "a".
struct ReadOnlyFlat : ReadOnlyFlatFormatter {
    int calls = 0;
    StringLedger strings;
    int32_t flush_media_flag = 1;

    void FreeString(wchar_t* text) override { strings.free_string(text); }
    ProtocolError Open(const NameComponent* name, size_t count, int8_t, uint64_t,
                       OpenedFileInfo* info, wchar_t** end_name) override {
        ++calls;
        if (count != 1 || strcmp(name[0].utf8, "a") != 0) return ProtocolError::NotFound;
        *info = info_with_sequence(3);
        *end_name = strings.hand(L"a");
        return ProtocolError::Success;
    }
    ProtocolError Close(uint64_t, uint64_t) override { return ++calls, ProtocolError::Success; }
    ProtocolError List(uint64_t, uint64_t, ListSink*) override {
        return ++calls, ProtocolError::Success;
    }
    ProtocolError ListEnd(uint64_t, uint64_t) override { return ++calls, ProtocolError::Success; }
    ProtocolError Read(uint64_t, uint64_t, void*, size_t, size_t* actual) override {
        ++calls;
        *actual = 0;
        return ProtocolError::EndOfFile;
    }
    ProtocolError Capacity(uint64_t* total) override {
        ++calls;
        *total = 4096;
        return ProtocolError::Success;
    }
    ProtocolError FlushMedia(int32_t* no_flush) override {
        ++calls;
        EXPECT_EQ(*no_flush, 1);
        *no_flush = flush_media_flag;
        return ProtocolError::Success;
    }
    ProtocolError Control(uint64_t, int8_t, uint32_t, const void*, size_t, void*, size_t,
                          size_t*) override {
        return ++calls, ProtocolError::Success;
    }
    ProtocolError MediaInfo(uint64_t, zun::MediaInfo*, wchar_t** label) override {
        ++calls;
        *label = strings.hand(kLabel);
        return ProtocolError::Success;
    }
    ProtocolError Access(uint64_t, int8_t, OpenedFileInfo*) override {
        return ++calls, ProtocolError::Success;
    }
};

ServeOptions flat_serve(uint32_t version,
                        std::function<uint32_t(MarshallerObject*, const ServeParams&)> serve) {
    ServeOptions options;
    options.version = version;
    options.status = false;
    options.serve = std::move(serve);
    return options;
}

ServeOptions serve_flat6(Flat6* flat) {
    return flat_serve(6, [flat](MarshallerObject* m, const ServeParams& p) {
        return static_cast<Marshaller*>(m)->ServeOps(flat, static_cast<uint32_t>(p.volume_flags),
                                                     p.formatter_name, p.read_handle,
                                                     p.write_handle);
    });
}

ServeOptions serve_read_only(ReadOnlyFlat* flat, uint32_t version = 6) {
    return flat_serve(version, [flat](MarshallerObject* m, const ServeParams& p) {
        return static_cast<MarshallerV5*>(m)->ServeOpsV0(
            flat, static_cast<uint32_t>(p.volume_flags), p.formatter_name, p.read_handle,
            p.write_handle);
    });
}

client::Reply header(const std::vector<uint8_t>& reply) {
    client::Reply r{};
    EXPECT_TRUE(client::decode_reply(reply.data(), reply.size(), &r)) << hex(reply);
    return r;
}

FlushFields flush_fields(uint8_t file_flags, uint8_t color, int64_t create, int64_t write) {
    return FlushFields{1, file_flags, color, 0x40, create, 11, write, 12};
}

std::vector<uint8_t> open_request(uint32_t id, const char* name, int8_t create_file_type) {
    OpenFields f{};
    f.create_file_type = create_file_type;
    const char* components[] = {name};
    return REQUEST(encode_open(out, cap, id, f, client::Name{components, 1}));
}

} // namespace

TEST(FlatAdapters, ReadOnlyOpenFindsButNeverCreates) {
    ReadOnlyFlat flat;
    {
        ServeHarness serve(nullptr, serve_read_only(&flat));
        ASSERT_TRUE(serve.connect());
        EXPECT_EQ(header(serve.transact(open_request(1, "missing", 0))).error,
                  ProtocolError::NotFound);
        EXPECT_EQ(header(serve.transact(open_request(2, "missing", 5))).error,
                  ProtocolError::AccessDenied);
        // Found: existed, no parent, the end name sent and handed back.
        auto reply = serve.transact(open_request(3, "a", 5));
        client::OpenReply open{};
        ASSERT_TRUE(client::decode_open_reply(reply.data(), reply.size(), &open));
        EXPECT_EQ(open.existed, 1);
        EXPECT_EQ(open.parent_file_id, 0u);
        EXPECT_EQ(open.info.open_sequence, 3u);
        EXPECT_STREQ(open.end_name, "a");
    }
    EXPECT_EQ(flat.calls, 3);
    EXPECT_EQ(flat.strings.handed, 1);
    EXPECT_EQ(flat.strings.freed, 1);
}

TEST(FlatAdapters, ReadOnlyRefusesChangesWithoutAsking) {
    ReadOnlyFlat flat;
    ServeHarness serve(nullptr, serve_read_only(&flat));
    ASSERT_TRUE(serve.connect());
    const uint8_t byte = 1;
    const char* path[] = {"x", "y"};
    const std::vector<uint8_t> changes[] = {
        REQUEST(encode_replace(out, cap, 1, ReplaceFields{}, "x")),
        REQUEST(encode_move(out, cap, 2, MoveFields{}, client::Name{path, 2})),
        REQUEST(encode_move_replace(out, cap, 3, MoveReplaceFields{}, "x", "y")),
        REQUEST(encode_delete(out, cap, 4, DeleteFields{}, "x")),
        REQUEST(encode_write(out, cap, 5, WriteFields{1, 0, 1, 0, &byte})),
        REQUEST(encode_set_size(out, cap, 6, CloseFields{1, 0})),
        // A flush that would set times, flags or colour.
        REQUEST(encode_flush(out, cap, 7, flush_fields(0xFF, 0, 1, 0))),
        REQUEST(encode_flush(out, cap, 8, flush_fields(0xFF, 0, 0, 1))),
        REQUEST(encode_flush(out, cap, 9, flush_fields(0xFF, 2, 0, 0))),
        REQUEST(encode_flush(out, cap, 10, flush_fields(0x20, 0, 0, 0))),
    };
    for (const auto& request : changes) {
        auto reply = serve.transact(request);
        EXPECT_EQ(reply.size(), 8u);
        EXPECT_EQ(header(reply).error, ProtocolError::AccessDenied) << hex(request);
    }
    EXPECT_EQ(flat.calls, 0);

    // A flush that changes nothing (access and change times do not count) succeeds, without a
    // record and without a call.
    EXPECT_EQ(hex(serve.transact(REQUEST(encode_flush(out, cap, 11, flush_fields(0xFF, 0, 0, 0))))),
              "080000000b000080");
    // Capacity has nothing available.
    auto reply = serve.transact(REQUEST(encode_capacity(out, cap, 12, nullptr)));
    client::CapacityReply capacity{};
    ASSERT_TRUE(client::decode_capacity_reply(reply.data(), reply.size(), &capacity));
    EXPECT_EQ(capacity.total_capacity, 4096u);
    EXPECT_EQ(capacity.available_capacity, 0u);
    EXPECT_EQ(flat.calls, 1);
}

TEST(FlatAdapters, FlushMediaFlagChoosesTheFlushDelay) {
    const struct {
        uint8_t flag;
        uint8_t no_flush;
        int32_t delay;
        uint32_t idle_timeout;
    } cases[] = {{1, 1, -1, 0}, {7, 1, -1, 0}, {0, 0, 2000, 32000}};
    for (const auto& c : cases) {
        Flat6 flat;
        flat.flush_media_flag = c.flag;
        ServeHarness serve(nullptr, serve_flat6(&flat));
        ASSERT_TRUE(serve.connect());
        auto reply = serve.transact(REQUEST(encode_flush_media(out, cap, 1)));
        client::FlushMediaReply media{};
        ASSERT_TRUE(client::decode_flush_media_reply(reply.data(), reply.size(), &media));
        EXPECT_EQ(media.no_flush, c.no_flush);
        EXPECT_EQ(media.flush_delay, c.delay);
        EXPECT_EQ(serve.marshaller->idle_read_timeout(), c.idle_timeout);
    }
    // The read-only flag is a signed word: only a positive value asks for no timed flushes.
    const struct {
        int32_t flag;
        int32_t delay;
    } read_only[] = {{1, -1}, {0, 2000}, {-3, 2000}};
    for (const auto& c : read_only) {
        ReadOnlyFlat flat;
        flat.flush_media_flag = c.flag;
        ServeHarness serve(nullptr, serve_read_only(&flat));
        ASSERT_TRUE(serve.connect());
        auto reply = serve.transact(REQUEST(encode_flush_media(out, cap, 1)));
        client::FlushMediaReply media{};
        ASSERT_TRUE(client::decode_flush_media_reply(reply.data(), reply.size(), &media));
        EXPECT_EQ(media.flush_delay, c.delay);
    }
}

TEST(FlatAdapters, FlushAndMoveFollowTheInterfaceVersion) {
    // Version 5: six arguments, a header-only reply; move without an access level.
    Flat5 flat5;
    {
        MarshallerObject* seen = nullptr;
        ServeHarness serve(nullptr, flat_serve(5, [&](MarshallerObject* m, const ServeParams& p) {
                               seen = m;
                               return static_cast<MarshallerV5*>(m)->ServeOps(
                                   &flat5, static_cast<uint32_t>(p.volume_flags), p.formatter_name,
                                   p.read_handle, p.write_handle);
                           }));
        ASSERT_TRUE(serve.connect());
        EXPECT_EQ(hex(serve.transact(REQUEST(encode_flush(out, cap, 1, flush_fields(0, 0, 1, 3))))),
                  "0800000001000080");
        EXPECT_EQ(flat5.flush_times[0], 1);
        EXPECT_EQ(flat5.flush_times[1], 11);
        EXPECT_EQ(flat5.flush_times[2], 3);
        EXPECT_EQ(flat5.flush_times[3], 12);
        const char* path[] = {"x", "y"};
        MoveFields move{};
        move.new_existing_open_id = 3;
        EXPECT_EQ(
            header(serve.transact(REQUEST(encode_move(out, cap, 2, move, client::Name{path, 2}))))
                .error,
            ProtocolError::Success);
        EXPECT_EQ(seen->flush_version(), kFlushVersionAlways);
        // The version reply tells what the flat serve asked for.
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
    ServeHarness serve(nullptr, serve_flat6(&flat6));
    ASSERT_TRUE(serve.connect());
    auto reply = serve.transact(REQUEST(encode_flush(out, cap, 1, flush_fields(0, 0, 1, 3))));
    client::InfoReply info{};
    ASSERT_TRUE(client::decode_info_reply(reply.data(), reply.size(), &info));
    EXPECT_TRUE(info.has_info);
    EXPECT_EQ(info.info.open_sequence, 6u);
    EXPECT_EQ(flat6.flush_flags_seen, 0x40);
    const char* path[] = {"x", "y"};
    serve.transact(REQUEST(encode_move(out, cap, 2, MoveFields{}, client::Name{path, 2})));
    EXPECT_EQ(flat6.move_access_level, 4); // sent as 0
}

TEST(FlatAdapters, ReadWriteCallsAndTheirAnswers) {
    Flat6 flat;
    {
        ServeHarness serve(nullptr, serve_flat6(&flat));
        ASSERT_TRUE(serve.connect());

        // A list fills the reply through the sink until it is full, then says there is no more.
        auto reply = serve.transact(REQUEST(encode_list(out, cap, 1, ListFields{1, 2, 1000, 300})));
        client::ListReply list{};
        ASSERT_TRUE(client::decode_list_reply(reply.data(), reply.size(), &list));
        EXPECT_EQ(list.count, static_cast<uint32_t>(flat.list_entries));
        EXPECT_EQ(list.count, 4u); // 16 + 4 * (56 + 6) fits 296; a fifth does not
        EXPECT_EQ(list.no_more, 1);

        // Out-parameters come back as the reply.
        const uint8_t data[] = {'a', 'b', 'c'};
        reply = serve.transact(REQUEST(encode_write(out, cap, 2, WriteFields{1, 0, 3, 0, data})));
        uint32_t actual = 0;
        ASSERT_TRUE(client::decode_write_reply(reply.data(), reply.size(), &actual));
        EXPECT_EQ(actual, 2u);
        reply = serve.transact(REQUEST(encode_capacity(out, cap, 3, nullptr)));
        client::CapacityReply capacity{};
        ASSERT_TRUE(client::decode_capacity_reply(reply.data(), reply.size(), &capacity));
        EXPECT_EQ(capacity.available_capacity, 40u);
        reply = serve.transact(REQUEST(encode_media_info(out, cap, 4, OpenIdFields{1})));
        client::MediaInfoReply media{};
        ASSERT_TRUE(client::decode_media_info_reply(reply.data(), reply.size(), &media));
        EXPECT_EQ(media.info.id32, 0x32u);
        EXPECT_STREQ(media.label, "Label");

        // A failed open still hands its end name back.
        flat.result = ProtocolError::Exists;
        EXPECT_EQ(hex(serve.transact(open_request(5, "a", 1))), "080000000500a080");
        reply = serve.transact(REQUEST(encode_access(out, cap, 6, AccessFields{1, 2})));
        EXPECT_EQ(header(reply).error, ProtocolError::Exists);
    }
    EXPECT_EQ(flat.strings.handed, 2);
    EXPECT_EQ(flat.strings.freed, 2);
}
