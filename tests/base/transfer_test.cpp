// Transfers on real pipes and files: end of data, time-outs, cancellation, chunking.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "base/alarm.h"
#include "base/io.h"
#include "base/owned_handle.h"
#include "base/pipe.h"
#include "base/tick.h"

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

// Signals `pin` from the alarm thread after `ms`.
struct DelayedSignal {
    Alarm alarm; // first
    Pin* pin;
    DelayedSignal(Pin* target, uint32_t ms) : pin(target) {
        alarm_set(&alarm, fire, tick_now() + ms);
    }
    ~DelayedSignal() { alarm_cancel(&alarm); }
    static void fire(Alarm* alarm) {
        pin_signal(reinterpret_cast<DelayedSignal*>(alarm)->pin);
        alarm->callback = nullptr;
    }
};

// Pipes are made with no buffer: a write completes once the reader has taken the data, so
// tests write from a thread of their own.
class Writer {
public:
    Writer(HANDLE handle, std::string data)
        : thread_([this, handle, data] { error = io_write(handle, data.data(), data.size(), &count); }) {}
    ~Writer() { thread_.join(); }
    uint32_t error = 0;
    size_t count = 0;

private:
    std::thread thread_;
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
        ASSERT_EQ(0u, io_read_ex(pipe.server.get(), &kind, nullptr, 5000, buffer, sizeof buffer,
                                 &count));
    }
    EXPECT_EQ("hello", std::string(buffer, count));
    EXPECT_EQ(GetParam() ? io_class_asynchronous : io_class_synchronous, kind & io_class_mask);
    EXPECT_EQ(io_device_pipe, kind & io_device_mask);

    pipe.client.reset();
    count = 99;
    EXPECT_EQ(0u, io_read_ex(pipe.server.get(), &kind, nullptr, 5000, buffer, sizeof buffer,
                             &count));
    EXPECT_EQ(0u, count);
}

TEST_P(PipeTransfer, TimeOutOnAnIdlePipeGives121AfterTheTimeOut) {
    PipePair pipe(GetParam());
    char buffer[16];
    size_t count = 99;
    uint64_t start = tick_now();
    EXPECT_EQ(121u, io_read_ex(pipe.server.get(), nullptr, nullptr, 100, buffer, sizeof buffer,
                               &count));
    uint64_t elapsed = tick_now() - start;
    EXPECT_EQ(0u, count);
    EXPECT_GE(elapsed, 95u);
    EXPECT_LT(elapsed, 600u);
    RecordProperty("timeout_100ms_elapsed", static_cast<int>(elapsed));
    printf("    100 ms time-out returned after %llu ms\n", static_cast<unsigned long long>(elapsed));

    // The pipe is still usable afterwards: the cancelled read took nothing.
    Writer writer(pipe.client.get(), "x");
    ASSERT_EQ(0u, io_read_ex(pipe.server.get(), nullptr, nullptr, 5000, buffer, 1, &count));
    EXPECT_EQ(1u, count);
}

TEST_P(PipeTransfer, CancelSourceSignalledBeforeTheCallIssuesNothing) {
    PipePair pipe(GetParam());
    size_t count;
    Writer writer(pipe.client.get(), "data");
    Pin cancel{};
    pin_signal(&cancel);
    char buffer[16];
    count = 99;
    EXPECT_EQ(995u, io_read_ex(pipe.server.get(), nullptr, &cancel, io_no_timeout, buffer,
                               sizeof buffer, &count));
    EXPECT_EQ(0u, count);
    // The data is still there: no read was issued (the writer is still waiting for a reader).
    ASSERT_EQ(0u, io_read(pipe.server.get(), buffer, sizeof buffer, &count));
    EXPECT_EQ("data", std::string(buffer, count));
}

TEST_P(PipeTransfer, CancelSourceSignalledDuringTheReadGives995) {
    PipePair pipe(GetParam());
    char buffer[16];
    size_t count = 99;
    Pin cancel{};
    DelayedSignal signal(&cancel, 50);
    uint64_t start = tick_now();
    EXPECT_EQ(995u, io_read_ex(pipe.server.get(), nullptr, &cancel, io_no_timeout, buffer,
                               sizeof buffer, &count));
    EXPECT_EQ(0u, count);
    EXPECT_LT(tick_now() - start, 2000u);
}

TEST_P(PipeTransfer, WithBothACancelSourceAndATimeOutWhicheverComesFirstDecides) {
    PipePair pipe(GetParam());
    char buffer[16];
    size_t count;
    {
        Pin cancel{};
        DelayedSignal signal(&cancel, 30);
        EXPECT_EQ(995u, io_read_ex(pipe.server.get(), nullptr, &cancel, 5000, buffer,
                                   sizeof buffer, &count));
    }
    {
        Pin cancel{}; // never signalled
        EXPECT_EQ(121u, io_read_ex(pipe.server.get(), nullptr, &cancel, 50, buffer,
                                   sizeof buffer, &count));
        EXPECT_FALSE(pin_is_signalled(&cancel));
    }
}

TEST(Transfer, WriteOnAPipeWhoseReaderHasClosedEndsWithoutError) {
    PipePair pipe(false);
    pipe.server.reset();
    size_t count = 99;
    EXPECT_EQ(0u, io_write(pipe.client.get(), "lost", 4, &count));
    EXPECT_EQ(0u, count);
}

