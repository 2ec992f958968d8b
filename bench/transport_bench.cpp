// The marshaller's transports against what a pipe can do.
//
// The sample in-memory formatter answers every request at once, so the figures measure the
// transport and the marshaller. For each mix of messages (small capacity requests, reads of
// 4 KiB, 64 KiB and 1 MiB, writes of 64 KiB) and each window of requests in flight (1 and 32),
// one client plays the driver on the same anonymous pipe pair against:
// - the marshaller serving the byte stream ("ours");
// - a naive echo server that reads each request exactly and writes one reply of the size ours
//   sends, one read and one write per message;
// - a batched echo server that reads whatever has arrived and writes every reply it owes in one
//   write: about as fast as the pipe carries these messages;
// - a two-thread echo: the batched echo with its writes on a second thread woken per read, the
//   shape of the marshaller's serve (a reader thread and a reply writer thread);
// - the marshaller serving the same mix on a fast pipe through the simulated device (with
//   direct results).
// The variants run in alternating rounds and each keeps its best round. Each line gives
// requests per second and MB/s (request and reply bytes together) and the ratios; stream lines
// also give the server's read and write calls per message.
//
// Last comes the marshaller's own cost per small request on the fast pipe: requests queued in
// the device beforehand and served without any wait, less the device's share (the same
// receive and complete calls made without a marshaller).
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "base/device_control.h"
#include "base/format.h"
#include "bench.h"
#include "memfs.h"
#include "mount/control_codes.h"
#include "protocol/fast_pipe.h"
#include "protocol/marshaller_object.h"
#include "protocol/protocol_client.h"
#include "protocol/stream_transport.h"
#include "simulated_device.h"

using namespace zun;
using zun::test::SimTransfer;
using zun::test::SimulatedDevice;

namespace {

constexpr uint32_t kDataAlign = 4096;
constexpr uint32_t kFileOpenId = 1;
constexpr size_t kPipeBuffer = 1 << 20;
constexpr double kRoundSeconds = 0.1;
constexpr int kRounds = 9;

using bench::say;

std::string decimal(double value, unsigned decimals) {
    char text[64];
    bench::decimal_text(text, sizeof text, value, decimals);
    return text;
}

template <class Encode> std::vector<uint8_t> encoded(Encode encode) {
    std::vector<uint8_t> out(encode(nullptr, 0));
    out.resize(encode(out.data(), out.size()));
    return out;
}

// ---------------------------------------------------------------------------------------------
// Pipes and raw I/O

struct PipePair {
    HANDLE server_read, client_write; // requests
    HANDLE client_read, server_write; // replies
    PipePair() {
        CreatePipe(&server_read, &client_write, nullptr, kPipeBuffer);
        CreatePipe(&client_read, &server_write, nullptr, kPipeBuffer);
    }
    ~PipePair() {
        for (HANDLE h : {server_read, client_write, client_read, server_write}) CloseHandle(h);
    }
};

bool write_all(HANDLE h, const void* data, size_t length) {
    auto* p = static_cast<const uint8_t*>(data);
    while (length) {
        DWORD done = 0;
        DWORD chunk = static_cast<DWORD>(std::min<size_t>(length, 1u << 30));
        if (!WriteFile(h, p, chunk, &done, nullptr) || !done) return false;
        p += done;
        length -= done;
    }
    return true;
}

bool read_exact(HANDLE h, void* data, size_t length) {
    auto* p = static_cast<uint8_t*>(data);
    while (length) {
        DWORD done = 0;
        if (!ReadFile(h, p, static_cast<DWORD>(length), &done, nullptr) || !done) return false;
        p += done;
        length -= done;
    }
    return true;
}

// Disconnects a stream serve and waits for it to end. The disconnect's reply may or may not
// leave before serving ends; whatever came is drained, so that the next round starts clean.
void drain(HANDLE h) {
    DWORD available = 0;
    std::vector<uint8_t> sink(1 << 16);
    while (PeekNamedPipe(h, nullptr, 0, nullptr, &available, nullptr) && available) {
        DWORD got = 0;
        ReadFile(h, sink.data(), std::min<DWORD>(available, sink.size()), &got, nullptr);
    }
}

void end_serve(PipePair& pipes, std::thread& server, MarshallerObject* m) {
    std::vector<uint8_t> bye(8);
    client::encode_disconnect(bye.data(), bye.size(), 9);
    write_all(pipes.client_write, bye.data(), bye.size());
    server.join();
    m->Release();
    drain(pipes.client_read);
}

// ---------------------------------------------------------------------------------------------
// Message mixes

struct Mix {
    const char* name;
    std::vector<uint8_t> request;
    size_t reply_size;
};

std::vector<Mix> mixes(const std::vector<uint8_t>& write_data) {
    std::vector<Mix> all;
    all.push_back(
        {"small",
         encoded([](void* o, size_t c) { return client::encode_capacity(o, c, 1, nullptr); }), 24});
    const struct {
        const char* name;
        uint32_t size;
    } reads[] = {{"read 4K", 4096}, {"read 64K", 65536}, {"read 1M", 1 << 20}};
    for (const auto& r : reads) {
        all.push_back(
            {r.name, encoded([&](void* o, size_t c) {
                 return client::encode_read(o, c, 2, ReadFields{kFileOpenId, 0, r.size, 0});
             }),
             16 + size_t{r.size}});
    }
    all.push_back({"write 64K", encoded([&](void* o, size_t c) {
                       return client::encode_write(
                           o, c, 3, WriteFields{kFileOpenId, 0, 65536, 0, write_data.data()});
                   }),
                   16});
    return all;
}

// ---------------------------------------------------------------------------------------------
// The client: keeps `window` requests in flight, sending as many as have been answered with
// one write, and reading whatever replies have arrived with one read. All replies of a mix
// have the same size, so counting bytes counts replies.

class StreamDriver {
public:
    StreamDriver(PipePair& pipes, const Mix& mix, size_t window)
        : pipes_(pipes), mix_(mix), window_(window) {
        for (size_t i = 0; i < window; ++i)
            requests_.insert(requests_.end(), mix.request.begin(), mix.request.end());
        inbox_.resize(std::max<size_t>(4 << 20, mix.reply_size * 2));
    }

