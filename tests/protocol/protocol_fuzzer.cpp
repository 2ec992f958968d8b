#include "protocol_fuzzer.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <thread>

#include "protocol/fast_pipe.h"
#include "protocol/list_reply.h"
#include "protocol/marshaller_object.h"
#include "protocol/protocol_client.h"
#include "protocol/request_context.h"
#include "protocol/stream_client.h"
#include "protocol/stream_transport.h"
#include "protocol/wire.h"
#include "simulated_device.h"

namespace zun::test {
namespace {

constexpr ULONGLONG kHang = 20000; // ms without progress
constexpr ProtocolError kOk = ProtocolError::Success;

char g_context[256]; // the session, for the failure message
std::atomic<uint64_t> g_progress{0};

[[noreturn]] void fail(const char* format, ...) {
    char what[512];
    va_list args;
    va_start(args, format);
    vsnprintf(what, sizeof what, format, args);
    va_end(args);
    printf("\nFUZZ FAILURE: %s\n  during %s\n", what, g_context);
    fflush(stdout);
    // Threads of the session may still hold its objects: end here rather than unwind.
    TerminateProcess(GetCurrentProcess(), 3);
    for (;;) Sleep(INFINITE);
}
#define CHECK(condition, ...)                                                                      \
    if (!(condition)) fail(__VA_ARGS__)

// Every wait of the fuzzer is unbounded; this fails the run when nothing moves for too long.
struct Watchdog {
    std::atomic<bool> stop{false};
    std::thread thread{[this] {
        uint64_t seen = ~0ull;
        ULONGLONG since = GetTickCount64();
        for (; !stop; Sleep(100)) {
            if (g_progress != seen) seen = g_progress, since = GetTickCount64();
            CHECK(GetTickCount64() - since < kHang, "no progress for %llu ms: a hang", kHang);
        }
    }};
    ~Watchdog() {
        stop = true;
        thread.join();
    }
};

// Accepts everything. One request in eight is completed later, on a pool thread.
class AcceptingFormatter final : public FormatterRequestHandler {
public:
    uint32_t version = 6;
    uint32_t align = 1;  // read and write data must be aligned like their file offsets modulo it
    std::mt19937_64 rng; // used on the serving thread only

    void check_aligned(const void* data, uint64_t offset) {
        CHECK(reinterpret_cast<uintptr_t>(data) % align == offset % align,
              "data at %p for file offset %llx, align %u", data, (unsigned long long)offset, align);
    }

#define ACCEPT(Operation, Request, ...)                                                            \
    void Operation(Request* r, FormatterScratch*) override {                                       \
        finish([this, r] { __VA_ARGS__; });                                                        \
    }
    ACCEPT(Open, OpenRequest, r->Complete(kOk, 1, &kInfo, 5, L"n", nullptr))
    ACCEPT(Replace, ReplaceRequest, r->Complete(kOk, &kInfo, nullptr))
    ACCEPT(Move, MoveRequest, r->Complete(kOk, 0, &kInfo, 5, L"n", nullptr))
    ACCEPT(MoveReplace, MoveReplaceRequest, r->Complete(kOk))
    ACCEPT(Delete, DeleteRequest, r->Complete(kOk))
    ACCEPT(Close, CloseRequest, r->Complete(kOk))
    ACCEPT(ListEnd, CloseRequest, r->Complete(kOk))
    ACCEPT(SetSize, CloseRequest, r->Complete(kOk))
    ACCEPT(Capacity, CapacityRequest, r->Complete(kOk, 1, 1))
    ACCEPT(FlushMedia, FlushMediaRequest, r->Complete(kOk, -1))
    ACCEPT(Access, AccessRequest, r->Complete(kOk, &kInfo, nullptr))
    ACCEPT(MediaInfo, MediaInfoRequest, zun::MediaInfo media{}; r->Complete(kOk, &media, L"l"))
    ACCEPT(List, ListRequest, FileInfo e{}; for (int i = 0; i < 3 && r->AddUtf8(&e, "e"); ++i){};
           r->Complete(kOk, 1))
    ACCEPT(Read, ReadRequest, check_aligned(r->Data(), r->FileOffset());
           size_t n = std::min<size_t>(r->RequestedSize(), 65536); memset(r->Data(), 0x52, n);
           r->Complete(kOk, n))
    ACCEPT(Control, ControlRequest, size_t n = std::min<size_t>(r->MaxOutputSize(), 8);
           memset(r->OutputBuffer(), 0x43, n); r->Complete(kOk, n))
    // The data must be there: touch the first and the last byte.
    ACCEPT(Write, WriteRequest, if (r->RequestedSize()) check_aligned(r->Data(), r->FileOffset());
           auto* data = static_cast<const volatile uint8_t*>(r->Data());
           if (size_t n = r->RequestedSize())(void)(data[0] ^ data[n - 1]);
           r->Complete(kOk, r->RequestedSize()))
    ACCEPT(Flush, FlushRequest, if (version < 6) as_flush_request_v1(r)->Complete(kOk);
           else r->Complete(kOk, &kInfo, nullptr))
#undef ACCEPT

private:
    static constexpr OpenedFileInfo kInfo{1, 2, 3, 0, 0, 0, {1, 0, 0, 0, 0, 9}};

