#include "protocol_fuzzer.h"

#include <windows.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "base/io.h"
#include "protocol/data_placement.h"
#include "protocol/fast_pipe.h"
#include "protocol/list_reply.h"
#include "protocol/marshaller_object.h"
#include "protocol/protocol_client.h"
#include "protocol/request_context.h"
#include "protocol/stream_transport.h"
#include "protocol/wire.h"
#include "simulated_device.h"

namespace zun::test {

namespace {

constexpr uint32_t kWait = 10000; // ms: anything slower than this is a hang
constexpr int kAnyOf0Or4 = -1;

// ---------------------------------------------------------------------------------------------
// Failing

std::string g_context; // what the fuzzer is doing, for the failure message
std::string g_waiting; // the replies awaited

[[noreturn]] void fail(const std::string& what) {
    fprintf(stdout, "\nFUZZ FAILURE: %s\n  during %s\n  awaiting%s\n", what.c_str(),
            g_context.c_str(), g_waiting.c_str());
    fflush(stdout);
    // Threads of the session may still hold its objects: end here rather than unwind.
    TerminateProcess(GetCurrentProcess(), 3);
    for (;;) Sleep(INFINITE);
}

void check(bool condition, const std::string& what) {
    if (!condition) fail(what);
}

std::string text(const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return line;
}

// ---------------------------------------------------------------------------------------------
// The formatter: accepts everything. Most requests complete at once, some on the worker thread.

class Deferrer {
public:
    Deferrer() : thread_([this] { run(); }) {}
    ~Deferrer() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    void post(std::function<void()> work) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(std::move(work));
        }
        wake_.notify_one();
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [&] { return stop_ || !queue_.empty(); });
            if (queue_.empty()) return;
            auto work = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            work();
            lock.lock();
        }
    }
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> queue_;
    bool stop_ = false;
    std::thread thread_;
};

class AcceptingFormatter final : public FormatterRequestHandler {
public:
    explicit AcceptingFormatter(Deferrer& deferrer) : deferrer_(deferrer) {}
    void reset(uint32_t version, uint64_t seed) {
        version_ = version;
        rng_.seed(seed);
    }

    void Open(OpenRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success, 1, &kInfo, 5, L"n", nullptr); });
    }
    void Replace(ReplaceRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success, &kInfo, nullptr); });
    }
    void Move(MoveRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success, 0, &kInfo, 5, L"n", nullptr); });
    }
    void MoveReplace(MoveReplaceRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success); });
    }
    void Delete(DeleteRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success); });
    }
    void Close(CloseRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success); });
    }
    void Flush(FlushRequest* r, FormatterScratch*) override {
        if (version_ >= 6)
            finish([r] { r->Complete(ProtocolError::Success, &kInfo, nullptr); });
        else
            finish([r] { as_flush_request_v1(r)->Complete(ProtocolError::Success); });
    }
    void List(ListRequest* r, FormatterScratch*) override {
        finish([r] {
            FileInfo entry{};
            for (int i = 0; i < 3 && r->AddUtf8(&entry, "e"); ++i) {
            }
            r->Complete(ProtocolError::Success, 1);
        });
    }
    void ListEnd(CloseRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success); });
    }
    void Read(ReadRequest* r, FormatterScratch*) override {
        finish([r] {
            size_t n = std::min<size_t>(r->RequestedSize(), 65536);
            memset(r->Data(), 0x52, n);
            r->Complete(ProtocolError::Success, n);
        });
    }
    void Write(WriteRequest* r, FormatterScratch*) override {
        finish([r] {
            // Touch the first and the last byte: the data must be there.
            volatile uint8_t sink = 0;
            if (size_t n = r->RequestedSize()) {
                auto* data = static_cast<const uint8_t*>(r->Data());
                sink = data[0] ^ data[n - 1];
            }
            (void)sink;
            r->Complete(ProtocolError::Success, r->RequestedSize());
        });
    }
    void SetSize(CloseRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success); });
    }
    void Capacity(CapacityRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success, 1, 1); });
    }
    void FlushMedia(FlushMediaRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success, -1); });
    }
    void Control(ControlRequest* r, FormatterScratch*) override {
        finish([r] {
            size_t n = std::min<size_t>(r->MaxOutputSize(), 8);
            memset(r->OutputBuffer(), 0x43, n);
            r->Complete(ProtocolError::Success, n);
        });
    }
    void MediaInfo(MediaInfoRequest* r, FormatterScratch*) override {
        finish([r] {
            zun::MediaInfo info{};
            r->Complete(ProtocolError::Success, &info, L"lbl");
        });
    }
    void Access(AccessRequest* r, FormatterScratch*) override {
        finish([r] { r->Complete(ProtocolError::Success, &kInfo, nullptr); });
    }

private:
    static constexpr OpenedFileInfo kInfo{1, 2, 3, 0, 0, 0, {1, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0}};

    template <class F> void finish(F complete) {
        // Called on the serving thread only, so the generator needs no lock.
        if (rng_() % 8 == 0)
            deferrer_.post(complete);
        else
            complete();
    }
    Deferrer& deferrer_;
    uint32_t version_ = 6;
    std::mt19937_64 rng_;
};