    // Seconds for n messages.
    double run(size_t n) {
        double start = bench::now_ns();
        size_t sent = std::min(n, window_);
        write_all(pipes_.client_write, requests_.data(), sent * mix_.request.size());
        uint64_t bytes = 0;
        size_t received = 0;
        while (received < n) {
            DWORD got = 0;
            if (!ReadFile(pipes_.client_read, inbox_.data(), static_cast<DWORD>(inbox_.size()),
                          &got, nullptr) ||
                !got)
                return -1;
            bytes += got;
            size_t now_received = static_cast<size_t>(bytes / mix_.reply_size);
            size_t answered = now_received - received;
            received = now_received;
            size_t more = std::min(answered, n - sent);
            if (more) write_all(pipes_.client_write, requests_.data(), more * mix_.request.size());
            sent += more;
        }
        return (bench::now_ns() - start) / 1e9;
    }

private:
    PipePair& pipes_;
    const Mix& mix_;
    size_t window_;
    std::vector<uint8_t> requests_;
    std::vector<uint8_t> inbox_;
};

// ---------------------------------------------------------------------------------------------
// The servers of one round. Each is started before the round's clock runs and gone after.

class Variant {
public:
    virtual ~Variant() = default;
    // Seconds for n messages of the mix with `window` in flight.
    virtual double round(const Mix& mix, size_t window, size_t n) = 0;
};

// The marshaller on the stream.
class StreamServe : public Variant {
public:
    StreamServe(PipePair& pipes, FormatterRequestHandler* fs) : pipes_(pipes), fs_(fs) {}
    double round(const Mix& mix, size_t window, size_t n) override {
        MarshallerObject* m = MarshallerObject::create(6);
        ServeParams params{
            8, fs_, 0, "memfs", kDataAlign, 0, pipes_.server_read, pipes_.server_write};
        std::thread server([&] { m->Serve(&params); });
        char line[kReadyLineLength];
        read_exact(pipes_.client_read, line, sizeof line);
        write_all(pipes_.client_write, kClientReadyLine, kReadyLineLength);
        StreamDriver driver(pipes_, mix, window);
        uint64_t reads = m->transport_reads, writes = m->transport_writes;
        double seconds = driver.run(n);
        reads_per_message = double(m->transport_reads - reads) / double(n);
        writes_per_message = double(m->transport_writes - writes) / double(n);
        end_serve(pipes_, server, m);
        return seconds;
    }
    double reads_per_message = 0, writes_per_message = 0;

private:
    PipePair& pipes_;
    FormatterRequestHandler* fs_;
};

// One read and one write per message.
class NaiveEcho : public Variant {
public:
    explicit NaiveEcho(PipePair& pipes) : pipes_(pipes) {}
    double round(const Mix& mix, size_t window, size_t n) override {
        std::vector<uint8_t> reply(mix.reply_size, 0);
        std::thread server([&] {
            std::vector<uint8_t> request(mix.request.size());
            for (size_t i = 0; i < n; ++i) {
                if (!read_exact(pipes_.server_read, request.data(), request.size())) return;
                if (!write_all(pipes_.server_write, reply.data(), reply.size())) return;
            }
        });
        StreamDriver driver(pipes_, mix, window);
        double seconds = driver.run(n);
        server.join();
        return seconds;
    }

private:
    PipePair& pipes_;
};

// Whatever has arrived in one read; every reply owed in one write. Split in two, the reading
// thread only counts the requests that have arrived and wakes a writer thread, which sends every
// reply owed in one write: the shape of the marshaller's stream serve, and the difference to the
// single-thread echo is the price of the hand-over between threads.
class BatchedEcho : public Variant {
public:
    BatchedEcho(PipePair& pipes, bool two_threads) : pipes_(pipes), two_threads_(two_threads) {}
    double round(const Mix& mix, size_t window, size_t n) override {
        std::vector<uint8_t> replies(mix.reply_size * window, 0);
        HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        std::atomic<size_t> owed{0};
        constexpr size_t kGone = SIZE_MAX;
        auto send = [&](size_t count) {
            return write_all(pipes_.server_write, replies.data(), count * mix.reply_size);
        };
        std::thread writer;
        if (two_threads_) {
            writer = std::thread([&] {
                for (size_t answered = 0; answered < n;) {
                    WaitForSingleObject(wake, INFINITE);
                    size_t now_owed = owed.exchange(0);
                    if (now_owed == kGone || (now_owed && !send(now_owed))) return;
                    answered += now_owed;
                }
            });
        }
        std::thread reader([&] {
            std::vector<uint8_t> inbox(std::max<size_t>(1 << 20, mix.request.size() * window));
            uint64_t bytes = 0;
            size_t seen = 0;
            while (seen < n) {
                DWORD got = 0;
                if (!ReadFile(pipes_.server_read, inbox.data(), static_cast<DWORD>(inbox.size()),
                              &got, nullptr) ||
                    !got)
                    break;
                bytes += got;
                size_t complete = static_cast<size_t>(bytes / mix.request.size());
                if (complete == seen) continue;
                if (two_threads_) {
                    owed.fetch_add(complete - seen);
                    SetEvent(wake);
                } else if (!send(complete - seen)) {
                    break;
                }
                seen = complete;
            }
            if (seen < n) {
                owed.store(kGone);
                SetEvent(wake);
            }
        });
        StreamDriver driver(pipes_, mix, window);
        double seconds = driver.run(n);
        reader.join();
        if (writer.joinable()) writer.join();
        CloseHandle(wake);
        return seconds;
    }

private:
    PipePair& pipes_;
    bool two_threads_;
};

// The marshaller on the simulated fast pipe; each request a write with direct result.
class FastPipeServe : public Variant {
public:
    FastPipeServe(PipePair& pipes, FormatterRequestHandler* fs) : pipes_(pipes), fs_(fs) {}
    double round(const Mix& mix, size_t window, size_t n) override {
        SimulatedDevice device;
        MarshallerObject* m = MarshallerObject::create(6);
        ServeParams params{8, fs_, 0, "memfs", kDataAlign, 0, device.handle(), pipes_.server_write};
        std::thread server([&] { m->Serve(&params); });
        char line[kReadyLineLength];
        read_exact(pipes_.client_read, line, sizeof line);
        SimTransfer ready;
        ready.data.assign(kClientReadyLine, kClientReadyLine + kReadyLineLength);
        device.submit(&ready);
        device.wait(&ready);

        std::vector<SimTransfer> transfers(window);
        for (SimTransfer& t : transfers) {
            t.type = kTransferWriteDirect;
            t.data = mix.request;
            t.output.resize(mix.reply_size + kDataAlign);
        }
        double start = bench::now_ns();
        size_t sent = 0, received = 0;
        for (; sent < std::min(n, window); ++sent) device.submit(&transfers[sent]);
        for (size_t next = 0; received < n; next = (next + 1) % window) {
            device.wait(&transfers[next], INFINITE);
            ++received;
            if (sent < n) {
                device.submit(&transfers[next]);
                ++sent;
            }
        }
        double seconds = (bench::now_ns() - start) / 1e9;

        SimTransfer bye;
        bye.type = kTransferWriteDirect;
        bye.data = encoded([](void* o, size_t c) { return client::encode_disconnect(o, c, 9); });
        bye.output.resize(8);
        device.submit(&bye);
        server.join();
        m->Release();
        return seconds;
    }

private:
    PipePair& pipes_;
    FormatterRequestHandler* fs_;
};

// ---------------------------------------------------------------------------------------------
// Setting up the volume: one file of 1 MiB, open as kFileOpenId.

void prepare_volume(PipePair& pipes, FormatterRequestHandler* fs) {
    MarshallerObject* m = MarshallerObject::create(6);
    ServeParams params{8, fs, 0, "memfs", kDataAlign, 0, pipes.server_read, pipes.server_write};
    std::thread server([&] { m->Serve(&params); });
    char line[kReadyLineLength];
    read_exact(pipes.client_read, line, sizeof line);
    write_all(pipes.client_write, kClientReadyLine, kReadyLineLength);

    auto transact = [&](const std::vector<uint8_t>& request) {
        write_all(pipes.client_write, request.data(), request.size());
        uint8_t header[8];
        read_exact(pipes.client_read, header, 8);
        uint32_t size;
        memcpy(&size, header, 4);
        std::vector<uint8_t> rest(size - 8);
        read_exact(pipes.client_read, rest.data(), rest.size());
    };
    OpenFields open{};
    open.create_file_type = memfs::kFileType;
    open.new_create_open_id = open.new_existing_open_id = kFileOpenId;
    const char* name[] = {"bench.bin"};
    transact(encoded([&](void* o, size_t c) {
        return client::encode_open(o, c, 1, open, client::Name{name, 1});
    }));
    std::vector<uint8_t> data(1 << 20, 0x42);
    transact(encoded([&](void* o, size_t c) {
        return client::encode_write(o, c, 2, WriteFields{kFileOpenId, 0, 1u << 20, 0, data.data()});
    }));
    end_serve(pipes, server, m);
}

// Messages per round for a variant: enough for the round to last kRoundSeconds.
size_t calibrate(Variant& v, const Mix& mix, size_t window) {
    size_t n = std::max<size_t>(window * 2, 64);
    for (;;) {
        double seconds = v.round(mix, window, n);
        if (seconds >= kRoundSeconds / 4 || n > (1u << 24))
            return std::max<size_t>(window, size_t(double(n) * kRoundSeconds / seconds));
        n *= 4;
    }
}

// ---------------------------------------------------------------------------------------------
// The fast pipe's cost per small request.

void fast_pipe_cost(PipePair& pipes, FormatterRequestHandler* fs) {
    constexpr size_t kCount = 200000;
    std::vector<uint8_t> capacity =
        encoded([](void* o, size_t c) { return client::encode_capacity(o, c, 1, nullptr); });

    double best_total = 1e300, best_device = 1e300;
    for (int round = 0; round < kRounds; ++round) {
        // Served: everything queued before serving starts, so the loop never waits.
        {
            SimulatedDevice device;
            std::vector<SimTransfer> transfers(kCount + 2);
            transfers[0].data.assign(kClientReadyLine, kClientReadyLine + kReadyLineLength);
            for (size_t i = 1; i <= kCount; ++i) {
                transfers[i].type = kTransferWriteDirect;
                transfers[i].data = capacity;
                transfers[i].output.resize(32);
            }
            transfers[kCount + 1].type = kTransferWriteDirect;
            transfers[kCount + 1].data =
                encoded([](void* o, size_t c) { return client::encode_disconnect(o, c, 9); });
            transfers[kCount + 1].output.resize(8);
            for (SimTransfer& t : transfers) device.submit(&t);
            MarshallerObject* m = MarshallerObject::create(6);
            ServeParams params{
                8, fs, 0, "memfs", kDataAlign, 0, device.handle(), pipes.server_write};
            double start = bench::now_ns();
            m->Serve(&params);
            double total = (bench::now_ns() - start) / double(kCount);
            char line[kReadyLineLength];
            read_exact(pipes.client_read, line, sizeof line);
            m->Release();
            best_total = std::min(best_total, total);
        }
        // The device's share: the same calls, without a marshaller.
        {
            SimulatedDevice device;
            std::vector<SimTransfer> transfers(kCount);
            for (SimTransfer& t : transfers) {
                t.type = kTransferWriteDirect;
                t.data = capacity;
                t.output.resize(32);
                device.submit(&t);
            }
            HANDLE h = device.handle();
            uint8_t reply[24] = {};
            double start = bench::now_ns();
            for (size_t i = 0; i < kCount; ++i) {
                FastPipeReceiveInput in{0, 0};
                FastPipeReceiveRecord record{};
                device_control(h, control_code_neither(kFastPipeReceiveFunction), &in, sizeof in,
                               &record, sizeof record, nullptr);
                void* buffer = malloc(record.data_size);
                in = {reinterpret_cast<uintptr_t>(buffer), record.data_size};
                device_control(h, control_code_neither(kFastPipeReceiveFunction), &in, sizeof in,
                               &record, sizeof record, nullptr);
                memcpy(reinterpret_cast<void*>(record.output), reply, sizeof reply);
                FastPipeCompleteInput done{record.key,   0, 0, record.data_size, sizeof reply,
                                           record.output};
                device_control(h, control_code_neither(kFastPipeCompleteFunction), &done,
                               sizeof done, nullptr, 0, nullptr);
                free(buffer);
            }
            best_device = std::min(best_device, (bench::now_ns() - start) / double(kCount));
        }
    }
    say("fast pipe small request cost: marshaller %s ns/request (%s ns with the simulated "
        "device's %s ns), target under 2000 ns\r\n",
        decimal(best_total - best_device, 0).c_str(), decimal(best_total, 0).c_str(),
        decimal(best_device, 0).c_str());
}

} // namespace