    template <class F> void finish(F complete) {
        if (rng() % 8) return complete();
        auto run = [](PTP_CALLBACK_INSTANCE, void* work) {
            auto* f = static_cast<std::function<void()>*>(work);
            (*f)();
            delete f;
        };
        CHECK(TrySubmitThreadpoolCallback(run, new std::function<void()>(complete), nullptr),
              "no pool thread");
    }
};

struct Message {
    std::vector<uint8_t> bytes;
    uint32_t id = 0, op = 0;
    uint64_t type = 3;    // on the fast pipe: 2 reply through reads, 3 direct result
    size_t output = 0;    // on the fast pipe: the direct result buffer
    bool invalid = false; // invalid by construction: answered with 4
    bool mutated = false; // answered with 0 or 4

    void header(uint32_t request_id, uint32_t operation) {
        store_u32(bytes.data(), static_cast<uint32_t>(bytes.size()));
        store_u32(bytes.data() + 4, request_code_word(id = request_id, op = operation));
    }
};

// Encodes with the protocol client, sizing first.
template <class Encode, class... Fields>
std::vector<uint8_t> encode(Encode encode, uint32_t id, const Fields&... fields) {
    std::vector<uint8_t> bytes(encode(nullptr, 0, id, fields...));
    bytes.resize(encode(bytes.data(), bytes.size(), id, fields...));
    return bytes;
}

struct Generator {
    const bool fast_pipe;
    const uint32_t version, align;
    std::mt19937_64 rng;
    uint32_t last_id = 0;

    uint64_t below(uint64_t n) { return n ? rng() % n : 0; }
    bool chance(int one_in) { return below(one_in) == 0; }
    std::vector<uint8_t> junk(size_t size) {
        std::vector<uint8_t> bytes(size);
        for (auto& b : bytes) b = static_cast<uint8_t>(rng());
        return bytes;
    }
    // A record of random bytes.
    template <class Fields> Fields any() {
        Fields fields;
        memcpy(&fields, junk(sizeof fields).data(), sizeof fields);
        return fields;
    }
    uint32_t next_id() { return last_id = last_id % kRequestIdMask + 1; }
    uint32_t op_but_disconnect(uint32_t count) {
        uint32_t op = static_cast<uint32_t>(below(count - 1));
        return op + (op >= 1);
    }
    uint64_t offset() { return below(4) ? below(1 << 20) : rng(); }
    uint32_t padding() { return static_cast<uint32_t>(below(4) ? below(64) : below(0x8001)); }
    uint32_t data_size() {
        uint64_t pick = below(100);
        return static_cast<uint32_t>(below(pick < 70 ? 512 : pick < 97 ? 16384 : 300000));
    }
    uint64_t transfer_type() {
        return fast_pipe && chance(3) ? kTransferWrite : kTransferWriteDirect;
    }

