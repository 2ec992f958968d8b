// What a marshaller offers besides serving: its tables, error conversion, the "#!" check, text
// output and the password prompt; and the serve parameters.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

// A pipe whose read end a thread drains into a string.
struct TextSink {
    HANDLE read = INVALID_HANDLE_VALUE, write = INVALID_HANDLE_VALUE;
    std::string text;
    std::thread reader;
    TextSink() {
        buffered_pipe(&read, &write);
        reader = std::thread([this] {
            char buffer[512];
            DWORD got;
            while (ReadFile(read, buffer, sizeof buffer, &got, nullptr) && got)
                text.append(buffer, got);
        });
    }
    // Everything written until now.
    std::string close() {
        CloseHandle(write);
        reader.join();
        CloseHandle(read);
        return text;
    }
};

} // namespace

TEST(MarshallerServices, EachVersionHasItsTable) {
    for (uint32_t version = 1; version <= 6; ++version) {
        void* table = nullptr;
        const MarshallerInterface& id = kMarshallerInterfaces[version - 1];
        EXPECT_EQ(id.id, "ZunMarshaller" + std::to_string(version));
        ASSERT_EQ(id.create(&table), 0u);
        // Slot 3 is the same in every table; Serve exists from version 3.
        if (version <= 2) {
            auto* m = static_cast<MarshallerV2*>(table);
            EXPECT_EQ(static_cast<MarshallerObject*>(m)->version(), version);
            EXPECT_EQ(m->ConvertSystemError(2), ProtocolError::NotFound);
            m->Release();
        } else if (version <= 5) {
            auto* m = static_cast<MarshallerV5*>(table);
            EXPECT_EQ(static_cast<MarshallerObject*>(m)->version(), version);
            ServeParams short_params{7};
            EXPECT_EQ(m->Serve(&short_params), 87u);
            m->Release();
        } else {
            auto* m = static_cast<Marshaller*>(table);
            EXPECT_EQ(static_cast<MarshallerObject*>(m)->version(), version);
            ServeParams short_params{0};
            EXPECT_EQ(m->Serve(&short_params), 87u);
            m->Release();
        }
    }
    void* table = nullptr;
    EXPECT_EQ(marshaller_create(7, &table), 87u);
    EXPECT_EQ(table, nullptr);
}

TEST(MarshallerServices, ConvertSystemError) {
    MarshallerObject* m = MarshallerObject::create(6);
    TextSink sink;
    m->SetStatusHandle(sink.write);
    const struct {
        uint32_t system;
        ProtocolError code;
    } cases[] = {
        {0, ProtocolError::Success},          {109, ProtocolError::Disconnected},
        {1223, ProtocolError::Cancelled},     {995, ProtocolError::Cancelled},
        {120, ProtocolError::NotImplemented}, {87, ProtocolError::Invalid},
        {14, ProtocolError::OutOfMemory},     {31, ProtocolError::Failed},
        {5, ProtocolError::AccessDenied},     {1168, ProtocolError::NotFound},
        {3, ProtocolError::PathNotFound},     {112, ProtocolError::NoSpace},
        {123, ProtocolError::BadName},        {145, ProtocolError::NotEmpty},
        {38, ProtocolError::EndOfFile},       {303, ProtocolError::DeletePending},
        {11, ProtocolError::Corrupt},         {64, ProtocolError::TimedOut},
        {267, ProtocolError::NotAFolder},     {80, ProtocolError::Exists},
    };
    for (const auto& c : cases) EXPECT_EQ(m->ConvertSystemError(c.system), c.code) << c.system;
    EXPECT_EQ(m->ConvertSystemError(12345), ProtocolError::Failed);
    m->Release();
    EXPECT_EQ(sink.close(), "WARNING: Unexpected system error 12345.\n");
}

TEST(MarshallerServices, IdentifyScriptHeader) {
    const struct {
        std::string data;
        uint32_t result;
    } cases[] = {
        {"#!zunramfs\nrest", 0},
        {"#! zunramfs", 0},
        {"\xEF\xBB\xBF \r\n\t#!/usr/bin/ZunRamFS  \t\r\n", 0},
        {std::string("\0\0#!env!zunramfs", 16), 0},
        {"#!/usr/bin/myzunramfs", 1168}, // the tail of a longer word
        {"#!zunramfs2", 1168},
        {"#!fs", 1168},
        {"# !zunramfs", 11},
        {"zunramfs", 11},
        {"#", 11},
    };
    for (const auto& c : cases)
        EXPECT_EQ(identify_script_header(c.data.data(), c.data.size(), "zunramfs"), c.result)
            << c.data;
}

TEST(MarshallerServices, TextOutputGoesToTheStatusHandle) {
    MarshallerObject* m = MarshallerObject::create(6);
    m->Print(L"nowhere\n"); // no output yet: nothing happens
    TextSink sink;
    m->SetStatusHandle(sink.write);
    m->Print(L"a\u00E9 ");
    m->PrintLine(L"line");
    m->PrintText(L"", true);
    m->Printf(L"%s=%i %hs\n", L"x", -3, "utf8");
    std::wstring longer(300, L'z');
    m->Printf(L"%s\n", longer.c_str());
    m->Release();
    EXPECT_EQ(sink.close(), "a\xC3\xA9 line\n\nx=-3 utf8\n" + std::string(300, 'z') + "\n");
}

TEST(MarshallerServices, ReadPasswordFromAStream) {
    MarshallerObject* m = MarshallerObject::create(6);
    TextSink status;
    m->SetStatusHandle(status.write);
    HANDLE in_read, in_write;
    buffered_pipe(&in_read, &in_write);
    std::string typed = "s\xC3\xA9"
                        "cret\r\nnext";
    DWORD written;
    WriteFile(in_write, typed.data(), static_cast<DWORD>(typed.size()), &written, nullptr);

    const wchar_t* line = nullptr;
    EXPECT_EQ(m->ReadPassword(in_read, L"Password: ", &line), 0u);
    ASSERT_NE(line, nullptr);
    EXPECT_STREQ(line, L"s\u00E9cret");
    m->ClearPassword();

    // The stream ends before a line end.
    CloseHandle(in_write);
    EXPECT_EQ(m->ReadPassword(in_read, L"Again: ", &line), 109u);
    EXPECT_EQ(line, nullptr);
    CloseHandle(in_read);
    m->Release();
    EXPECT_EQ(status.close(), "Password: \nAgain: \n");
}

TEST(MarshallerServices, DataAlignIsAPowerOfTwoUpTo4096) {
    const struct {
        uintptr_t wanted;
        uint32_t align;
    } cases[] = {{0, 1}, {1, 1}, {3, 4}, {512, 512}, {513, 1024}, {5000, 4096}};
    for (const auto& c : cases) {
        TestFormatter formatter;
        ServeHarness serve(&formatter, {.data_align = c.wanted, .status = false});
        ASSERT_TRUE(serve.connect());
        auto reply = serve.transact(REQUEST(encode_version(out, cap, 1, 5)));
        client::VersionReply version;
        ASSERT_TRUE(client::decode_version_reply(reply.data(), reply.size(), &version));
        EXPECT_EQ(version.data_align, c.align) << c.wanted;
    }
}
