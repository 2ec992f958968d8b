#include "protocol/flat_adapters.h"

#include <type_traits>

namespace zun {

namespace {

// Flush delays the flat interfaces choose between: no timed flushes, or one every 2 seconds.
constexpr int32_t kNoTimedFlush = -1;
constexpr int32_t kFlatFlushDelay = 2000;

// The flush of a read-only volume: one that changes nothing succeeds.
constexpr uint8_t kFlushKeepFileFlags = 0xFF;

// Hands a list request's add operations to a flat list call, and records its no-more mark.
class RequestListSink final : public ListSink {
public:
    explicit RequestListSink(ListRequest* request) : request_(request) {}
    bool Add(const FileInfo* info, const wchar_t* name, bool* stored) override {
        return answer(request_->Add(info, name), stored);
    }
    bool AddUtf8(const FileInfo* info, const char* name, bool* stored) override {
        return answer(request_->AddUtf8(info, name), stored);
    }
    void SetNoMore() override { no_more_ = true; }
    uint8_t no_more() const { return no_more_ ? 1 : 0; }

private:
    static bool answer(bool added, bool* stored) {
        if (stored) *stored = added;
        return added;
    }
    ListRequest* request_;
    bool no_more_ = false;
};

// Each adapter operation hands back what the formatter returned only after Complete: the
// request copies the string into its reply first. The request is not touched again.
template <class Flat> void free_string(Flat* flat, wchar_t* text) {
    if (text) flat->FreeString(text);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Read-write

template <class Flat> void FlatAdapterOf<Flat>::Open(OpenRequest* r, FormatterScratch*) {
    uint8_t existed = 0;
    OpenedFileInfo info{};
    uint64_t parent_file_id = 0;
    wchar_t* end_name = nullptr;
    ProtocolError e =
        flat_->Open(r->Name(), r->NameCount(), r->CreateFileType(), r->CreateFileFlags(),
                    r->WriteTime(), r->NewCreateOpenId(), r->ExistingAccessLevel(),
                    r->NewExistingOpenId(), &existed, &info, &parent_file_id, &end_name);
    r->Complete(e, existed, &info, parent_file_id, end_name, nullptr);
    free_string(flat_, end_name);
}

template <class Flat> void FlatAdapterOf<Flat>::Replace(ReplaceRequest* r, FormatterScratch*) {
    OpenedFileInfo info{};
    ProtocolError e =
        flat_->Replace(r->TargetOpenId(), r->TargetParentFileId(), r->TargetEndName(),
                       r->CreateFileFlags(), r->WriteTime(), r->NewCreateOpenId(), &info);
    r->Complete(e, &info, nullptr);
}

template <class Flat> void FlatAdapterOf<Flat>::Move(MoveRequest* r, FormatterScratch*) {
    uint8_t existed = 0;
    OpenedFileInfo info{};
    uint64_t parent_file_id = 0;
    wchar_t* end_name = nullptr;
    ProtocolError e;
    if constexpr (std::is_same_v<Flat, FlatFormatter>) {
        e = flat_->Move(r->SourceOpenId(), r->SourceParentFileId(), r->SourceEndName(),
                        r->TargetName(), r->TargetNameCount(), r->DeleteSource(), r->WriteTime(),
                        r->ExistingAccessLevel(), r->NewExistingOpenId(), &existed, &info,
                        &parent_file_id, &end_name);
    } else {
        e = flat_->Move(r->SourceOpenId(), r->SourceParentFileId(), r->SourceEndName(),
                        r->TargetName(), r->TargetNameCount(), r->DeleteSource(), r->WriteTime(),
                        r->NewExistingOpenId(), &existed, &info, &parent_file_id, &end_name);
    }
    r->Complete(e, existed, &info, parent_file_id, end_name, nullptr);
    free_string(flat_, end_name);
}

template <class Flat>
void FlatAdapterOf<Flat>::MoveReplace(MoveReplaceRequest* r, FormatterScratch*) {
    r->Complete(flat_->MoveReplace(r->SourceOpenId(), r->SourceParentFileId(), r->SourceEndName(),
                                   r->TargetOpenId(), r->TargetParentFileId(), r->TargetEndName(),
                                   r->DeleteSource(), r->WriteTime()));
}

template <class Flat> void FlatAdapterOf<Flat>::Delete(DeleteRequest* r, FormatterScratch*) {
    r->Complete(flat_->Delete(r->OpenId(), r->ParentFileId(), r->EndName(), r->WriteTime()));
}

template <class Flat> void FlatAdapterOf<Flat>::Close(CloseRequest* r, FormatterScratch*) {
    r->Complete(flat_->Close(r->OpenId(), r->Value()));
}

template <class Flat> void FlatAdapterOf<Flat>::Flush(FlushRequest* r, FormatterScratch*) {
    if constexpr (std::is_same_v<Flat, FlatFormatter>) {
        OpenedFileInfo info{};
        ProtocolError e =
            flat_->Flush(r->OpenId(), r->FlushFlags(), r->FileFlags(), r->Color(), r->CreateTime(),
                         r->AccessTime(), r->WriteTime(), r->ChangeTime(), &info);
        r->Complete(e, &info, nullptr);
    } else {
        // The older interface has no record to answer with: the reply is the header only.
        ProtocolError e = flat_->Flush(r->OpenId(), r->FileFlags(), r->CreateTime(),
                                       r->AccessTime(), r->WriteTime(), r->ChangeTime());
        r->Complete(e, nullptr, nullptr);
    }
}

template <class Flat> void FlatAdapterOf<Flat>::List(ListRequest* r, FormatterScratch*) {
    RequestListSink sink(r);
    ProtocolError e = flat_->List(r->OpenId(), r->ListId(), &sink);
    r->Complete(e, sink.no_more());
}

template <class Flat> void FlatAdapterOf<Flat>::ListEnd(CloseRequest* r, FormatterScratch*) {
    r->Complete(flat_->ListEnd(r->OpenId(), r->Value()));
}

template <class Flat> void FlatAdapterOf<Flat>::Read(ReadRequest* r, FormatterScratch*) {
    size_t actual = 0;
    ProtocolError e =
        flat_->Read(r->OpenId(), r->FileOffset(), r->Data(), r->RequestedSize(), &actual);
    r->Complete(e, actual);
}

template <class Flat> void FlatAdapterOf<Flat>::Write(WriteRequest* r, FormatterScratch*) {
    size_t actual = 0;
    ProtocolError e =
        flat_->Write(r->OpenId(), r->FileOffset(), r->Data(), r->RequestedSize(), &actual);
    r->Complete(e, actual);
}

template <class Flat> void FlatAdapterOf<Flat>::SetSize(CloseRequest* r, FormatterScratch*) {
    r->Complete(flat_->SetSize(r->OpenId(), r->Value()));
}

template <class Flat> void FlatAdapterOf<Flat>::Capacity(CapacityRequest* r, FormatterScratch*) {
    uint64_t total = 0, available = 0;
    ProtocolError e = flat_->Capacity(&total, &available);
    r->Complete(e, total, available);
}

template <class Flat>
void FlatAdapterOf<Flat>::FlushMedia(FlushMediaRequest* r, FormatterScratch*) {
    uint8_t no_flush = 1;
    ProtocolError e = flat_->FlushMedia(&no_flush);
    r->Complete(e, no_flush ? kNoTimedFlush : kFlatFlushDelay);
}

template <class Flat> void FlatAdapterOf<Flat>::Control(ControlRequest* r, FormatterScratch*) {
    size_t output_size = 0;
    ProtocolError e =
        flat_->Control(r->OpenId(), r->AccessLevel(), r->ControlCode(), r->InputData(),
                       r->InputSize(), r->OutputBuffer(), r->MaxOutputSize(), &output_size);
    r->Complete(e, output_size);
}

template <class Flat> void FlatAdapterOf<Flat>::MediaInfo(MediaInfoRequest* r, FormatterScratch*) {
    zun::MediaInfo info{};
    wchar_t* label = nullptr;
    ProtocolError e = flat_->MediaInfo(r->OpenId(), &info, &label);
    r->Complete(e, &info, label);
    free_string(flat_, label);
}

template <class Flat> void FlatAdapterOf<Flat>::Access(AccessRequest* r, FormatterScratch*) {
    OpenedFileInfo info{};
    ProtocolError e = flat_->Access(r->OpenId(), r->AccessLevel(), &info);
    r->Complete(e, &info, nullptr);
}

template class FlatAdapterOf<FlatFormatterV5>;
template class FlatAdapterOf<FlatFormatter>;

// ---------------------------------------------------------------------------------------------
// Read-only

void ReadOnlyFlatAdapter::Open(OpenRequest* r, FormatterScratch*) {
    OpenedFileInfo info{};
    wchar_t* end_name = nullptr;
    ProtocolError e = flat_->Open(r->Name(), r->NameCount(), r->ExistingAccessLevel(),
                                  r->NewExistingOpenId(), &info, &end_name);
    // Nothing found where the client would create something: creating is what is refused.
    if (e == ProtocolError::NotFound && r->CreateFileType() != 0) e = ProtocolError::AccessDenied;
    uint8_t existed = e == ProtocolError::Success ? 1 : 0;
    r->Complete(e, existed, &info, 0, end_name, nullptr);
    free_string(flat_, end_name);
}

void ReadOnlyFlatAdapter::Replace(ReplaceRequest* r, FormatterScratch*) {
    r->Complete(ProtocolError::AccessDenied, nullptr, nullptr);
}

void ReadOnlyFlatAdapter::Move(MoveRequest* r, FormatterScratch*) {
    r->Complete(ProtocolError::AccessDenied, 0, nullptr, 0, nullptr, nullptr);
}

void ReadOnlyFlatAdapter::MoveReplace(MoveReplaceRequest* r, FormatterScratch*) {
    r->Complete(ProtocolError::AccessDenied);
}

void ReadOnlyFlatAdapter::Delete(DeleteRequest* r, FormatterScratch*) {
    r->Complete(ProtocolError::AccessDenied);
}

void ReadOnlyFlatAdapter::Close(CloseRequest* r, FormatterScratch*) {
    r->Complete(flat_->Close(r->OpenId(), r->Value()));
}

void ReadOnlyFlatAdapter::Flush(FlushRequest* r, FormatterScratch*) {
    bool changes_nothing = r->FileFlags() == kFlushKeepFileFlags && r->Color() == 0 &&
                           r->CreateTime() == 0 && r->WriteTime() == 0;
    r->Complete(changes_nothing ? ProtocolError::Success : ProtocolError::AccessDenied, nullptr,
                nullptr);
}

void ReadOnlyFlatAdapter::List(ListRequest* r, FormatterScratch*) {
    RequestListSink sink(r);
    ProtocolError e = flat_->List(r->OpenId(), r->ListId(), &sink);
    r->Complete(e, sink.no_more());
}

void ReadOnlyFlatAdapter::ListEnd(CloseRequest* r, FormatterScratch*) {
    r->Complete(flat_->ListEnd(r->OpenId(), r->Value()));
}

void ReadOnlyFlatAdapter::Read(ReadRequest* r, FormatterScratch*) {
    size_t actual = 0;
    ProtocolError e =
        flat_->Read(r->OpenId(), r->FileOffset(), r->Data(), r->RequestedSize(), &actual);
    r->Complete(e, actual);
}

void ReadOnlyFlatAdapter::Write(WriteRequest* r, FormatterScratch*) {
    r->Complete(ProtocolError::AccessDenied, 0);
}

void ReadOnlyFlatAdapter::SetSize(CloseRequest* r, FormatterScratch*) {
    r->Complete(ProtocolError::AccessDenied);
}

void ReadOnlyFlatAdapter::Capacity(CapacityRequest* r, FormatterScratch*) {
    uint64_t total = 0;
    ProtocolError e = flat_->Capacity(&total);
    r->Complete(e, total, 0);
}

void ReadOnlyFlatAdapter::FlushMedia(FlushMediaRequest* r, FormatterScratch*) {
    int32_t no_flush = 1;
    ProtocolError e = flat_->FlushMedia(&no_flush);
    r->Complete(e, no_flush > 0 ? kNoTimedFlush : kFlatFlushDelay);
}

void ReadOnlyFlatAdapter::Control(ControlRequest* r, FormatterScratch*) {
    size_t output_size = 0;
    ProtocolError e =
        flat_->Control(r->OpenId(), r->AccessLevel(), r->ControlCode(), r->InputData(),
                       r->InputSize(), r->OutputBuffer(), r->MaxOutputSize(), &output_size);
    r->Complete(e, output_size);
}

void ReadOnlyFlatAdapter::MediaInfo(MediaInfoRequest* r, FormatterScratch*) {
    zun::MediaInfo info{};
    wchar_t* label = nullptr;
    ProtocolError e = flat_->MediaInfo(r->OpenId(), &info, &label);
    r->Complete(e, &info, label);
    free_string(flat_, label);
}

void ReadOnlyFlatAdapter::Access(AccessRequest* r, FormatterScratch*) {
    OpenedFileInfo info{};
    ProtocolError e = flat_->Access(r->OpenId(), r->AccessLevel(), &info);
    r->Complete(e, &info, nullptr);
}

} // namespace zun
