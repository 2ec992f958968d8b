// A session with the sample in-memory formatter, as a driver would hold it: the whole road of
// requests and replies through a real serve.
#include "memfs.h"
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

struct MemFsSession : ServeHarness {
    explicit MemFsSession(FormatterRequestHandler* fs) : ServeHarness(fs, {.status = false}) {}
    uint32_t next_id = 1;

    client::OpenReply open(std::vector<const char*> path, int8_t create_type, uint64_t open_id,
                           ProtocolError* error) {
        OpenFields f{};
        f.create_file_type = create_type;
        f.new_existing_open_id = f.new_create_open_id = open_id;
        reply_ = transact(
            REQUEST(encode_open(out, cap, next_id++, f, client::Name{path.data(), path.size()})));
        client::Reply r{};
        client::decode_reply(reply_.data(), reply_.size(), &r);
        *error = r.error;
        client::OpenReply o{};
        if (r.error == ProtocolError::Success) {
            EXPECT_TRUE(client::decode_open_reply(reply_.data(), reply_.size(), &o));
        }
        return o;
    }
    ProtocolError result(const std::vector<uint8_t>& request) {
        reply_ = transact(request);
        client::Reply r{};
        EXPECT_TRUE(client::decode_reply(reply_.data(), reply_.size(), &r));
        return r.error;
    }
    std::vector<uint8_t> reply_;
};

} // namespace

TEST(MemFsSession, CreateWriteReadListMoveDelete) {
    FormatterRequestHandler* fs = memfs::memfs_create(6, 1 << 20);
    {
        MemFsSession s(fs);
        ASSERT_TRUE(s.connect());
        ProtocolError error;
        client::OpenReply root = s.open({}, 0, 100, &error);
        ASSERT_EQ(error, ProtocolError::Success);
        EXPECT_EQ(root.existed, 1);
        EXPECT_EQ(root.info.file.file_type, memfs::kFolderType);

        s.open({"docs", "a.txt"}, memfs::kFileType, 101, &error);
        EXPECT_EQ(error, ProtocolError::PathNotFound);
        client::OpenReply docs = s.open({"docs"}, memfs::kFolderType, 101, &error);
        EXPECT_EQ(docs.existed, 0);
        client::OpenReply file = s.open({"DOCS", "a.txt"}, memfs::kFileType, 102, &error);
        ASSERT_EQ(error, ProtocolError::Success);
        EXPECT_STREQ(file.end_name, "a.txt");
        EXPECT_EQ(file.parent_file_id, docs.info.file.file_id);

        const char text[] = "hello, volume";
        EXPECT_EQ(
            s.result(REQUEST(encode_write(
                out, cap, 9,
                WriteFields{102, 4, sizeof text - 1, 0, reinterpret_cast<const uint8_t*>(text)}))),
            ProtocolError::Success);
        s.reply_ = s.transact(REQUEST(encode_read(out, cap, 10, ReadFields{102, 0, 64, 0})));
        client::ReadReply read;
        ASSERT_TRUE(client::decode_read_reply(s.reply_.data(), s.reply_.size(), &read));
        ASSERT_EQ(read.actual_size, 4 + sizeof text - 1);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(read.data) + 4, read.actual_size - 4),
                  text);

        s.reply_ = s.transact(REQUEST(encode_list(out, cap, 11, ListFields{101, 1, 10, 4096})));
        client::ListReply list;
        ASSERT_TRUE(client::decode_list_reply(s.reply_.data(), s.reply_.size(), &list));
        ASSERT_EQ(list.count, 1u);
        EXPECT_EQ(list.no_more, 1);
        FileInfo entry;
        const char* name;
        ASSERT_TRUE(client::list_reply_entry(list, 0, &entry, &name));
        EXPECT_STREQ(name, "a.txt");
        EXPECT_EQ(entry.file_size, 4 + sizeof text - 1);

        const char* target[] = {"b.txt", "docs", "b.txt"}; // source end name, then target path
        s.reply_ = s.transact(REQUEST(encode_move(out, cap, 12, MoveFields{102, 0, true, 0, 0, 103},
                                                  client::Name{target, 3})));
        client::OpenReply moved;
        ASSERT_TRUE(client::decode_open_reply(s.reply_.data(), s.reply_.size(), &moved));
        EXPECT_STREQ(moved.end_name, "b.txt");

        EXPECT_EQ(s.result(REQUEST(encode_delete(out, cap, 13, DeleteFields{0, 1}, "docs"))),
                  ProtocolError::NotEmpty);
        EXPECT_EQ(s.result(REQUEST(encode_delete(
                      out, cap, 14, DeleteFields{103, docs.info.file.file_id}, "b.txt"))),
                  ProtocolError::Success);
        EXPECT_EQ(s.result(REQUEST(
                      encode_close(out, cap, 15, CloseFields{101, docs.info.open_sequence}))),
                  ProtocolError::Success);
        s.send(REQUEST(encode_disconnect(out, cap, 16)));
        EXPECT_EQ(s.wait_served(), 0u);
    }
    memfs::memfs_destroy(fs);
}