    Message any() {
        uint64_t pick = below(100);
        Message m = pick >= 60 && pick < 80 ? invalid() : valid(op_but_disconnect(kOperationCount));
        if (pick >= 80 && pick < 95) { // some bytes behind the header changed, perhaps the op
            for (uint64_t i = 1 + below(4); i && m.bytes.size() > 8; --i)
                m.bytes[8 + below(m.bytes.size() - 8)] ^= static_cast<uint8_t>(1 + below(255));
            // Only a write may be longer than the stream's receive buffer: a longer message
            // keeps its operation, lest it become a framing error.
            if (chance(4) && m.bytes.size() <= kMaxStreamRequestSize)
                m.header(m.id, op_but_disconnect(32));
            m.mutated = true;
            m.type = 2;          // whatever the size of its reply, reads take it
        } else if (pick >= 95) { // no reply wanted
            m.header(0, m.op);
            if (m.type == 3 && chance(2)) m.output = below(8);
        }
        return m;
    }

    Message valid(uint32_t op) {
        static const size_t kLargestReply[] = {8, 8, 64, 112, 88, 112, 8,  8,  8,  88,
                                               0, 8, 0,  16,  8,  24,  16, 24, 64, 88};
        Message m{{}, next_id(), op, transfer_type()};
        // Names of random non-NUL bytes: any byte sequence is a name.
        std::string texts[3];
        for (auto& s : texts) {
            s.resize(below(3) ? below(12) : below(300));
            for (char& c : s) c = static_cast<char>(1 + below(255));
        }
        const char* names[] = {texts[0].c_str(), texts[1].c_str(), texts[2].c_str()};
        uint32_t size = op == 17 ? uint32_t(below(4) ? below(64) : below(4096)) : data_size();
        std::vector<uint8_t> data = junk(op == 13 || op == 17 ? size : 0);
        auto move = any<MoveFields>();
        auto move_replace = any<MoveReplaceFields>();
        move.delete_source = move_replace.delete_source = chance(2);
        ListFields list{rng(), rng(), uint32_t(below(10)), uint32_t(16 + below(300000))};
        ReadFields read{rng(), offset(), size, padding()};
        WriteFields write{rng(), offset(), size, padding(), data.data()};
        uint32_t most = uint32_t(below(3) ? below(64) : below(0x47FF1));
        ControlFields control{rng(), int8_t(rng()), uint32_t(rng()), size, most, data.data()};
        m.bytes = [&]() -> std::vector<uint8_t> {
            switch (op) {
            case 3:
                return encode(client::encode_open, m.id, any<OpenFields>(),
                              client::Name{names, below(4)});
            case 4:
                return encode(client::encode_replace, m.id, any<ReplaceFields>(), names[0]);
            case 5:
                return encode(client::encode_move, m.id, move, client::Name{names, 1 + below(3)});
            case 6:
                return encode(client::encode_move_replace, m.id, move_replace, names[0], names[1]);
            case 7:
                return encode(client::encode_delete, m.id, any<DeleteFields>(), names[0]);
            case 10:
                return encode(client::encode_list, m.id, list);
            case 12:
                return encode(client::encode_read, m.id, read);
            case 13:
                return encode(client::encode_write, m.id, write);
            case 17:
                return encode(client::encode_control, m.id, control);
            }
            return {};
        }();
        if (m.bytes.empty()) { // any field values make a valid request of the other operations
            m.bytes = junk(kMinimumRequestSize[op] + 8 * below(2));
            m.header(m.id, op);
        }
        // Read replies need room up to the end of the data's last aligned block.
        size_t reply = op == 10   ? list_reply_limit(list.max_reply_size)
                       : op == 12 ? round_up8(16 + size_t{read.padding} + size + align)
                                  : kLargestReply[op];
        m.output = reply + 8 * below(2);
        // A direct read result is placed by the client's padding: the block holding the first
        // data byte must not start before the client's buffer.
        m.invalid = (op == 12 && fast_pipe && m.type == 3 &&
                     (read.file_offset & (align - 1)) > 16 + read.padding) ||
                    (op == 18 && version < 2) || (op == 19 && version < 6);
        return m;
    }