// ---------------------------------------------------------------------------------------------
// Messages

struct Message {
    std::vector<uint8_t> bytes;
    uint32_t id = 0;      // 0: no reply
    int expect = 0;       // the reply's code, or kAnyOf0Or4
    bool invalid = false; // invalid by construction
    uint64_t type = 3;    // fast pipe: 2 reply through reads, 3 direct result
    size_t output = 0;    // fast pipe: the direct result buffer
    uint32_t op = 0;
};

// Serving parameters of one session.
struct SessionShape {
    bool fast_pipe;
    uint32_t version;
    uint32_t align;
};

class Generator {
public:
    Generator(uint64_t seed, const SessionShape& shape) : rng_(seed), shape_(shape) {}

    uint64_t below(uint64_t n) { return n ? rng_() % n : 0; }
    bool chance(int one_in) { return below(one_in) == 0; }
    std::mt19937_64& rng() { return rng_; }

    uint32_t next_id() {
        uint32_t id = next_id_++;
        if (next_id_ > kRequestIdMask) next_id_ = 1;
        return id;
    }

    Message any() {
        int pick = static_cast<int>(below(100));
        if (pick < 60) return valid(random_op());
        if (pick < 80) return invalid();
        if (pick < 95) return mutated(valid(random_op()));
        return without_reply(valid(random_op()));
    }

    Message valid(uint32_t op) {
        Message m;
        m.op = op;
        m.id = next_id();
        size_t reply = 8;
        switch (static_cast<Operation>(op)) {
        case Operation::Cancel:
            m.bytes = enc([&](void* o, size_t c) { return client::encode_cancel(o, c, m.id); });
            break;
        case Operation::Version: {
            uint16_t client_version = static_cast<uint16_t>(rng_());
            m.bytes = enc([&](void* o, size_t c) {
                return client::encode_version(o, c, m.id, client_version);
            });
            reply = 64;
            break;
        }
        case Operation::Open: {
            OpenFields f{static_cast<int8_t>(rng_()),
                         static_cast<int8_t>(rng_()),
                         static_cast<uint8_t>(rng_()),
                         int64_t(rng_()),
                         rng_(),
                         rng_()};
            Names names(*this, below(4));
            m.bytes = enc([&](void* o, size_t c) {
                return client::encode_open(o, c, m.id, f, names.name());
            });
            reply = 112;
            break;
        }
        case Operation::Replace: {
            ReplaceFields f{rng_(), rng_(), static_cast<uint8_t>(rng_()), int64_t(rng_()), rng_()};
            Names names(*this, 1);
            m.bytes = enc([&](void* o, size_t c) {
                return client::encode_replace(o, c, m.id, f, names.texts[0].c_str());
            });
            reply = 88;
            break;
        }
        case Operation::Move: {
            MoveFields f{rng_(),          rng_(), chance(2), static_cast<int8_t>(rng_()),
                         int64_t(rng_()), rng_()};
            Names names(*this, 1 + below(3));
            m.bytes = enc([&](void* o, size_t c) {
                return client::encode_move(o, c, m.id, f, names.name());
            });
            reply = 112;
            break;
        }
        case Operation::MoveReplace: {
            MoveReplaceFields f{rng_(), rng_(), rng_(), rng_(), chance(2), int64_t(rng_())};
            Names names(*this, 2);
            m.bytes = enc([&](void* o, size_t c) {
                return client::encode_move_replace(o, c, m.id, f, names.texts[0].c_str(),
                                                   names.texts[1].c_str());
            });
            break;
        }
        case Operation::Delete: {
            DeleteFields f{rng_(), rng_(), int64_t(rng_())};
            Names names(*this, 1);
            m.bytes = enc([&](void* o, size_t c) {
                return client::encode_delete(o, c, m.id, f, names.texts[0].c_str());
            });
            break;
        }
        case Operation::Close:
            m.bytes = enc([&, f = CloseFields{rng_(), rng_()}](void* o, size_t c) {
                return client::encode_close(o, c, m.id, f);
            });
            break;
        case Operation::ListEnd:
            m.bytes = enc([&, f = CloseFields{rng_(), rng_()}](void* o, size_t c) {
                return client::encode_list_end(o, c, m.id, f);
            });
            break;
        case Operation::SetSize:
            m.bytes = enc([&, f = CloseFields{rng_(), rng_()}](void* o, size_t c) {
                return client::encode_set_size(o, c, m.id, f);
            });
            break;
        case Operation::Flush: {
            FlushFields f{rng_(),
                          static_cast<uint8_t>(rng_()),
                          static_cast<uint8_t>(rng_()),
                          static_cast<uint8_t>(rng_()),
                          int64_t(rng_()),
                          int64_t(rng_()),
                          int64_t(rng_()),
                          int64_t(rng_())};
            m.bytes = enc([&](void* o, size_t c) { return client::encode_flush(o, c, m.id, f); });
            reply = 88;
            break;
        }
        case Operation::List: {
            ListFields f{rng_(), rng_(), static_cast<uint32_t>(below(10)),
                         static_cast<uint32_t>(16 + below(300000))};
            m.bytes = enc([&](void* o, size_t c) { return client::encode_list(o, c, m.id, f); });
            reply = list_reply_limit(f.max_reply_size);
            break;
        }
        case Operation::Read: {
            ReadFields f{rng_(), offset(), data_size(),
                         static_cast<uint32_t>(below(4) ? below(64) : below(0x8001))};
            m.bytes = enc([&](void* o, size_t c) { return client::encode_read(o, c, m.id, f); });
            // Room up to the end of the last aligned block, and for the length rounded to 8.
            reply = round_up8(16 + size_t{f.padding} + f.requested_size + shape_.align);
            // A direct result is placed by the client's padding: the block holding the first
            // data byte must not start before its buffer.
            if (shape_.fast_pipe && (f.file_offset & (shape_.align - 1)) > 16 + f.padding) {
                m.expect = 4;
                m.invalid = true;
                m.type = 3;
                m.output = reply;
                return m;
            }
            break;
        }
        case Operation::Write: {
            std::vector<uint8_t> data(data_size());
            for (auto& b : data) b = static_cast<uint8_t>(rng_());
            WriteFields f{rng_(), offset(), static_cast<uint32_t>(data.size()),
                          static_cast<uint32_t>(below(4) ? below(64) : below(0x8001)), data.data()};
            m.bytes = enc([&](void* o, size_t c) { return client::encode_write(o, c, m.id, f); });
            reply = 16;
            break;
        }
        case Operation::Capacity: {
            OpenIdFields f{rng_()};
            const OpenIdFields* fields = chance(2) ? &f : nullptr;
            m.bytes =
                enc([&](void* o, size_t c) { return client::encode_capacity(o, c, m.id, fields); });
            reply = 24;
            break;
        }
        case Operation::FlushMedia:
            m.bytes =
                enc([&](void* o, size_t c) { return client::encode_flush_media(o, c, m.id); });
            reply = 16;
            break;
        case Operation::Control: {
            std::vector<uint8_t> input(below(4) ? below(64) : below(4096));
            ControlFields f{rng_(),
                            static_cast<int8_t>(rng_()),
                            static_cast<uint32_t>(rng_()),
                            static_cast<uint32_t>(input.size()),
                            static_cast<uint32_t>(below(3) ? below(64) : below(0x47FF1)),
                            input.data()};
            m.bytes = enc([&](void* o, size_t c) { return client::encode_control(o, c, m.id, f); });
            reply = 24;
            break;
        }
        case Operation::MediaInfo:
            m.bytes = enc([&, f = OpenIdFields{rng_()}](void* o, size_t c) {
                return client::encode_media_info(o, c, m.id, f);
            });
            reply = 64;
            if (shape_.version < 2) m.expect = 4, m.invalid = true;
            break;
        case Operation::Access:
            m.bytes = enc([&, f = AccessFields{rng_(), static_cast<int8_t>(rng_())}](
                              void* o, size_t c) { return client::encode_access(o, c, m.id, f); });
            reply = 88;
            if (shape_.version < 6) m.expect = 4, m.invalid = true;
            break;
        case Operation::Disconnect:
            m.bytes = enc([&](void* o, size_t c) { return client::encode_disconnect(o, c, m.id); });
            break;
        }
        choose_transfer(m, reply);
        return m;
    }

