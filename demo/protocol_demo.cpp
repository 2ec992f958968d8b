// The file-system protocol at work: the sample in-memory formatter served by a marshaller over a
// pipe pair, a client playing the driver's part, and the marshaller's protocol trace on the
// console.
#include "protocol_demo.h"

#include <stdarg.h>
#include <string.h>

#include <windows.h>

#include "base/format.h"
#include "base/thread.h"
#include "memfs.h"
#include "protocol/marshaller_object.h"
#include "protocol/protocol_client.h"
#include "protocol/stream_client.h"

using namespace zun;

namespace {

HANDLE g_out;

void say(const char* format, ...) {
    char line[300];
    va_list args;
    va_start(args, format);
    size_t n = utf8_vformat(line, sizeof line, format, args);
    va_end(args);
    if (n >= sizeof line) n = sizeof line - 1;
    DWORD written;
    WriteFile(g_out, line, static_cast<DWORD>(n), &written, nullptr);
}

struct Serving {
    MarshallerObject* marshaller;
    ServeParams params;
    uint32_t result;
    Pin done;
};

void serve_thread(void* argument) {
    auto* s = static_cast<Serving*>(argument);
    s->result = s->marshaller->Serve(&s->params);
    pin_signal(&s->done);
}

class Client {
public:
    Client(HANDLE read, HANDLE write) : stream_(read, write) {}
    client::StreamClient& stream() { return stream_; }

    // Sends a request and returns its reply (null when none came).
    const uint8_t* call(const char* title, const uint8_t* request, size_t length,
                        size_t* reply_length = nullptr) {
        say("\n>>> %s\n", title);
        size_t got = 0;
        const uint8_t* reply = nullptr;
        if (stream_.send(request, length) == 0) stream_.receive(&reply, &got, 5000);
        if (reply_length) *reply_length = got;
        return reply;
    }

private:
    client::StreamClient stream_;
};

} // namespace

int protocol_demo() {
    g_out = GetStdHandle(STD_OUTPUT_HANDLE);
    say("\nThe file-system protocol: a client talks to the sample in-memory formatter through a\n"
        "marshaller over a pipe pair. Every request and completion is traced as it happens.\n");

    HANDLE server_read, client_write, client_read, server_write;
    if (!CreatePipe(&server_read, &client_write, nullptr, 1 << 16) ||
        !CreatePipe(&client_read, &server_write, nullptr, 1 << 16))
        return 1;

    FormatterRequestHandler* fs = memfs::memfs_create(6, 16 << 20);
    Serving serving{};
    serving.marshaller = MarshallerObject::create(6);
    if (!fs || !serving.marshaller) return 1;
    serving.marshaller->SetStatusHandle(g_out); // turns the trace on
    serving.params = ServeParams{8, fs, 0, "memfs", 512, 0x1000000, server_read, server_write};
    if (!thread_start(serve_thread, &serving)) return 1;

    Client c(client_read, client_write);
    if (c.stream().connect(5000) != 0) {
        say("no ready line from the server\n");
        return 1;
    }
    uint8_t request[256];
    size_t n;

    n = client::encode_version(request, sizeof request, 1, 6);
    c.call("version", request, n);

    const char* name[] = {"notes.txt"};
    OpenFields open{};
    open.create_file_type = memfs::kFileType;
    open.new_create_open_id = open.new_existing_open_id = 42;
    n = client::encode_open(request, sizeof request, 2, open, client::Name{name, 1});
    const uint8_t* reply = c.call("open /notes.txt, creating it", request, n, &n);
    client::OpenReply opened{};
    client::decode_open_reply(reply, n, &opened);
    uint64_t sequence = opened.info.open_sequence;

    const char text[] = "Mounted files, served from memory.\n";
    n = client::encode_write(
        request, sizeof request, 3,
        WriteFields{42, 0, sizeof text - 1, 0, reinterpret_cast<const uint8_t*>(text)});
    c.call("write 35 bytes at offset 0", request, n);

    n = client::encode_read(request, sizeof request, 4, ReadFields{42, 0, 64, 0});
    reply = c.call("read up to 64 bytes at offset 0", request, n, &n);
    client::ReadReply read{};
    if (client::decode_read_reply(reply, n, &read))
        say("    (the client got %u bytes: \"%.*hs\")\n", read.actual_size,
            static_cast<int>(read.actual_size) - 1, reinterpret_cast<const char*>(read.data));

    open = OpenFields{};
    open.new_existing_open_id = 1;
    n = client::encode_open(request, sizeof request, 5, open, client::Name{nullptr, 0});
    c.call("open the root folder", request, n);
    n = client::encode_list(request, sizeof request, 6, ListFields{1, 1, 100, 4096});
    c.call("list the root folder", request, n);

    n = client::encode_close(request, sizeof request, 7, CloseFields{42, sequence});
    c.call("close /notes.txt", request, n);

    say("\n>>> disconnect\n");
    n = client::encode_disconnect(request, sizeof request, 8);
    c.stream().send(request, n);
    for (int waited = 0; !pin_is_signalled(&serving.done) && waited < 10; ++waited)
        pin_wait(&serving.done, nullptr, 1000);
    if (!pin_is_signalled(&serving.done)) {
        say("The serve did not end.\n");
        return 1;
    }
    say("\nServe returned %u after the disconnect.\n", serving.result);

    serving.marshaller->Release();
    memfs::memfs_destroy(fs);
    CloseHandle(server_read);
    CloseHandle(server_write);
    CloseHandle(client_read);
    CloseHandle(client_write);
    return serving.result == 0 ? 0 : 1;
}