TEST(Transfer, InvalidHandleGives6) {
    char buffer[4];
    size_t count = 99;
    EXPECT_EQ(6u, io_read(INVALID_HANDLE_VALUE, buffer, sizeof buffer, &count));
    EXPECT_EQ(0u, count);
    HANDLE duplicate = nullptr;
    EXPECT_EQ(6u, handle_duplicate(INVALID_HANDLE_VALUE, &duplicate));
    EXPECT_EQ(INVALID_HANDLE_VALUE, duplicate);
}

TEST(Transfer, KindsOfCommonHandles) {
    HANDLE null_device;
    ASSERT_EQ(0u, null_open(&null_device));
    OwnedHandle null_owner(null_device);
    uint8_t kind = 0;
    ASSERT_EQ(0u, io_kind(null_device, &kind));
    EXPECT_EQ(io_device_pipe | io_class_synchronous, kind); // a character device, no console

    // A cached kind is taken as it is.
    kind = io_device_disk | io_class_plain;
    ASSERT_EQ(0u, io_kind(null_device, &kind));
    EXPECT_EQ(io_device_disk | io_class_plain, kind);

    // The null device reads as end of data and swallows writes.
    char buffer[8];
    size_t count = 99;
    EXPECT_EQ(0u, io_read(null_device, buffer, sizeof buffer, &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0u, io_write(null_device, "abc", 3, &count));
    EXPECT_EQ(3u, count);
}

TEST(Transfer, PipesMadeBackToBackHaveDistinctNames) {
    // Many pairs inside one millisecond or so: the first-instance flag would refuse a name that
    // already exists, so every creation succeeding proves the names differ.
    std::vector<OwnedHandle> ends;
    std::vector<std::wstring> names;
    for (int i = 0; i < 20; ++i) {
        HANDLE server, client;
        ASSERT_EQ(0u, pipe_create(false, false, &server, &client));
        ends.emplace_back(server);
        ends.emplace_back(client);
        alignas(8) char info[1024];
        if (GetFileInformationByHandleEx(server, FileNameInfo, info, sizeof info)) {
            auto* name = reinterpret_cast<FILE_NAME_INFO*>(info);
            names.emplace_back(name->FileName, name->FileNameLength / sizeof(wchar_t));
        }
    }
    EXPECT_EQ(20u, names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        std::wstring prefix = L"AnonymousPipe." + std::to_wstring(GetCurrentProcessId()) + L".";
        EXPECT_NE(std::wstring::npos, names[i].find(prefix));
        for (size_t j = 0; j < i; ++j) EXPECT_NE(names[i], names[j]);
    }
}

namespace {

class FileTransfer : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        wchar_t directory[MAX_PATH];
        GetTempPathW(MAX_PATH, directory);
        path_ = std::wstring(directory) + L"zun_transfer_" +
                std::to_wstring(GetCurrentProcessId()) + (GetParam() ? L"_a.bin" : L"_s.bin");
    }
    void TearDown() override { DeleteFileW(path_.c_str()); }
    OwnedHandle open(DWORD disposition) {
        return OwnedHandle(CreateFileW(path_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                       disposition,
                                       GetParam() ? FILE_FLAG_OVERLAPPED : FILE_ATTRIBUTE_NORMAL,
                                       nullptr));
    }
    std::wstring path_;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(BothClasses, FileTransfer, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Overlapped" : "Blocking"; });

TEST_P(FileTransfer, LargeTransfersGoInChunksAndKeepTheFilePosition) {
    const size_t size = io_chunk_size + 4096 + 17;
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(i * 7 + i / 4096);

    OwnedHandle file = open(CREATE_ALWAYS);
    ASSERT_TRUE(file.valid());
    uint8_t kind = 0;
    size_t count = 0;
    // Two writes: the second must land after the first.
    ASSERT_EQ(0u, io_write_ex(file.get(), &kind, nullptr, io_no_timeout, data.data(), 100,
                              &count));
    EXPECT_EQ(100u, count);
    EXPECT_EQ(io_device_disk, kind & io_device_mask);
    ASSERT_EQ(0u, io_write_ex(file.get(), &kind, nullptr, io_no_timeout, data.data() + 100,
                              size - 100, &count));
    EXPECT_EQ(size - 100, count);
    uint64_t position = 0;
    ASSERT_EQ(0u, io_seek(file.get(), 0, FILE_CURRENT, &position));
    EXPECT_EQ(size, position);

    ASSERT_EQ(0u, io_seek(file.get(), 0, FILE_BEGIN));
    std::vector<uint8_t> back(size + 100);
    // A read of more than there is returns what there is, across the chunk boundary.
    ASSERT_EQ(0u, io_read_ex(file.get(), &kind, nullptr, io_no_timeout, back.data(),
                             back.size(), &count));
    EXPECT_EQ(size, count);
    back.resize(count);
    EXPECT_TRUE(back == data);
    // At the end: success with nothing.
    ASSERT_EQ(0u, io_read_ex(file.get(), &kind, nullptr, io_no_timeout, back.data(), 10,
                             &count));
    EXPECT_EQ(0u, count);

    ASSERT_EQ(0u, io_seek(file.get(), 1000, FILE_BEGIN));
    ASSERT_EQ(0u, io_set_end(file.get()));
    LARGE_INTEGER file_size;
    ASSERT_TRUE(GetFileSizeEx(file.get(), &file_size));
    EXPECT_EQ(1000, file_size.QuadPart);
    EXPECT_EQ(0u, io_close(file.release()));
}