    // Well framed, and invalid by the rules of its operation: answered with 4.
    Message invalid() {
        Message m;
        m.id = next_id();
        m.expect = 4;
        m.invalid = true;
        switch (below(5)) {
        case 0: { // an operation nobody knows
            m.op = static_cast<uint32_t>(20 + below(2048 - 20));
            m.bytes.resize(8 + 8 * below(6));
            for (size_t i = 8; i < m.bytes.size(); ++i) m.bytes[i] = static_cast<uint8_t>(rng_());
            header(m.bytes, m.id, m.op);
            break;
        }
        case 1: { // shorter than its operation's minimum
            static const uint32_t ops[] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 17, 18, 19};
            m.op = ops[below(std::size(ops))];
            Message full = valid(m.op);
            uint32_t minimum = kMinimumRequestSize[m.op];
            size_t size = round_down8(8 + below(minimum - 8));
            m.bytes.assign(full.bytes.begin(), full.bytes.begin() + size);
            header(m.bytes, m.id, m.op);
            break;
        }
        case 2: { // a read out of bounds
            m.op = 12;
            ReadFields f{1, offset(), static_cast<uint32_t>(rng_()), static_cast<uint32_t>(rng_())};
            if (chance(2)) f.padding = static_cast<uint32_t>(0x8001 + below(0x100000));
            if (f.padding <= kMaxDataPadding && f.requested_size <= kMaxDataSize - 16 - f.padding)
                f.requested_size = kMaxDataSize - 15 - f.padding + static_cast<uint32_t>(below(64));
            m.bytes = enc([&](void* o, size_t c) { return client::encode_read(o, c, m.id, f); });
            break;
        }
        case 3: { // a write whose data would run past its message
            m.op = 13;
            std::vector<uint8_t> data(below(256));
            WriteFields f{1, offset(), static_cast<uint32_t>(data.size()),
                          static_cast<uint32_t>(below(64)), data.data()};
            m.bytes = enc([&](void* o, size_t c) { return client::encode_write(o, c, m.id, f); });
            uint32_t claimed = static_cast<uint32_t>(m.bytes.size() - 32 + 1 + below(4096));
            if (chance(4)) claimed = kMaxDataSize + 1 + static_cast<uint32_t>(below(1000));
            store_u32(m.bytes.data() + 24, claimed);
            break;
        }
        default: { // control input past the message, or output beyond the largest reply
            m.op = 17;
            std::vector<uint8_t> input(below(128));
            ControlFields f{1, 0, 5, static_cast<uint32_t>(input.size()), 64, input.data()};
            m.bytes = enc([&](void* o, size_t c) { return client::encode_control(o, c, m.id, f); });
            if (chance(2))
                store_u32(m.bytes.data() + 24,
                          static_cast<uint32_t>(m.bytes.size() - 32 + 1 + below(1000)));
            else
                store_u32(m.bytes.data() + 28,
                          kMaxControlOutput + 1 + static_cast<uint32_t>(below(1 << 20)));
            break;
        }
        }
        choose_transfer(m, 8);
        return m;
    }

    // A valid message with some bytes changed behind its header (and sometimes its operation):
    // it may decode or not, but it is answered, with 0 or 4.
    Message mutated(Message m) {
        int flips = 1 + static_cast<int>(below(4));
        for (int i = 0; i < flips && m.bytes.size() > 8; ++i)
            m.bytes[8 + below(m.bytes.size() - 8)] ^= static_cast<uint8_t>(1 + below(255));
        // Only a write may be longer than the stream's receive buffer: a longer message keeps its
        // operation, lest it become a framing error.
        if (chance(4) && m.bytes.size() <= kMaxStreamRequestSize) {
            uint32_t op;
            do op = static_cast<uint32_t>(below(32));
            while (op == 1);
            m.op = op;
            header(m.bytes, m.id, op);
        }
        m.expect = kAnyOf0Or4;
        m.invalid = false;
        m.type = 2; // whatever its reply's size, reads take it
        return m;
    }

    Message without_reply(Message m) {
        m.id = 0;
        header(m.bytes, 0, m.op);
        m.expect = kAnyOf0Or4;
        if (m.type == 3 && chance(2)) m.output = below(8); // no reply, so no room needed
        return m;
    }

    static void header(std::vector<uint8_t>& bytes, uint32_t id, uint32_t op) {
        store_u32(bytes.data(), static_cast<uint32_t>(bytes.size()));
        store_u32(bytes.data() + 4, request_code_word(id, op));
    }