    // Well framed, and invalid by the rules of its operation: an unknown operation, shorter
    // than its minimum, write data or control input past the message, control output or read
    // data beyond the largest reply.
    Message invalid() {
        static const uint32_t kSized[] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 17, 18, 19};
        Message m{{}, next_id(), 0, transfer_type(), 8 + 8 * below(2), true};
        uint32_t pick = static_cast<uint32_t>(below(6)), op = kSized[below(std::size(kSized))];
        std::vector<uint8_t> data(below(256));
        if (pick == 0) {
            m.bytes = junk(8 + 8 * below(6));
            op = static_cast<uint32_t>(20 + below(2048 - 20));
        } else if (pick == 1) {
            m.bytes = valid(op).bytes;
            m.bytes.resize(round_down8(8 + below(kMinimumRequestSize[op] - 8)));
        } else if (pick == 2) {
            m.bytes = encode(client::encode_write, m.id,
                             WriteFields{1, offset(), uint32_t(data.size()), 0, data.data()});
            store_u32(&m.bytes[24], uint32_t(chance(4) ? kMaxDataSize + 1 + below(1000)
                                                       : m.bytes.size() - 31 + below(4096)));
        } else if (pick == 5) {
            uint32_t pad = padding();
            m.bytes = encode(client::encode_read, m.id,
                             ReadFields{1, offset(), uint32_t(kMaxDataSize - 15 - pad), pad});
        } else {
            m.bytes = encode(client::encode_control, m.id,
                             ControlFields{1, 0, 5, uint32_t(data.size()), 64, data.data()});
            store_u32(&m.bytes[pick == 3 ? 24 : 28],
                      uint32_t(pick == 3 ? m.bytes.size() - 31 + below(1000)
                                         : kMaxControlOutput + 1 + below(1 << 20)));
        }
        m.header(m.id, pick < 2 ? op : code_word_field(load_u32(&m.bytes[4])));
        return m;
    }
};

// The replies a session awaits, by request id.
struct Expectations {
    FuzzReport& report;
    std::map<uint32_t, const Message*> pending;

    void expect(const Message& m) {
        if (m.id) pending[m.id] = &m;
    }
    void take(const uint8_t* reply, size_t length) {
        client::Reply r{};
        CHECK(client::decode_reply(reply, length, &r) && r.size == length,
              "malformed reply of %u bytes", unsigned(length));
        auto it = pending.find(r.request_id);
        CHECK(it != pending.end(), "reply for id %05X, which wants none (or has one)",
              r.request_id);
        const Message& m = *it->second;
        uint32_t code = static_cast<uint32_t>(r.error);
        CHECK(m.mutated ? code == 0 || code == 4 : code == (m.invalid ? 4u : 0u),
              "reply %05X (op %u, %s%s, %u bytes) has code %u", r.request_id, m.op,
              m.invalid ? "invalid" : "valid", m.mutated ? ", mutated" : "",
              unsigned(m.bytes.size()), code);
        report.invalid_answered += m.invalid && !m.mutated;
        ++report.replies;
        ++g_progress;
        pending.erase(it);
    }
};

// A marshaller serving on a thread of its own; on its end, what it may have left behind.
struct Serve {
    long contexts = request_context_live_count(), marshallers = MarshallerObject::live_count();
    long writers = StreamTransport::writer_live_count(), pipes = FastPipe::live_count();
    MarshallerObject* m;
    ServeParams params;
    uint32_t result = ~0u;
    std::thread thread{[this] { result = m->Serve(&params); }};

