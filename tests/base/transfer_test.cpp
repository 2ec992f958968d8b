// Transfers on real pipes and files: end of data, time-outs, cancellation, chunking.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "base/io.h"
#include "base/owned_handle.h"
#include "base/pipe.h"
#include "late_signal.h"

namespace {

struct PipePair {
    OwnedHandle server, client;
    explicit PipePair(bool overlapped) {
        HANDLE s, c;
        EXPECT_EQ(0u, pipe_create(true, overlapped, &s, &c));
        server.reset(s);
        client.reset(c);
    }
};

// The pipes have no buffer: a write completes once the reader has taken the data, so tests
// write from a thread of their own.
struct Writer {
    std::thread thread;
    Writer(HANDLE handle, std::string data)
        : thread([handle, data] {
              size_t count;
              io_write(handle, data.data(), data.size(), &count);
          }) {}
    ~Writer() { thread.join(); }
};

class PipeTransfer : public testing::TestWithParam<bool> {};

} // namespace

INSTANTIATE_TEST_SUITE_P(BothClasses, PipeTransfer, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Overlapped" : "Blocking"; });

TEST_P(PipeTransfer, ReadsWhatWasWrittenThenZeroBytesOnceTheWriterHasClosed) {
    PipePair pipe(GetParam());
    uint8_t kind = 0;
    size_t count = 99;
    char buffer[64];
    {
        Writer writer(pipe.client.get(), "hello");
        ASSERT_EQ(
            0u, io_read_ex(pipe.server.get(), &kind, nullptr, 5000, buffer, sizeof buffer, &count));
    }
    EXPECT_EQ("hello", std::string(buffer, count));
    EXPECT_EQ(io_device_pipe | (GetParam() ? io_class_asynchronous : io_class_synchronous), kind);
    pipe.client.reset();
    EXPECT_EQ(0u,
              io_read_ex(pipe.server.get(), &kind, nullptr, 5000, buffer, sizeof buffer, &count));
    EXPECT_EQ(0u, count);
}

TEST_P(PipeTransfer, TimeOutOnAnIdlePipeGives121AfterTheTimeOut) {
    PipePair pipe(GetParam());
    char buffer[16];
    size_t count = 99;
    uint64_t start = tick_now();
    EXPECT_EQ(121u,
              io_read_ex(pipe.server.get(), nullptr, nullptr, 100, buffer, sizeof buffer, &count));
    uint64_t elapsed = tick_now() - start;
    printf("    100 ms time-out returned after %llu ms\n",
           static_cast<unsigned long long>(elapsed));
    EXPECT_EQ(0u, count);
    EXPECT_GE(elapsed, 95u);
    EXPECT_LT(elapsed, 600u);
    // The cancelled read took nothing: the pipe still works.
    Writer writer(pipe.client.get(), "x");
    ASSERT_EQ(0u, io_read_ex(pipe.server.get(), nullptr, nullptr, 5000, buffer, 1, &count));
    EXPECT_EQ(1u, count);
}

TEST_P(PipeTransfer, CancelSourceBeforeTheCallIssuesNothingAndDuringItBreaksItOff) {
    PipePair pipe(GetParam());
    char buffer[16];
    size_t count = 99;
    {
        Writer writer(pipe.client.get(), "data");
        Pin cancel{};
        pin_signal(&cancel);
        EXPECT_EQ(995u, io_read_ex(pipe.server.get(), nullptr, &cancel, io_no_timeout, buffer,
                                   sizeof buffer, &count));
        EXPECT_EQ(0u, count);
        // The writer still waits for its reader: no read was issued.
        ASSERT_EQ(0u, io_read(pipe.server.get(), buffer, sizeof buffer, &count));
        EXPECT_EQ("data", std::string(buffer, count));
    }
    LateSignal cancel(50);
    EXPECT_EQ(995u, io_read_ex(pipe.server.get(), nullptr, &cancel.pin, io_no_timeout, buffer,
                               sizeof buffer, &count));
    // With a time-out as well, whichever fires first decides.
    LateSignal early(30);
    EXPECT_EQ(995u, io_read_ex(pipe.server.get(), nullptr, &early.pin, 5000, buffer, sizeof buffer,
                               &count));
    Pin never{};
    EXPECT_EQ(121u,
              io_read_ex(pipe.server.get(), nullptr, &never, 50, buffer, sizeof buffer, &count));
    EXPECT_FALSE(pin_is_signalled(&never));
}

TEST(Transfer, KindsEndOfDataAndInvalidHandles) {
    HANDLE null_device;
    ASSERT_EQ(0u, null_open(&null_device));
    OwnedHandle null_owner(null_device);
    uint8_t kind = 0;
    ASSERT_EQ(0u, io_kind(null_device, &kind));
    EXPECT_EQ(io_device_pipe | io_class_synchronous, kind); // a character device, no console
    char buffer[8];
    size_t count = 99;
    EXPECT_EQ(0u, io_read(null_device, buffer, sizeof buffer, &count));
    EXPECT_EQ(0u, count);

    PipePair pipe(false);
    pipe.server.reset();
    EXPECT_EQ(0u, io_write(pipe.client.get(), "lost", 4, &count)); // the reader has gone
    EXPECT_EQ(0u, count);

    count = 99;
    EXPECT_EQ(6u, io_read(INVALID_HANDLE_VALUE, buffer, sizeof buffer, &count));
    EXPECT_EQ(0u, count);
    HANDLE duplicate = nullptr;
    EXPECT_EQ(6u, handle_duplicate(INVALID_HANDLE_VALUE, &duplicate));
    EXPECT_EQ(INVALID_HANDLE_VALUE, duplicate);
}

TEST(Transfer, PipesMadeBackToBackHaveDistinctNames) {
    std::vector<OwnedHandle> ends;
    std::vector<std::wstring> names;
    for (int i = 0; i < 20; ++i) {
        HANDLE server, client;
        ASSERT_EQ(0u, pipe_create(false, false, &server, &client));
        ends.emplace_back(server);
        ends.emplace_back(client);
        alignas(8) char info[1024];
        ASSERT_TRUE(GetFileInformationByHandleEx(server, FileNameInfo, info, sizeof info));
        auto* name = reinterpret_cast<FILE_NAME_INFO*>(info);
        names.emplace_back(name->FileName, name->FileNameLength / sizeof(wchar_t));
    }
    std::wstring prefix = L"AnonymousPipe." + std::to_wstring(GetCurrentProcessId()) + L".";
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_NE(std::wstring::npos, names[i].find(prefix));
        for (size_t j = 0; j < i; ++j) EXPECT_NE(names[i], names[j]);
    }
}