private:
    // Names of random non-NUL bytes: any byte sequence is a name (invalid UTF-8 decodes to
    // invalid code points).
    struct Names {
        Names(Generator& g, uint64_t count) {
            for (uint64_t i = 0; i < count; ++i) {
                std::string s(g.below(3) ? g.below(12) : g.below(300), 'x');
                for (char& c : s) c = static_cast<char>(1 + g.below(255));
                texts.push_back(s);
            }
            for (const auto& s : texts) pointers.push_back(s.c_str());
        }
        client::Name name() const { return client::Name{pointers.data(), pointers.size()}; }
        std::vector<std::string> texts;
        std::vector<const char*> pointers;
    };

    template <class Encode> static std::vector<uint8_t> enc(Encode encode) {
        std::vector<uint8_t> out(encode(nullptr, 0));
        out.resize(encode(out.data(), out.size()));
        return out;
    }

    uint32_t random_op() {
        uint32_t op;
        do op = static_cast<uint32_t>(below(kOperationCount));
        while (op == 1);
        return op;
    }
    uint64_t offset() { return below(4) ? below(1 << 20) : rng_(); }
    uint32_t data_size() {
        int pick = static_cast<int>(below(100));
        if (pick < 70) return static_cast<uint32_t>(below(512));
        if (pick < 97) return static_cast<uint32_t>(below(16384));
        return static_cast<uint32_t>(below(300000));
    }

    // On the fast pipe: the reply in the write's own transfer (with room for the largest reply
    // the message can get), or through reads.
    void choose_transfer(Message& m, size_t largest_reply) {
        m.type = shape_.fast_pipe && chance(3) ? 2 : 3;
        m.output = largest_reply + 8 * below(2);
    }

    std::mt19937_64 rng_;
    SessionShape shape_;
    uint32_t next_id_ = 1;
};

// ---------------------------------------------------------------------------------------------
// Replies

struct Expectations {
    std::map<uint32_t, const Message*> pending; // by id