    Serve(Generator& g, FormatterRequestHandler* fs, HANDLE read, HANDLE write)
        : m(MarshallerObject::create(g.version)), params{8,       fs, 0,    "fuzzfs",
                                                         g.align, 0,  read, write} {}
    uint32_t join() {
        thread.join();
        ++g_progress;
        return result;
    }
    ~Serve() {
        m->Release();
        // A request completed on another thread frees its context just after serving may have
        // ended: wait for the count to come back (the watchdog bounds the wait).
        while (request_context_live_count() != contexts) Sleep(1);
        CHECK(MarshallerObject::live_count() == marshallers, "a marshaller left");
        CHECK(StreamTransport::writer_live_count() == writers, "a writer thread left");
        CHECK(FastPipe::live_count() == pipes, "a fast pipe object left");
    }
};

// How a session ends: 0 disconnect, 1 framing error, 2 garbage.
int pick_ending(Generator& g) {
    uint64_t pick = g.below(10);
    return pick < 6 ? 0 : pick < 8 ? 1 : 2;
}

void check_garbage_ending(uint32_t result) {
    CHECK(result == 0 || result == 11 || result == 109, "garbage ended serving with %u", result);
}

// The stream: batches of messages in one write each, every reply awaited before the next batch.
void stream_session(FormatterRequestHandler* fs, Generator& g, uint64_t count, FuzzReport& report) {
    HANDLE server_read, client_write, client_read, server_write;
    CHECK(CreatePipe(&server_read, &client_write, nullptr, 1 << 16) &&
              CreatePipe(&client_read, &server_write, nullptr, 1 << 16),
          "no pipes");
    Serve serve(g, fs, server_read, server_write);
    client::StreamClient client(client_read, client_write);
    auto send = [&](const std::vector<uint8_t>& bytes) {
        CHECK(client.send(bytes.data(), bytes.size()) == 0, "client write failed");
    };
    const uint8_t* reply;
    size_t length;
    uint32_t error;
    // Noise before the client's line is skipped.
    std::vector<uint8_t> hello(g.below(3) ? 0 : g.below(100), '+');
    hello.insert(hello.end(), kClientReadyLine, kClientReadyLine + kReadyLineLength);
    send(hello);
    CHECK(client.wait_ready(INFINITE) == 0, "no ready line");

    for (uint64_t sent = 0; sent < count;) {
        std::vector<Message> messages(std::min<uint64_t>(1 + g.below(64), count - sent));
        std::vector<uint8_t> bytes;
        Expectations expected{report};
        for (Message& m : messages) {
            m = g.any();
            bytes.insert(bytes.end(), m.bytes.begin(), m.bytes.end());
            expected.expect(m);
        }
        send(bytes);
        while (!expected.pending.empty()) {
            CHECK((error = client.receive(&reply, &length, INFINITE)) == 0, "no reply (%u)", error);
            expected.take(reply, length);
        }
        sent += messages.size();
    }

    int ending = pick_ending(g);
    if (ending == 0) {
        send(g.valid(1).bytes);
        CHECK(serve.join() == 0, "a disconnect did not end serving with 0");
    } else if (ending == 1) {
        // Not a multiple of 8, zero, with the reply bit, longer than any message of its
        // operation; and a request behind it, which is never read.
        uint32_t op = g.chance(2) ? 13 : 15, reply_bit = 0, size = 0;
        uint64_t pick = g.below(4);
        if (pick == 0) size = uint32_t(8 * g.below(100) + 1 + g.below(7));
        if (pick == 2) size = uint32_t(8 + 8 * g.below(10)), reply_bit = kReplyBit;
        if (pick == 3) size = (op == 13 ? kMaxMessageSize : kMaxStreamRequestSize) + 8;
        std::vector<uint8_t> bad(8), after = g.valid(15).bytes;
        store_u32(&bad[0], size);
        store_u32(&bad[4], request_code_word(g.next_id(), op) | reply_bit);
        bad.insert(bad.end(), after.begin(), after.end());
        send(bad);
        CHECK(serve.join() == 11, "a framing error did not end serving with 11");
        ++report.framing_errors;
    } else {
        send(g.junk(1 + g.below(g.chance(4) ? 16384 : 64)));
        CloseHandle(client_write);
        client_write = nullptr;
        check_garbage_ending(serve.join());
        ++report.garbage_sessions;
    }
    // Once serving has ended, what is left must be well-formed replies; none after a framing
    // error.
    CloseHandle(server_write);
    server_write = nullptr;
    int replies = 0;
    while ((error = client.receive(&reply, &length, INFINITE)) == 0) ++replies;
    CHECK(error == 109, "bad reply framing after serving (%u)", error);
    CHECK(ending != 1 || replies == 0, "a request after a framing error was answered");
    for (HANDLE h : {server_read, client_write, client_read})
        if (h) CloseHandle(h);
}

// The fast pipe: each message its own transfer, direct or with its reply fetched by reads.
void fast_pipe_session(FormatterRequestHandler* fs, Generator& g, uint64_t count,
                       FuzzReport& report) {
    SimulatedDevice device;
    HANDLE line_read, line_write;
    CHECK(CreatePipe(&line_read, &line_write, nullptr, 1 << 12), "no pipe");
    Serve serve(g, fs, device.handle(), line_write);
    auto wait = [&](SimTransfer* t) {
        device.wait(t, INFINITE);
        ++g_progress;
        return t;
    };
    CHECK(client::StreamClient(line_read, line_write).wait_ready(INFINITE) == 0, "no ready line");
    wait(device.write({kClientReadyLine, kClientReadyLine + kReadyLineLength}));

    for (uint64_t sent = 0; sent < count;) {
        size_t batch = std::min<uint64_t>(1 + g.below(32), count - sent);
        std::vector<Message> messages(batch);
        std::vector<SimTransfer> transfers(batch);
        Expectations through_reads{report};
        for (size_t i = 0; i < batch; ++i) {
            Message& m = messages[i] = g.any();
            SimTransfer& t = transfers[i];
            t = {m.type, m.bytes, std::vector<uint8_t>(m.type == 3 ? m.output : 0, 0xCC)};
            // Bytes behind the message belong to the transfer but not to the message.
            if (g.chance(8)) t.data.resize(t.data.size() + g.below(16), 0xEE);
            if (m.type == 2) through_reads.expect(m);
            device.submit(&t);
        }
        for (size_t i = 0; i < batch; ++i) {
            SimTransfer& t = *wait(&transfers[i]);
            CHECK(t.error == 0 && t.consumed == t.data.size(),
                  "transfer of op %u ended with %u, %u of %u bytes taken", messages[i].op, t.error,
                  unsigned(t.consumed), unsigned(t.data.size()));
            CHECK((t.placed >= 8) == (t.type == 3 && messages[i].id != 0),
                  "%u bytes placed for a transfer of type %u", unsigned(t.placed),
                  unsigned(t.type));
            Expectations direct{report};
            direct.expect(messages[i]);
            if (t.placed) direct.take(t.output.data(), size_t(t.placed));
        }
        // Each reply over reads of random sizes; one read never carries parts of two.
        while (!through_reads.pending.empty()) {
            std::vector<uint8_t> reply;
            for (size_t size = 0; !size || reply.size() < size;) {
                SimTransfer* t = wait(device.read(1 + g.below(g.chance(2) ? 64 : 8192)));
                CHECK(t->error == 0 && t->consumed == 0 && t->placed > 0,
                      "read transfer ended with %u, %u placed", t->error, unsigned(t->placed));
                std::vector<uint8_t> part = t->result();
                reply.insert(reply.end(), part.begin(), part.end());
                if (!size && reply.size() >= 8) size = load_u32(reply.data());
                CHECK(!size || reply.size() <= size, "a read carried parts of two replies");
            }
            through_reads.take(reply.data(), reply.size());
        }
        sent += batch;
    }

    int ending = pick_ending(g);
    if (ending == 0) {
        Message bye = g.valid(1);
        SimTransfer* t = wait(device.write(bye.bytes, 3, 8));
        CHECK(t->placed == 8 && load_u32(&t->output[4]) == reply_code_word(bye.id, 1),
              "a disconnect was not answered with 1");
        CHECK(serve.join() == 0, "a disconnect did not end serving with 0");
    } else if (ending == 1) {
        // Too small, a size below 8 or beyond the data, a reply, no such transfer type, no
        // room for a reply, or a second read while one is pending.
        std::vector<uint8_t> data = g.valid(15).bytes;
        uint64_t pick = g.below(7), type = 3, output = pick == 5 ? g.below(8) : 64;
        if (pick == 0) data.resize(g.below(8));
        if (pick == 1) store_u32(&data[0], uint32_t(g.below(8)));
        if (pick == 2) store_u32(&data[0], uint32_t(data.size() + 1 + g.below(100)));
        if (pick == 3) data[7] |= 0x80;
        if (pick == 4) type = g.chance(2) ? 0 : 4 + g.below(100);
        SimTransfer* first = pick == 6 ? device.read(64) : nullptr;
        SimTransfer* bad = wait(first ? device.read(64) : device.write(data, type, output));
        CHECK(bad->error == 11 && bad->consumed == 0, "a broken transfer ended with %u",
              bad->error);
        CHECK(serve.join() == 11, "a broken transfer did not end serving with 11");
        CHECK(!first || wait(first)->error == 109, "the pending read was not let go with 109");
        ++report.framing_errors;
    } else {
        for (uint64_t i = 1 + g.below(8); i; --i) {
            std::vector<uint8_t> junk = g.junk(g.below(g.chance(2) ? 16 : 256));
            if (junk.size() >= 8 && g.chance(2)) store_u32(&junk[0], uint32_t(junk.size()));
            device.write(junk, g.below(5), g.below(128));
        }
        device.fail_receives(kDeviceClosedError, 1 << 30); // the client hangs up
        check_garbage_ending(serve.join());
        ++report.garbage_sessions;
    }
    CHECK(device.outstanding() == 0, "a transfer was never completed");
    CHECK(device.bad_completions == 0, "a transfer was completed twice or wrongly");
    CHECK(device.cancels == 1, "the device was cancelled %d times", device.cancels.load());
    CloseHandle(line_read);
    CloseHandle(line_write);
}

} // namespace

