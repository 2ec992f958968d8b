// What a marshaller offers besides serving: its tables, error conversion, the "#!" check, text
// output and the password prompt.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

TEST(MarshallerServices, EachVersionHasItsTable) {
    // The slots differ by version: ConvertSystemError is found at the same place in every
    // table, Serve exists from version 3 and moves in version 6.
    ServeParams short_params{7}; // fewer than 8 words
    for (uint32_t version = 1; version <= 6; ++version) {
        void* table = nullptr;
        ASSERT_EQ(kMarshallerInterfaces[version - 1].create(&table), 0u);
        auto* v2 = static_cast<MarshallerV2*>(table);
        EXPECT_EQ(v2->ConvertSystemError(2), ProtocolError::NotFound);
        uint32_t served = version < 3   ? 87
                          : version < 6 ? static_cast<MarshallerV5*>(table)->Serve(&short_params)
                                        : static_cast<Marshaller*>(table)->Serve(&short_params);
        EXPECT_EQ(served, 87u) << version;
        v2->Release();
    }
    void* table = nullptr;
    EXPECT_EQ(marshaller_create(7, &table), 87u);
    EXPECT_EQ(table, nullptr);
}

TEST(MarshallerServices, IdentifyScriptHeader) {
    // 0 for a "#!" line naming the formatter as a word of its own (after blanks, NULs and a
    // byte order mark), 1168 for a "#!" line naming something else, 11 for no "#!" line.
    const struct {
        std::string data;
        uint32_t result;
    } cases[] = {{"#!zunramfs\nrest", 0},
                 {"#! zunramfs", 0},
                 {std::string("\0\0#!env!zunramfs", 16), 0},
                 {"\xEF\xBB\xBF \r\n\t#!/usr/bin/ZunRamFS  \t\r\n", 0},
                 {"#!/usr/bin/myzunramfs", 1168},
                 {"#!zunramfs2", 1168},
                 {"#!fs", 1168},
                 {"# !zunramfs", 11},
                 {"zunramfs", 11},
                 {"#", 11}};
    for (const auto& c : cases)
        EXPECT_EQ(identify_script_header(c.data.data(), c.data.size(), "zunramfs"), c.result)
            << c.data;
}

TEST(MarshallerServices, TextOutputErrorConversionAndPasswordPrompt) {
    MarshallerObject* quiet = MarshallerObject::create(6);
    quiet->Print(L"nowhere\n"); // without a status handle nothing happens
    quiet->Release();
    ServeHarness serve(nullptr, {.status = true}); // waiting for the client's ready line
    MarshallerObject* m = serve.marshaller;
    m->Print(L"a\u00E9 ");
    m->PrintLine(L"line");
    m->PrintText(L"", true);
    m->Printf(L"%s=%i %hs %s\n", L"x", -3, "utf8", std::wstring(300, L'z').c_str());

    // System errors convert in table order; unknown ones are Failed, with a warning.
    const struct {
        uint32_t system;
        ProtocolError code;
    } pairs[] = {
        {0, ProtocolError::Success},         {1223, ProtocolError::Cancelled},
        {995, ProtocolError::Cancelled},     {121, ProtocolError::TimedOut},
        {64, ProtocolError::TimedOut},       {120, ProtocolError::NotImplemented},
        {87, ProtocolError::Invalid},        {14, ProtocolError::OutOfMemory},
        {31, ProtocolError::Failed},         {5, ProtocolError::AccessDenied},
        {2, ProtocolError::NotFound},        {1168, ProtocolError::NotFound},
        {3, ProtocolError::PathNotFound},    {39, ProtocolError::NoSpace},
        {112, ProtocolError::NoSpace},       {123, ProtocolError::BadName},
        {267, ProtocolError::NotAFolder},    {183, ProtocolError::Exists},
        {80, ProtocolError::Exists},         {38, ProtocolError::EndOfFile},
        {303, ProtocolError::DeletePending}, {145, ProtocolError::NotEmpty},
        {11, ProtocolError::Corrupt},        {109, ProtocolError::Disconnected},
    };
    for (const auto& p : pairs) EXPECT_EQ(m->ConvertSystemError(p.system), p.code) << p.system;
    EXPECT_EQ(m->ConvertSystemError(12345), ProtocolError::Failed);
    // The password is read from a stream up to the line end; the prompt goes to the output.
    HANDLE in_read, in_write;
    ASSERT_TRUE(CreatePipe(&in_read, &in_write, nullptr, 0));
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
    EXPECT_EQ(serve.status_with("Again: \n"),
              "a\xC3\xA9 line\n\nx=-3 utf8 " + std::string(300, 'z') +
                  "\nWARNING: Unexpected system error 12345.\nPassword: \nAgain: \n");
}