    void expect(const Message& m) {
        if (m.id) pending[m.id] = &m;
    }
    // Checks one reply against what was sent; returns false for an invalid request answered.
    void take(const uint8_t* reply, size_t length, FuzzReport& report) {
        client::Reply r{};
        check(client::decode_reply(reply, length, &r) && r.size == length,
              text("malformed reply of %u bytes", static_cast<unsigned>(length)));
        auto it = pending.find(r.request_id);
        check(it != pending.end(),
              text("reply for id %05X, which wants none (or has one)", r.request_id));
        const Message& m = *it->second;
        uint32_t code = static_cast<uint32_t>(r.error);
        if (m.expect == kAnyOf0Or4)
            check(code == 0 || code == 4,
                  text("reply %05X (op %u) has code %u, not 0 or 4", r.request_id, m.op, code));
        else
            check(code == static_cast<uint32_t>(m.expect),
                  text("reply %05X (op %u, %s, %u bytes) has code %u, not %d", r.request_id, m.op,
                       m.invalid ? "invalid" : "valid", static_cast<unsigned>(m.bytes.size()), code,
                       m.expect));
        if (m.invalid) ++report.invalid_answered;
        ++report.replies;
        pending.erase(it);
    }
};

// ---------------------------------------------------------------------------------------------
// Sessions

struct Leftovers {
    long contexts = request_context_live_count();
    long marshallers = MarshallerObject::live_count();
    long writers = StreamTransport::writer_live_count();
    long pipes = FastPipe::live_count();
    void check_none() {
        // A request completed on another thread frees its context just after serving may have
        // ended: wait, boundedly, for the counts to come back.
        ULONGLONG deadline = GetTickCount64() + kWait;
        while (request_context_live_count() != contexts && GetTickCount64() < deadline) Sleep(1);
        check(request_context_live_count() == contexts,
              text("%ld request contexts left", request_context_live_count() - contexts));
        check(MarshallerObject::live_count() == marshallers, "a marshaller left");
        check(StreamTransport::writer_live_count() == writers, "a writer thread left");
        check(FastPipe::live_count() == pipes, "a fast pipe object left");
    }
};

// A serve on a thread of its own, waited for with a bound.
class ServeThread {
public:
    ServeThread(MarshallerObject* m, const ServeParams& params) : m_(m), params_(params) {
        thread_ = CreateThread(nullptr, 0, main, this, 0, nullptr);
        check(thread_ != nullptr, "no serve thread");
    }
    ~ServeThread() { CloseHandle(thread_); }
    uint32_t join() {
        check(WaitForSingleObject(thread_, kWait) == WAIT_OBJECT_0, "serving did not end");
        return result_;
    }

private:
    static DWORD WINAPI main(void* self) {
        auto* s = static_cast<ServeThread*>(self);
        s->result_ = s->m_->Serve(&s->params_);
        return 0;
    }
    MarshallerObject* m_;
    ServeParams params_;
    HANDLE thread_;
    uint32_t result_ = 0xFFFFFFFF;
};

enum class Ending { Disconnect, FramingError, Garbage };

Ending pick_ending(Generator& g) {
    int pick = static_cast<int>(g.below(10));
    return pick < 6 ? Ending::Disconnect : pick < 8 ? Ending::FramingError : Ending::Garbage;
}

// The stream: messages in batches of one write each; every reply awaited before the next batch.
class StreamSession {
public:
    StreamSession(AcceptingFormatter& fs, const SessionShape& shape, FuzzReport& report)
        : report_(report) {
        check(CreatePipe(&server_read_, &client_write_, nullptr, 1 << 16) &&
                  CreatePipe(&client_read_, &server_write_, nullptr, 1 << 16),
              "no pipes");
        m_ = MarshallerObject::create(shape.version);
        if (getenv("ZUN_FUZZ_TRACE")) m_->SetStatusHandle(GetStdHandle(STD_OUTPUT_HANDLE));
        ServeParams params{8, &fs, 0, "fuzzfs", shape.align, 0, server_read_, server_write_};
        serve_ = std::make_unique<ServeThread>(m_, params);
    }
    ~StreamSession() {
        serve_.reset();
        m_->Release();
        for (HANDLE h : {server_read_, client_write_, client_read_, server_write_})
            if (h) CloseHandle(h);
    }