FuzzReport fuzz_protocol(const FuzzOptions& options) {
    FuzzReport report;
    AcceptingFormatter formatter;
    Watchdog watchdog;
    std::mt19937_64 master(options.seed);
    static const uint32_t aligns[] = {1, 8, 512, 4096};
    while (report.messages < options.messages) {
        uint64_t seed = master();
        std::mt19937_64 pick(seed);
        bool fast_pipe = pick() % 2 == 0;
        uint32_t version = static_cast<uint32_t>(1 + pick() % 6), align = aligns[pick() % 4];
        uint64_t count = 1 + pick() % 1500;
        snprintf(g_context, sizeof g_context,
                 "seed %llu, session %llu (seed %llu): %s, version %u, align %u",
                 (unsigned long long)options.seed, (unsigned long long)report.sessions,
                 (unsigned long long)seed, fast_pipe ? "fast pipe" : "stream", version, align);
        if (options.verbose) printf("%s, %llu messages\n", g_context, (unsigned long long)count);
        formatter.version = version;
        formatter.align = fast_pipe ? 1 : align; // the fast pipe leaves data where they are
        formatter.rng.seed(pick());
        Generator generator{fast_pipe, version, align, std::mt19937_64(pick())};
        (fast_pipe ? fast_pipe_session : stream_session)(&formatter, generator, count, report);
        (fast_pipe ? report.fast_pipe_messages : report.stream_messages) += count;
        report.messages += count;
        ++report.sessions;
    }
    return report;
}

std::string fuzz_summary(const FuzzReport& r) {
    char line[512];
    snprintf(line, sizeof line,
             "%llu messages (%llu stream, %llu fast pipe) in %llu sessions: %llu replies, %llu "
             "invalid requests answered with 4, %llu framing errors ended with 11, %llu garbage "
             "endings",
             (unsigned long long)r.messages, (unsigned long long)r.stream_messages,
             (unsigned long long)r.fast_pipe_messages, (unsigned long long)r.sessions,
             (unsigned long long)r.replies, (unsigned long long)r.invalid_answered,
             (unsigned long long)r.framing_errors, (unsigned long long)r.garbage_sessions);
    return line;
}

} // namespace zun::test
