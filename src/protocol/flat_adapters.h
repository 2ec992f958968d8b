// Adapters that serve a flat formatter through Serve.
//
// A flat formatter answers every file operation with one synchronous call: plain arguments in,
// out-parameters and a ProtocolError back. Each adapter implements FormatterRequestHandler on
// top of one: it reads the request's fields, makes the call, completes the request with the
// answers and hands strings the formatter returned back to it. The adapter lives on the stack
// of ServeOps or ServeOpsV0 for the duration of the serve.
//
// Out-parameters start empty: records zeroed, strings null, counts 0. The flush request always
// arrives as a FlushRequest (the marshaller's effective flush version is raised for the serve);
// the adapter calls the flat flush of its interface.
#pragma once

#include <zun/flat_formatter.h>
#include <zun/requests.h>

namespace zun {

// The read-write adapter, over the flat interface of versions 1 to 5 (FlatFormatterV5: move
// without access level, flush with six arguments and a header-only reply) or of version 6
// (FlatFormatter).
template <class Flat> class FlatAdapterOf final : public FormatterRequestHandler {
public:
    explicit FlatAdapterOf(Flat* formatter) : flat_(formatter) {}

    void Open(OpenRequest* request, FormatterScratch* scratch) override;
    void Replace(ReplaceRequest* request, FormatterScratch* scratch) override;
    void Move(MoveRequest* request, FormatterScratch* scratch) override;
    void MoveReplace(MoveReplaceRequest* request, FormatterScratch* scratch) override;
    void Delete(DeleteRequest* request, FormatterScratch* scratch) override;
    void Close(CloseRequest* request, FormatterScratch* scratch) override;
    void Flush(FlushRequest* request, FormatterScratch* scratch) override;
    void List(ListRequest* request, FormatterScratch* scratch) override;
    void ListEnd(CloseRequest* request, FormatterScratch* scratch) override;
    void Read(ReadRequest* request, FormatterScratch* scratch) override;
    void Write(WriteRequest* request, FormatterScratch* scratch) override;
    void SetSize(CloseRequest* request, FormatterScratch* scratch) override;
    void Capacity(CapacityRequest* request, FormatterScratch* scratch) override;
    void FlushMedia(FlushMediaRequest* request, FormatterScratch* scratch) override;
    void Control(ControlRequest* request, FormatterScratch* scratch) override;
    void MediaInfo(MediaInfoRequest* request, FormatterScratch* scratch) override;
    void Access(AccessRequest* request, FormatterScratch* scratch) override;

private:
    Flat* flat_;
};

using FlatAdapterV5 = FlatAdapterOf<FlatFormatterV5>;
using FlatAdapter = FlatAdapterOf<FlatFormatter>;

// The read-only adapter. Requests that would change the volume (replace, move, movereplace,
// delete, write, setsize, and a flush that would set anything) are refused with AccessDenied
// without reaching the formatter; an open that would create a file and finds nothing is refused
// the same way.
class ReadOnlyFlatAdapter final : public FormatterRequestHandler {
public:
    explicit ReadOnlyFlatAdapter(ReadOnlyFlatFormatter* formatter) : flat_(formatter) {}

    void Open(OpenRequest* request, FormatterScratch* scratch) override;
    void Replace(ReplaceRequest* request, FormatterScratch* scratch) override;
    void Move(MoveRequest* request, FormatterScratch* scratch) override;
    void MoveReplace(MoveReplaceRequest* request, FormatterScratch* scratch) override;
    void Delete(DeleteRequest* request, FormatterScratch* scratch) override;
    void Close(CloseRequest* request, FormatterScratch* scratch) override;
    void Flush(FlushRequest* request, FormatterScratch* scratch) override;
    void List(ListRequest* request, FormatterScratch* scratch) override;
    void ListEnd(CloseRequest* request, FormatterScratch* scratch) override;
    void Read(ReadRequest* request, FormatterScratch* scratch) override;
    void Write(WriteRequest* request, FormatterScratch* scratch) override;
    void SetSize(CloseRequest* request, FormatterScratch* scratch) override;
    void Capacity(CapacityRequest* request, FormatterScratch* scratch) override;
    void FlushMedia(FlushMediaRequest* request, FormatterScratch* scratch) override;
    void Control(ControlRequest* request, FormatterScratch* scratch) override;
    void MediaInfo(MediaInfoRequest* request, FormatterScratch* scratch) override;
    void Access(AccessRequest* request, FormatterScratch* scratch) override;

private:
    ReadOnlyFlatFormatter* flat_;
};

} // namespace zun