    void run(Generator& g, uint64_t count) {
        // Noise before the client's line is skipped.
        std::vector<uint8_t> noise(g.below(3) ? 0 : g.below(100));
        for (auto& b : noise) b = static_cast<uint8_t>('+' + g.below(3));
        noise.insert(noise.end(), kClientReadyLine, kClientReadyLine + kReadyLineLength);
        send(noise);
        receive_exact(kReadyLineLength);
        check(memcmp(inbox_.data(), kServerReadyLine, kReadyLineLength) == 0, "no ready line");
        inbox_.erase(inbox_.begin(), inbox_.begin() + kReadyLineLength);

        uint64_t sent = 0;
        while (sent < count) {
            size_t batch = static_cast<size_t>(std::min<uint64_t>(1 + g.below(64), count - sent));
            std::vector<Message> messages;
            std::vector<uint8_t> bytes;
            for (size_t i = 0; i < batch; ++i) messages.push_back(g.any());
            Expectations expected;
            for (const Message& m : messages) {
                check(m.bytes.size() >= 8 && load_u32(m.bytes.data()) == m.bytes.size(),
                      text("generated op %u: %u bytes, size word %u", m.op,
                           unsigned(m.bytes.size()), load_u32(m.bytes.data())));
                bytes.insert(bytes.end(), m.bytes.begin(), m.bytes.end());
                expected.expect(m);
            }
            send(bytes);
            while (!expected.pending.empty()) take_reply(expected);
            sent += batch;
        }
        report_.messages += sent;
        report_.stream_messages += sent;
        end(g);
    }

private:
    void end(Generator& g) {
        switch (pick_ending(g)) {
        case Ending::Disconnect: {
            send(g.valid(1).bytes);
            check(serve_->join() == 0, "a disconnect did not end serving with 0");
            break;
        }
        case Ending::FramingError: {
            std::vector<uint8_t> bad(8);
            uint32_t op = static_cast<uint32_t>(g.below(20));
            uint32_t size;
            switch (g.below(4)) {
            case 0:
                size =
                    8 * static_cast<uint32_t>(g.below(100)) + 1 + static_cast<uint32_t>(g.below(7));
                break;
            case 1:
                size = 0;
                break;
            case 2:
                size = 8 * (1 + static_cast<uint32_t>(g.below(10)));
                op |= 0x800; // the reply bit
                break;
            default:
                op = g.chance(2) ? 13 : 15;
                size = (op == 13 ? kMaxMessageSize : kMaxStreamRequestSize) + 8;
                break;
            }
            store_u32(bad.data(), size);
            store_u32(bad.data() + 4,
                      request_code_word(g.next_id(), op & 0x7FF) | ((op & 0x800) ? kReplyBit : 0));
            // Nothing after a framing error is read: this request gets no reply.
            Message after = g.valid(15);
            bad.insert(bad.end(), after.bytes.begin(), after.bytes.end());
            send(bad);
            check(serve_->join() == 11, "a framing error did not end serving with 11");
            check(drain_replies() == 0, "a request after a framing error was answered");
            ++report_.framing_errors;
            break;
        }
        case Ending::Garbage: {
            std::vector<uint8_t> garbage(1 + g.below(g.chance(4) ? 16384 : 64));
            for (auto& b : garbage) b = static_cast<uint8_t>(g.rng()());
            send(garbage);
            CloseHandle(client_write_);
            client_write_ = nullptr;
            uint32_t result = serve_->join();
            check(result == 0 || result == 11 || result == 109,
                  text("garbage ended serving with %u", result));
            drain_replies();
            ++report_.garbage_sessions;
            break;
        }
        }
    }

    void send(const std::vector<uint8_t>& bytes) {
        size_t count = 0;
        check(io_write_ex(client_write_, &write_kind_, nullptr, kWait, bytes.data(), bytes.size(),
                          &count) == 0 &&
                  count == bytes.size(),
              "client write failed");
    }

    // Reads until the inbox holds `length` bytes.
    void receive_exact(size_t length) {
        while (inbox_.size() < length) {
            uint8_t buffer[65536];
            size_t count = 0;
            uint32_t error = io_read_ex(client_read_, &read_kind_, nullptr, kWait, buffer,
                                        sizeof buffer, &count);
            check(error == 0 && count, text("no reply came (read error %u)", error));
            inbox_.insert(inbox_.end(), buffer, buffer + count);
        }
    }

    void take_reply(Expectations& expected) {
        if (inbox_.size() < 8) {
            std::string waiting;
            for (auto& [id, m] : expected.pending)
                waiting += text(" %05X:op%u/%u%s", id, m->op, unsigned(m->bytes.size()),
                                m->invalid      ? "/invalid"
                                : m->expect < 0 ? "/mutated"
                                                : "");
            g_waiting = waiting;
        }
        receive_exact(8);
        uint32_t size = load_u32(inbox_.data());
        check(size >= 8 && size % 8 == 0 && code_word_is_reply(load_u32(inbox_.data() + 4)),
              "bad reply framing");
        receive_exact(size);
        expected.take(inbox_.data(), size, report_);
        inbox_.erase(inbox_.begin(), inbox_.begin() + size);
    }

    // After serving: whatever replies are left must be well formed. Returns how many there were.
    int drain_replies() {
        int replies = 0;
        DWORD available = 0;
        while (PeekNamedPipe(client_read_, nullptr, 0, nullptr, &available, nullptr) && available) {
            std::vector<uint8_t> buffer(available);
            DWORD got = 0;
            ReadFile(client_read_, buffer.data(), available, &got, nullptr);
            inbox_.insert(inbox_.end(), buffer.begin(), buffer.begin() + got);
        }
        while (inbox_.size() >= 8) {
            uint32_t size = load_u32(inbox_.data());
            check(size >= 8 && size % 8 == 0 && size <= inbox_.size() &&
                      code_word_is_reply(load_u32(inbox_.data() + 4)),
                  "bad reply framing after serving");
            inbox_.erase(inbox_.begin(), inbox_.begin() + size);
            ++replies;
        }
        check(inbox_.empty(), "a reply cut short");
        return replies;
    }

