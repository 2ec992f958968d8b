// A session with the sample in-memory formatter through a real serve.
#include "memfs.h"
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

TEST(MemFsSession, CreateWriteReadList) {
    FormatterRequestHandler* fs = memfs::memfs_create(6, 1 << 20);
    {
        ServeHarness s(fs);
        ASSERT_TRUE(s.connect());
        const char* path[] = {"docs", "a.txt"};
        OpenFields folder{0, memfs::kFolderType, 0, 0, 101, 101};
        OpenFields file{0, memfs::kFileType, 0, 0, 102, 102};
        auto reply = s.transact(REQUEST(encode_open(out, cap, 1, folder, client::Name{path, 1})));
        client::OpenReply opened{};
        ASSERT_TRUE(client::decode_open_reply(reply.data(), reply.size(), &opened));
        EXPECT_EQ(opened.existed, 0);
        reply = s.transact(REQUEST(encode_open(out, cap, 2, file, client::Name{path, 2})));
        ASSERT_TRUE(client::decode_open_reply(reply.data(), reply.size(), &opened));
        EXPECT_STREQ(opened.end_name, "a.txt");

        const uint8_t text[] = "hello";
        s.transact(REQUEST(encode_write(out, cap, 3, WriteFields{102, 4, 5, 0, text})));
        reply = s.transact(REQUEST(encode_read(out, cap, 4, ReadFields{102, 0, 64, 0})));
        client::ReadReply read;
        ASSERT_TRUE(client::decode_read_reply(reply.data(), reply.size(), &read));
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(read.data), read.actual_size),
                  std::string(4, '\0') + "hello");
        reply = s.transact(REQUEST(encode_list(out, cap, 5, ListFields{101, 1, 10, 4096})));
        client::ListReply list;
        FileInfo entry;
        const char* name;
        ASSERT_TRUE(client::decode_list_reply(reply.data(), reply.size(), &list));
        ASSERT_TRUE(list.count == 1 && client::list_reply_entry(list, 0, &entry, &name));
        EXPECT_STREQ(name, "a.txt");
        EXPECT_EQ(entry.file_size, 9u);
    }
    memfs::memfs_destroy(fs);
}
