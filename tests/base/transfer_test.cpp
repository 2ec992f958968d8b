// Transfers on real pipes and files: end of data, time-outs, cancellation, chunking.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "late_signal.h"

namespace {

class Transfer : public testing::TestWithParam<bool> {};

} // namespace

INSTANTIATE_TEST_SUITE_P(BothClasses, Transfer, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Overlapped" : "Blocking"; });

TEST_P(Transfer, PipeReadsTimeOutsCancelsAndEndOfData) {
    HANDLE server_handle, client_handle;
    ASSERT_EQ(0u, pipe_create(true, GetParam(), &server_handle, &client_handle));
    OwnedHandle server(server_handle), client(client_handle);
    uint8_t kind = 0;
    char buffer[64];
    size_t count = 99;
    auto read = [&](Signalable* cancel, uint32_t timeout_ms, size_t length = 64) {
        return io_read_ex(server.get(), &kind, cancel, timeout_ms, buffer, length, &count);
    };
    // An idle pipe times out close to the time-out; the cancelled read took nothing.
    uint64_t start = tick_now();
    EXPECT_EQ(121u, read(nullptr, 100));
    uint64_t elapsed = tick_now() - start;
    printf("    100 ms time-out returned after %llu ms\n",
           static_cast<unsigned long long>(elapsed));
    EXPECT_EQ(0u, count);
    EXPECT_GE(elapsed, 95u);
    EXPECT_LT(elapsed, 600u);
    EXPECT_EQ(io_device_pipe | (GetParam() ? io_class_asynchronous : io_class_synchronous), kind);
    // The pipes have no buffer: a write completes once the reader has taken the data, so it
    // comes from a thread of its own. A cancel source signalled before the call: nothing is
    // issued, the writer still waits.
    std::thread writer([&] {
        size_t written;
        io_write(client.get(), "hello", 5, &written);
    });
    Pin signalled{};
    pin_signal(&signalled);
    EXPECT_EQ(995u, read(&signalled, io_no_timeout));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0u, read(nullptr, 5000));
    writer.join();
    EXPECT_EQ("hello", std::string(buffer, count));
    // Signalled during the read; with a time-out as well, whichever fires first decides.
    LateSignal cancel(50);
    EXPECT_EQ(995u, read(&cancel.pin, io_no_timeout));
    LateSignal early(30);
    EXPECT_EQ(995u, read(&early.pin, 5000));
    Pin never{};
    EXPECT_EQ(121u, read(&never, 50));
    EXPECT_FALSE(pin_is_signalled(&never));

    // Once the writer has closed, a read succeeds with 0 bytes.
    client.reset();
    count = 99;
    EXPECT_EQ(0u, read(nullptr, 5000));
    EXPECT_EQ(0u, count);
}

TEST_P(Transfer, FilesGoInChunksAndKeepTheirPosition) {
    // An overlapped file has no file pointer of its own: the transfer keeps the position.
    wchar_t directory[MAX_PATH];
    GetTempPathW(MAX_PATH, directory);
    std::wstring path = directory + (L"zun_transfer_" + std::to_wstring(GetCurrentProcessId()));
    OwnedHandle file(
        CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                    FILE_FLAG_DELETE_ON_CLOSE | (GetParam() ? FILE_FLAG_OVERLAPPED : 0), nullptr));
    ASSERT_TRUE(file.valid());
    const size_t size = io_chunk_size + 4096 + 17;
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(i * 7 + i / 4096);
    uint8_t kind = 0;
    size_t count = 0;
    // Two writes: the second must land after the first.
    ASSERT_EQ(0u, io_write_ex(file.get(), &kind, nullptr, io_no_timeout, data.data(), 100, &count));
    ASSERT_EQ(0u, io_write_ex(file.get(), &kind, nullptr, io_no_timeout, data.data() + 100,
                              size - 100, &count));
    EXPECT_EQ(size - 100, count);
    EXPECT_EQ(io_device_disk, kind & io_device_mask);
    uint64_t position = 0;
    ASSERT_EQ(0u, io_seek(file.get(), 0, FILE_CURRENT, &position));
    EXPECT_EQ(size, position);
    // More than there is: what there is, across the chunk boundary.
    ASSERT_EQ(0u, io_seek(file.get(), 0, FILE_BEGIN));
    std::vector<uint8_t> back(size + 100);
    ASSERT_EQ(0u, io_read_ex(file.get(), &kind, nullptr, io_no_timeout, back.data(), back.size(),
                             &count));
    back.resize(count);
    EXPECT_TRUE(back == data);
    ASSERT_EQ(0u, io_seek(file.get(), 1000, FILE_BEGIN));
    ASSERT_EQ(0u, io_set_end(file.get()));
    ASSERT_EQ(0u, io_seek(file.get(), 0, FILE_END, &position));
    EXPECT_EQ(1000u, position);
    EXPECT_EQ(0u, io_close(file.release()));
}

TEST(Pipes, NullDeviceInvalidHandlesLostReadersAndDistinctNames) {
    HANDLE null_device;
    ASSERT_EQ(0u, null_open(&null_device));
    OwnedHandle null_owner(null_device);
    uint8_t kind = 0;
    ASSERT_EQ(0u, io_kind(null_device, &kind));
    EXPECT_EQ(io_device_pipe | io_class_synchronous, kind); // a character device, no console
    HANDLE duplicate = nullptr;
    EXPECT_EQ(6u, handle_duplicate(INVALID_HANDLE_VALUE, &duplicate));
    EXPECT_EQ(INVALID_HANDLE_VALUE, duplicate);

    // Pipes made back to back (many within one millisecond) have distinct names; a write
    // whose reader has gone moves nothing and is no error.
    std::vector<ChildPipe> pipes;
    std::vector<std::wstring> names;
    while (pipes.size() < 20) {
        ChildPipe& pipe = pipes.emplace_back(true);
        alignas(8) char info[1024];
        ASSERT_TRUE(
            GetFileInformationByHandleEx(pipe.parent_end.get(), FileNameInfo, info, sizeof info));
        auto* name = reinterpret_cast<FILE_NAME_INFO*>(info);
        names.emplace_back(name->FileName, name->FileNameLength / sizeof(wchar_t));
        EXPECT_NE(std::wstring::npos,
                  names.back().find(L"AnonymousPipe." + std::to_wstring(GetCurrentProcessId())));
        for (size_t j = 0; j + 1 < names.size(); ++j) EXPECT_NE(names.back(), names[j]);
    }
    size_t count = 99;
    pipes[0].parent_end.reset();
    EXPECT_EQ(0u, io_write(pipes[0].child_end, "lost", 4, &count));
    EXPECT_EQ(0u, count);
    for (ChildPipe& pipe : pipes) CloseHandle(pipe.child_end);
}