    FuzzReport& report_;
    HANDLE server_read_ = nullptr, client_write_ = nullptr;
    HANDLE client_read_ = nullptr, server_write_ = nullptr;
    uint8_t read_kind_ = 0, write_kind_ = 0;
    MarshallerObject* m_;
    std::unique_ptr<ServeThread> serve_;
    std::vector<uint8_t> inbox_;
};

// The fast pipe: each message its own transfer, direct or with its reply fetched by reads.
class FastPipeSession {
public:
    FastPipeSession(AcceptingFormatter& fs, const SessionShape& shape, FuzzReport& report)
        : report_(report) {
        check(CreatePipe(&line_read_, &line_write_, nullptr, 1 << 12), "no pipe");
        m_ = MarshallerObject::create(shape.version);
        ServeParams params{8, &fs, 0, "fuzzfs", shape.align, 0, device_.handle(), line_write_};
        serve_ = std::make_unique<ServeThread>(m_, params);
    }
    ~FastPipeSession() {
        serve_.reset();
        m_->Release();
        CloseHandle(line_read_);
        CloseHandle(line_write_);
    }

    void run(Generator& g, uint64_t count) {
        char line[kReadyLineLength];
        DWORD got = 0;
        check(ReadFile(line_read_, line, sizeof line, &got, nullptr) && got == sizeof line &&
                  memcmp(line, kServerReadyLine, kReadyLineLength) == 0,
              "no ready line");
        // Before the client's line every write is taken and dropped.
        for (uint64_t i = g.below(3); i; --i) {
            std::vector<uint8_t> junk(g.chance(2) ? kReadyLineLength : g.below(64));
            for (auto& b : junk) b = static_cast<uint8_t>(g.rng()());
            SimTransfer* t = device_.write(junk, 2 + g.below(2), g.below(64));
            wait(t);
            check(t->error == 0 && t->consumed == junk.size() && t->placed == 0,
                  "a write before the ready line was not simply taken");
        }
        SimTransfer* ready = device_.write(
            std::vector<uint8_t>(kClientReadyLine, kClientReadyLine + kReadyLineLength));
        wait(ready);

        uint64_t sent = 0;
        while (sent < count) {
            size_t batch = static_cast<size_t>(std::min<uint64_t>(1 + g.below(32), count - sent));
            std::vector<Message> messages;
            for (size_t i = 0; i < batch; ++i) messages.push_back(g.any());
            std::vector<SimTransfer> transfers(batch);
            Expectations through_reads;
            for (size_t i = 0; i < batch; ++i) {
                const Message& m = messages[i];
                SimTransfer& t = transfers[i];
                t.type = m.type;
                t.data = m.bytes;
                // Bytes behind the message belong to the transfer but not to the message.
                if (g.chance(8)) t.data.resize(t.data.size() + g.below(16), 0xEE);
                if (m.type == 3) t.output.assign(m.output, 0xCC);
                if (m.type == 2) through_reads.expect(m);
                device_.submit(&t);
            }
            for (size_t i = 0; i < batch; ++i) {
                SimTransfer& t = transfers[i];
                wait(&t);
                check(t.error == 0 && t.consumed == t.data.size(),
                      text("transfer of op %u ended with %u, %llu of %u bytes taken",
                           messages[i].op, t.error, (unsigned long long)t.consumed,
                           (unsigned)t.data.size()));
                if (t.type == 2 || !messages[i].id) {
                    check(t.placed == 0, "a reply placed where none was due");
                    continue;
                }
                Expectations one;
                one.expect(messages[i]);
                check(t.placed >= 8, "no direct reply placed");
                one.take(t.output.data(), static_cast<size_t>(t.placed), report_);
            }
            while (!through_reads.pending.empty()) read_reply(g, through_reads);
            sent += batch;
        }
        report_.messages += sent;
        report_.fast_pipe_messages += sent;
        end(g);
        check(device_.outstanding() == 0, "a transfer was never completed");
        check(device_.bad_completions() == 0, "a transfer was completed twice or wrongly");
        check(device_.cancels() == 1, text("the device was cancelled %d times", device_.cancels()));
    }

private:
    void wait(SimTransfer* t) { check(device_.wait(t, kWait), "a transfer was not completed"); }

    // One reply, over as many reads as its size takes with reads of random sizes.
    void read_reply(Generator& g, Expectations& expected) {
        std::vector<uint8_t> reply;
        size_t size = 0;
        do {
            SimTransfer* t = device_.read(1 + g.below(g.chance(2) ? 64 : 8192));
            wait(t);
            check(t->error == 0 && t->consumed == 0 && t->placed > 0,
                  text("read transfer ended with %u, %llu placed", t->error,
                       (unsigned long long)t->placed));
            std::vector<uint8_t> part = t->result();
            reply.insert(reply.end(), part.begin(), part.end());
            if (!size && reply.size() >= 8) size = load_u32(reply.data());
            check(!size || reply.size() <= size, "a read carried parts of two replies");
        } while (!size || reply.size() < size);
        expected.take(reply.data(), reply.size(), report_);
    }