int main(int argc, char** argv) {
    // An argument limits the rows to those whose name contains it ("x32", "read 64K").
    const char* only = argc > 1 ? argv[1] : nullptr;
    FormatterRequestHandler* fs = memfs::memfs_create(6, 1ull << 32);
    PipePair pipes;
    prepare_volume(pipes, fs);

    std::vector<uint8_t> write_data(65536, 0x17);
    std::vector<Mix> all = mixes(write_data);
    StreamServe ours(pipes, fs);
    NaiveEcho naive(pipes);
    BatchedEcho batched(pipes, false);
    FastPipeServe fast(pipes, fs);
    BatchedEcho two_thread(pipes, true);
    Variant* variants[] = {&ours, &naive, &batched, &fast, &two_thread};
    constexpr int kVariants = sizeof variants / sizeof variants[0];

    for (size_t window : {size_t{1}, size_t{32}}) {
        for (const Mix& mix : all) {
            char row[64];
            utf8_format(row, sizeof row, "%s x%u", mix.name, static_cast<unsigned>(window));
            if (only && !strstr(row, only)) continue;
            size_t n[kVariants];
            double best[kVariants];
            for (int v = 0; v < kVariants; ++v) {
                n[v] = calibrate(*variants[v], mix, window);
                best[v] = 1e300;
            }
            double reads = 0, writes = 0;
            for (int r = 0; r < kRounds; ++r) {
                for (int v = 0; v < kVariants; ++v) {
                    double per = variants[v]->round(mix, window, n[v]) / double(n[v]);
                    if (per < best[v]) {
                        best[v] = per;
                        if (v == 0) {
                            reads = ours.reads_per_message;
                            writes = ours.writes_per_message;
                        }
                    }
                }
            }
            double bytes = double(mix.request.size() + mix.reply_size);
            auto rate = [&](int v) { return 1.0 / best[v]; };
            auto mbs = [&](int v) { return rate(v) * bytes / 1e6; };
            say("stream %s x%u: %s req/s %s MB/s (%s reads, %s writes per request); naive echo "
                "%s req/s, ratio %sx; batched echo %s req/s %s MB/s, ratio %sx; two-thread echo %s "
                "req/s, ratio %sx\r\n",
                mix.name, static_cast<unsigned>(window), decimal(rate(0), 0).c_str(),
                decimal(mbs(0), 1).c_str(), decimal(reads, 2).c_str(), decimal(writes, 2).c_str(),
                decimal(rate(1), 0).c_str(), decimal(rate(0) / rate(1), 2).c_str(),
                decimal(rate(2), 0).c_str(), decimal(mbs(2), 1).c_str(),
                decimal(rate(0) / rate(2), 2).c_str(), decimal(rate(4), 0).c_str(),
                decimal(rate(0) / rate(4), 2).c_str());
            say("fast pipe %s x%u: %s req/s %s MB/s; stream ratio %sx\r\n", mix.name,
                static_cast<unsigned>(window), decimal(rate(3), 0).c_str(),
                decimal(mbs(3), 1).c_str(), decimal(rate(3) / rate(0), 2).c_str());
        }
    }
    if (!only || strstr("cost", only)) fast_pipe_cost(pipes, fs);
    memfs::memfs_destroy(fs);
    return 0;
}