TEST_P(PipeTransfer, FilesGoInChunksAndKeepTheirPosition) {
    // Parameterised on the class as well: an overlapped file has no file pointer of its own.
    wchar_t directory[MAX_PATH];
    GetTempPathW(MAX_PATH, directory);
    std::wstring path = std::wstring(directory) + L"zun_transfer_" +
                        std::to_wstring(GetCurrentProcessId()) + L".bin";
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

    // More than there is: what there is, across the chunk boundary; then nothing.
    ASSERT_EQ(0u, io_seek(file.get(), 0, FILE_BEGIN));
    std::vector<uint8_t> back(size + 100);
    ASSERT_EQ(0u, io_read_ex(file.get(), &kind, nullptr, io_no_timeout, back.data(), back.size(),
                             &count));
    back.resize(count);
    EXPECT_TRUE(back == data);
    ASSERT_EQ(0u, io_read_ex(file.get(), &kind, nullptr, io_no_timeout, back.data(), 10, &count));
    EXPECT_EQ(0u, count);

    ASSERT_EQ(0u, io_seek(file.get(), 1000, FILE_BEGIN));
    ASSERT_EQ(0u, io_set_end(file.get()));
    LARGE_INTEGER file_size;
    ASSERT_TRUE(GetFileSizeEx(file.get(), &file_size));
    EXPECT_EQ(1000, file_size.QuadPart);
    EXPECT_EQ(0u, io_close(file.release()));
}
