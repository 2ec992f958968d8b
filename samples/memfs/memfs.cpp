// memfs: an in-memory volume behind the FormatterRequestHandler interface.
//
// One reader-writer lock guards the whole tree; every request is completed before its handler
// operation returns. Nothing may throw across the interface, so each operation turns an
// allocation failure into OutOfMemory.
#include "memfs.h"

#include <map>
#include <memory>
#include <new>
#include <string.h>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

using zun::FileInfo;
using zun::NameComponent;
using zun::OpenedFileInfo;
using zun::ProtocolError;

namespace memfs {

namespace {

struct Node {
    uint64_t id = 0;
    int8_t type = kFileType;
    uint8_t file_flags = 0;
    uint8_t color = 0;
    std::wstring name;
    Node* parent = nullptr;
    std::vector<std::unique_ptr<Node>> children;
    std::vector<uint8_t> data;
    int64_t create_time = 0;
    int64_t access_time = 0;
    int64_t write_time = 0;
    int64_t change_time = 0;
};

struct Open {
    Node* node;
    uint64_t sequence;
    int8_t access_level;
};

bool same_name(const std::wstring& a, const NameComponent& b) {
    return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.utf16,
                                static_cast<int>(b.utf16_length), TRUE) == CSTR_EQUAL;
}

int64_t now() {
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    return (static_cast<int64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

class ExclusiveLock {
public:
    explicit ExclusiveLock(SRWLOCK* lock) : lock_(lock) { AcquireSRWLockExclusive(lock_); }
    ~ExclusiveLock() { ReleaseSRWLockExclusive(lock_); }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

private:
    SRWLOCK* lock_;
};

class MemFs final : public zun::FormatterRequestHandler {
public:
    MemFs(uint32_t marshaller_version, uint64_t capacity)
        : version_(marshaller_version), capacity_(capacity) {
        root_.id = next_id_++;
        root_.type = kFolderType;
        root_.create_time = root_.write_time = root_.change_time = root_.access_time = now();
        nodes_[root_.id] = &root_;
    }

    void Open(zun::OpenRequest* r, zun::FormatterScratch*) override {
        ProtocolError error;
        uint8_t existed = 0;
        OpenedFileInfo info{};
        uint64_t parent_id = 0;
        std::wstring end_name;
        try {
            ExclusiveLock lock(&lock_);
            Node* parent = nullptr;
            Node* node = &root_;
            error = ProtocolError::Success;
            size_t count = r->NameCount();
            const NameComponent* name = r->Name();
            for (size_t i = 0; i < count && error == ProtocolError::Success; ++i) {
                if (node->type != kFolderType) {
                    error = ProtocolError::PathNotFound;
                    break;
                }
                parent = node;
                node = child(parent, name[i]);
                if (!node && i + 1 < count) error = ProtocolError::PathNotFound;
            }
            if (error == ProtocolError::Success && !node) {
                if (r->CreateFileType() == 0) {
                    error = ProtocolError::NotFound;
                } else {
                    node = add_child(parent, name[count - 1], r->CreateFileType());
                    node->file_flags = r->CreateFileFlags();
                    if (r->WriteTime()) node->write_time = r->WriteTime();
                }
            } else if (error == ProtocolError::Success) {
                existed = 1;
            }
            if (error == ProtocolError::Success) {
                uint64_t open_id = existed ? r->NewExistingOpenId() : r->NewCreateOpenId();
                info = open(node, open_id, r->ExistingAccessLevel());
                parent_id = node->parent ? node->parent->id : 0;
                end_name = node->name;
            }
        } catch (const std::bad_alloc&) {
            error = ProtocolError::OutOfMemory;
        }
        r->Complete(error, existed, &info, parent_id, end_name.c_str(), nullptr);
    }

    void Replace(zun::ReplaceRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::Success;
        OpenedFileInfo info{};
        try {
            ExclusiveLock lock(&lock_);
            Node* node = opened(r->TargetOpenId());
            if (!node)
                error = ProtocolError::NotFound;
            else if (node->type != kFileType)
                error = ProtocolError::AccessDenied;
            if (error == ProtocolError::Success) {
                node->data.clear();
                node->file_flags = r->CreateFileFlags();
                node->write_time = node->change_time = r->WriteTime() ? r->WriteTime() : now();
                info = open(node, r->NewCreateOpenId(), opens_[r->TargetOpenId()].access_level);
            }
        } catch (const std::bad_alloc&) {
            error = ProtocolError::OutOfMemory;
        }
        r->Complete(error, &info, nullptr);
    }

    void Move(zun::MoveRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::Success;
        OpenedFileInfo info{};
        uint64_t parent_id = 0;
        std::wstring end_name;
        try {
            ExclusiveLock lock(&lock_);
            Node* source = opened(r->SourceOpenId());
            Node* target_parent = &root_;
            size_t count = r->TargetNameCount();
            const NameComponent* target = r->TargetName();
            if (!source || source == &root_) error = ProtocolError::NotFound;
            for (size_t i = 0; i + 1 < count && error == ProtocolError::Success; ++i) {
                target_parent = child(target_parent, target[i]);
                if (!target_parent || target_parent->type != kFolderType)
                    error = ProtocolError::PathNotFound;
            }
            if (error == ProtocolError::Success && count == 0) error = ProtocolError::BadName;
            if (error == ProtocolError::Success && child(target_parent, target[count - 1]))
                error = ProtocolError::Exists;
            if (error == ProtocolError::Success) {
                Node* node = r->DeleteSource() ? reparent(source, target_parent, target[count - 1])
                                               : copy(source, target_parent, target[count - 1]);
                info = open(node, r->NewExistingOpenId(), r->ExistingAccessLevel());
                parent_id = target_parent->id;
                end_name = node->name;
            }
        } catch (const std::bad_alloc&) {
            error = ProtocolError::OutOfMemory;
        }
        r->Complete(error, 0, &info, parent_id, end_name.c_str(), nullptr);
    }

    void MoveReplace(zun::MoveReplaceRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::Success;
        try {
            ExclusiveLock lock(&lock_);
            Node* source = opened(r->SourceOpenId());
            Node* target = opened(r->TargetOpenId());
            if (!source || !target || source == &root_ || target == &root_)
                error = ProtocolError::NotFound;
            else if (target->type == kFolderType && !target->children.empty())
                error = ProtocolError::NotEmpty;
            if (error == ProtocolError::Success) {
                Node* parent = target->parent;
                std::wstring name = target->name;
                NameComponent end{name.c_str(), name.size(), nullptr, 0};
                forget_opens(target);
                remove(target);
                if (r->DeleteSource())
                    reparent(source, parent, end);
                else
                    copy(source, parent, end);
            }
        } catch (const std::bad_alloc&) {
            error = ProtocolError::OutOfMemory;
        }
        r->Complete(error);
    }

    void Delete(zun::DeleteRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::Success;
        {
            ExclusiveLock lock(&lock_);
            auto parent = nodes_.find(r->ParentFileId());
            Node* node = parent == nodes_.end() ? nullptr : child(parent->second, *r->EndName());
            if (!node)
                error = ProtocolError::NotFound;
            else if (node->type == kFolderType && !node->children.empty())
                error = ProtocolError::NotEmpty;
            if (error == ProtocolError::Success) {
                forget_opens(node);
                remove(node);
            }
        }
        r->Complete(error);
    }

    void Close(zun::CloseRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::Success;
        {
            ExclusiveLock lock(&lock_);
            auto it = opens_.find(r->OpenId());
            if (it == opens_.end() || it->second.sequence != r->Value()) {
                error = ProtocolError::NotFound;
            } else {
                opens_.erase(it);
                for (auto l = listings_.begin(); l != listings_.end();)
                    l = l->first.first == r->OpenId() ? listings_.erase(l) : std::next(l);
            }
        }
        r->Complete(error);
    }

    void Flush(zun::FlushRequest* r, zun::FormatterScratch*) override {
        if (version_ < 6) {
            zun::FlushRequestV1* v1 = zun::as_flush_request_v1(r);
            ProtocolError error;
            {
                ExclusiveLock lock(&lock_);
                Node* node = opened(v1->OpenId());
                error = node ? ProtocolError::Success : ProtocolError::NotFound;
                if (node)
                    set_times(node, v1->FileFlags(), v1->CreateTime(), v1->AccessTime(),
                              v1->WriteTime(), v1->ChangeTime());
            }
            v1->Complete(error);
            return;
        }
        ProtocolError error = ProtocolError::NotFound;
        OpenedFileInfo info{};
        {
            ExclusiveLock lock(&lock_);
            if (Node* node = opened(r->OpenId())) {
                set_times(node, r->FileFlags(), r->CreateTime(), r->AccessTime(), r->WriteTime(),
                          r->ChangeTime());
                if (r->FileFlags() != 0xFF) node->color = r->Color();
                info = describe(r->OpenId());
                error = ProtocolError::Success;
            }
        }
        r->Complete(error, error == ProtocolError::Success ? &info : nullptr, nullptr);
    }

    void List(zun::ListRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::Success;
        uint8_t no_more = 0;
        try {
            ExclusiveLock lock(&lock_);
            Node* folder = opened(r->OpenId());
            if (!folder)
                error = ProtocolError::NotFound;
            else if (folder->type != kFolderType)
                error = ProtocolError::NotAFolder;
            if (error == ProtocolError::Success) {
                size_t& next = listings_[{r->OpenId(), r->ListId()}];
                while (next < folder->children.size()) {
                    const Node* entry = folder->children[next].get();
                    FileInfo info = file_info(entry);
                    if (!r->Add(&info, entry->name.c_str())) break;
                    ++next;
                }
                no_more = next == folder->children.size();
            }
        } catch (const std::bad_alloc&) {
            error = ProtocolError::OutOfMemory;
        }
        r->Complete(error, no_more);
    }

    void ListEnd(zun::CloseRequest* r, zun::FormatterScratch*) override {
        {
            ExclusiveLock lock(&lock_);
            listings_.erase({r->OpenId(), r->Value()});
        }
        r->Complete(ProtocolError::Success);
    }

    void Read(zun::ReadRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::NotFound;
        size_t actual = 0;
        {
            ExclusiveLock lock(&lock_);
            if (Node* node = opened(r->OpenId())) {
                error = ProtocolError::Success;
                uint64_t offset = r->FileOffset();
                if (offset < node->data.size()) {
                    actual = node->data.size() - static_cast<size_t>(offset);
                    if (actual > r->RequestedSize()) actual = r->RequestedSize();
                    memcpy(r->Data(), node->data.data() + offset, actual);
                }
                node->access_time = now();
            }
        }
        r->Complete(error, actual);
    }

    void Write(zun::WriteRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::NotFound;
        size_t size = r->RequestedSize();
        try {
            ExclusiveLock lock(&lock_);
            if (Node* node = opened(r->OpenId())) {
                uint64_t end = r->FileOffset() + size;
                if (end > node->data.size() && end - node->data.size() > available())
                    error = ProtocolError::NoSpace;
                else {
                    if (end > node->data.size()) node->data.resize(static_cast<size_t>(end));
                    memcpy(node->data.data() + r->FileOffset(), r->Data(), size);
                    node->write_time = node->change_time = now();
                    error = ProtocolError::Success;
                }
            }
        } catch (const std::bad_alloc&) {
            error = ProtocolError::OutOfMemory;
        }
        r->Complete(error, error == ProtocolError::Success ? size : 0);
    }

    void SetSize(zun::CloseRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::NotFound;
        try {
            ExclusiveLock lock(&lock_);
            if (Node* node = opened(r->OpenId())) {
                uint64_t size = r->Value();
                if (size > node->data.size() && size - node->data.size() > available())
                    error = ProtocolError::NoSpace;
                else {
                    node->data.resize(static_cast<size_t>(size));
                    node->change_time = now();
                    error = ProtocolError::Success;
                }
            }
        } catch (const std::bad_alloc&) {
            error = ProtocolError::OutOfMemory;
        }
        r->Complete(error);
    }

    void Capacity(zun::CapacityRequest* r, zun::FormatterScratch*) override {
        uint64_t free_bytes;
        {
            ExclusiveLock lock(&lock_);
            free_bytes = available();
        }
        r->Complete(ProtocolError::Success, capacity_, free_bytes);
    }

    void FlushMedia(zun::FlushMediaRequest* r, zun::FormatterScratch*) override {
        // Nothing to write back: no timed flushes wanted.
        r->Complete(ProtocolError::Success, -1);
    }

    void Control(zun::ControlRequest* r, zun::FormatterScratch*) override {
        if (r->ControlCode() != kControlEcho) {
            r->Complete(ProtocolError::NotImplemented, 0);
            return;
        }
        size_t size = r->InputSize() < r->MaxOutputSize() ? r->InputSize() : r->MaxOutputSize();
        memcpy(r->OutputBuffer(), r->InputData(), size);
        r->Complete(ProtocolError::Success, size);
    }

    void MediaInfo(zun::MediaInfoRequest* r, zun::FormatterScratch*) override {
        zun::MediaInfo info{};
        static const uint8_t uuid[16] = {0x6d, 0x65, 0x6d, 0x66, 0x73, 0x00, 0x40, 0x00,
                                         0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
        memcpy(info.uuid, uuid, sizeof uuid);
        info.id64 = 0x6D656D6673;
        info.id32 = 0x6D656D;
        info.create_time = root_.create_time;
        r->Complete(ProtocolError::Success, &info, L"memfs");
    }

    void Access(zun::AccessRequest* r, zun::FormatterScratch*) override {
        ProtocolError error = ProtocolError::NotFound;
        OpenedFileInfo info{};
        {
            ExclusiveLock lock(&lock_);
            auto it = opens_.find(r->OpenId());
            if (it != opens_.end()) {
                it->second.access_level = r->AccessLevel();
                info = describe(r->OpenId());
                error = ProtocolError::Success;
            }
        }
        r->Complete(error, &info, nullptr);
    }

private:
    Node* child(Node* folder, const NameComponent& name) {
        for (auto& c : folder->children)
            if (same_name(c->name, name)) return c.get();
        return nullptr;
    }

    Node* add_child(Node* folder, const NameComponent& name, int8_t type) {
        auto node = std::make_unique<Node>();
        node->id = next_id_++;
        node->type = type;
        node->name.assign(name.utf16, name.utf16_length);
        node->parent = folder;
        node->create_time = node->access_time = node->write_time = node->change_time = now();
        Node* raw = node.get();
        folder->children.push_back(std::move(node));
        nodes_[raw->id] = raw;
        return raw;
    }

    std::unique_ptr<Node> detach(Node* node) {
        auto& siblings = node->parent->children;
        for (auto it = siblings.begin(); it != siblings.end(); ++it) {
            if (it->get() != node) continue;
            std::unique_ptr<Node> owned = std::move(*it);
            siblings.erase(it);
            return owned;
        }
        return nullptr;
    }

    void remove(Node* node) {
        nodes_.erase(node->id);
        detach(node);
    }

    Node* reparent(Node* node, Node* folder, const NameComponent& name) {
        std::unique_ptr<Node> owned = detach(node);
        owned->name.assign(name.utf16, name.utf16_length);
        owned->parent = folder;
        owned->change_time = now();
        folder->children.push_back(std::move(owned));
        return node;
    }

    Node* copy(Node* source, Node* folder, const NameComponent& name) {
        Node* node = add_child(folder, name, source->type);
        node->data = source->data;
        node->file_flags = source->file_flags;
        return node;
    }

    void forget_opens(Node* node) {
        for (auto it = opens_.begin(); it != opens_.end();)
            it = it->second.node == node ? opens_.erase(it) : std::next(it);
    }

    void set_times(Node* node, uint8_t file_flags, int64_t create, int64_t access, int64_t write,
                   int64_t change) {
        if (file_flags != 0xFF) node->file_flags = file_flags;
        if (create) node->create_time = create;
        if (access) node->access_time = access;
        if (write) node->write_time = write;
        if (change) node->change_time = change;
    }

    Node* opened(uint64_t open_id) {
        auto it = opens_.find(open_id);
        return it == opens_.end() ? nullptr : it->second.node;
    }

    uint64_t used() const {
        uint64_t total = 0;
        for (const auto& entry : nodes_) total += entry.second->data.size();
        return total;
    }
    uint64_t available() const {
        uint64_t u = used();
        return u < capacity_ ? capacity_ - u : 0;
    }

    static FileInfo file_info(const Node* node) {
        FileInfo f{};
        f.file_type = node->type;
        f.file_flags = node->file_flags;
        f.color = node->color;
        f.file_id = node->id;
        f.file_size = node->data.size();
        f.create_time = node->create_time;
        f.access_time = node->access_time;
        f.write_time = node->write_time;
        f.change_time = node->change_time;
        return f;
    }

    OpenedFileInfo open(Node* node, uint64_t open_id, int8_t access_level) {
        opens_[open_id] = {node, next_sequence_++, access_level};
        return describe(open_id);
    }

    OpenedFileInfo describe(uint64_t open_id) {
        const struct Open& o = opens_[open_id];
        OpenedFileInfo info{};
        info.open_id = open_id;
        info.open_sequence = o.sequence;
        info.access_level = o.access_level;
        info.file = file_info(o.node);
        return info;
    }

    const uint32_t version_;
    const uint64_t capacity_;
    SRWLOCK lock_ = SRWLOCK_INIT;
    Node root_;
    uint64_t next_id_ = 1;
    uint64_t next_sequence_ = 1;
    std::map<uint64_t, Node*> nodes_;
    std::map<uint64_t, struct Open> opens_;
    std::map<std::pair<uint64_t, uint64_t>, size_t> listings_;
};

} // namespace

zun::FormatterRequestHandler* memfs_create(uint32_t marshaller_version, uint64_t capacity) {
    return new (std::nothrow) MemFs(marshaller_version, capacity);
}

void memfs_destroy(zun::FormatterRequestHandler* handler) {
    delete static_cast<MemFs*>(handler);
}

} // namespace memfs