    void end(Generator& g) {
        switch (pick_ending(g)) {
        case Ending::Disconnect: {
            SimTransfer* t = device_.write(g.valid(1).bytes, 3, 8);
            wait(t);
            check(hex_code(t) == 1, "a disconnect was not answered with 1");
            check(serve_->join() == 0, "a disconnect did not end serving with 0");
            break;
        }
        case Ending::FramingError: {
            Message capacity = g.valid(15);
            std::vector<uint8_t> data = capacity.bytes;
            uint64_t type = 3;
            size_t output = 64;
            bool second_read = false;
            switch (g.below(7)) {
            case 0:
                data.resize(g.below(8));
                break; // too small
            case 1:
                store_u32(data.data(), static_cast<uint32_t>(g.below(8)));
                break;
            case 2:
                store_u32(data.data(), static_cast<uint32_t>(data.size() + 1 + g.below(100)));
                break;
            case 3:
                data[7] |= 0x80;
                break; // a reply
            case 4:
                type = g.chance(2) ? 0 : 4 + g.below(100);
                break; // no such transfer
            case 5:
                output = g.below(8);
                break; // no room for a reply
            default:
                second_read = true;
                break; // two reads at once
            }
            SimTransfer* first_read = nullptr;
            SimTransfer* bad;
            if (second_read) {
                first_read = device_.read(64);
                bad = device_.read(64);
            } else {
                bad = device_.write(data, type, output);
            }
            wait(bad);
            check(bad->error == 11 && bad->consumed == 0,
                  text("a broken transfer ended with %u", bad->error));
            check(serve_->join() == 11, "a broken transfer did not end serving with 11");
            if (first_read) {
                wait(first_read);
                check(first_read->error == 109, "the pending read was not let go with 109");
            }
            ++report_.framing_errors;
            break;
        }
        case Ending::Garbage: {
            for (uint64_t i = 1 + g.below(8); i; --i) {
                std::vector<uint8_t> junk(g.below(g.chance(2) ? 16 : 256));
                for (auto& b : junk) b = static_cast<uint8_t>(g.rng()());
                if (junk.size() >= 8 && g.chance(2))
                    store_u32(junk.data(), static_cast<uint32_t>(junk.size()));
                device_.write(junk, g.below(5), g.below(128));
            }
            device_.hang_up();
            uint32_t result = serve_->join();
            check(result == 0 || result == 11 || result == 109,
                  text("garbage ended serving with %u", result));
            ++report_.garbage_sessions;
            break;
        }
        }
    }

    static uint32_t hex_code(const SimTransfer* t) {
        client::Reply r{};
        std::vector<uint8_t> reply = t->result();
        if (!client::decode_reply(reply.data(), reply.size(), &r)) return 0xFFFF;
        return static_cast<uint32_t>(r.error);
    }

    FuzzReport& report_;
    SimulatedDevice device_;
    HANDLE line_read_ = nullptr, line_write_ = nullptr;
    MarshallerObject* m_;
    std::unique_ptr<ServeThread> serve_;
};

} // namespace

FuzzReport fuzz_protocol(const FuzzOptions& options) {
    FuzzReport report;
    Deferrer deferrer;
    AcceptingFormatter formatter(deferrer);
    std::mt19937_64 master(options.seed);
    static const uint32_t aligns[] = {1, 8, 512, 4096};
    while (report.messages < options.messages) {
        uint64_t session_seed = master();
        std::mt19937_64 pick(session_seed);
        SessionShape shape{pick() % 2 == 0, static_cast<uint32_t>(1 + pick() % 6),
                           aligns[pick() % 4]};
        uint64_t count = 1 + pick() % 1500;
        g_context = text("seed %llu, session %llu (seed %llu): %s, version %u, align %u",
                         (unsigned long long)options.seed, (unsigned long long)report.sessions,
                         (unsigned long long)session_seed, shape.fast_pipe ? "fast pipe" : "stream",
                         shape.version, shape.align);
        if (options.verbose)
            printf("%s, %llu messages\n", g_context.c_str(), (unsigned long long)count);
        formatter.reset(shape.version, pick());
        Generator generator(pick(), shape);
        Leftovers leftovers;
        if (shape.fast_pipe) {
            FastPipeSession session(formatter, shape, report);
            session.run(generator, count);
        } else {
            StreamSession session(formatter, shape, report);
            session.run(generator, count);
        }
        leftovers.check_none();
        ++report.sessions;
    }
    g_context.clear();
    return report;
}

std::string fuzz_summary(const FuzzReport& r) {
    return text("%llu messages (%llu stream, %llu fast pipe) in %llu sessions: %llu replies, %llu "
                "invalid requests answered with 4, %llu framing errors ended with 11, %llu garbage "
                "endings",
                (unsigned long long)r.messages, (unsigned long long)r.stream_messages,
                (unsigned long long)r.fast_pipe_messages, (unsigned long long)r.sessions,
                (unsigned long long)r.replies, (unsigned long long)r.invalid_answered,
                (unsigned long long)r.framing_errors, (unsigned long long)r.garbage_sessions);
}

} // namespace zun::test
