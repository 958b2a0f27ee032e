// A stand-in for the OS calls behind shared memory and module loading:
// mappings are heap blocks of exactly the size asked for (so that
// AddressSanitizer sees any access past the area, and any access after its
// release), processes and duplicated handles are tokens, modules are loaded
// for real. Every call is recorded in order and any one can be made to fail,
// to check failure paths and their release order.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "os/os.h"
#include "zor/zor_module.h"

namespace zor::test {

class HeapAreaOs {
public:
    static constexpr os::Handle kProcessBase = 0x7B000000;

    HeapAreaOs() {
        saved_ = os::calls;
        self_ = this;
        os::calls.mapping_create = &Create;
        os::calls.mapping_map = &Map;
        os::calls.mapping_unmap = &Unmap;
        os::calls.process_open = &Open;
        os::calls.handle_dup_to = &DupTo;
        os::calls.handle_close = &Close;
        os::calls.handle_close_in = &CloseIn;
        os::calls.module_load = &Load;
        os::calls.module_symbol = &Symbol;
        os::calls.module_free = &Free;
    }
    ~HeapAreaOs() {
        os::calls = saved_;
        for (auto& [h, block] : blocks_) delete[] block.data;
        self_ = nullptr;
    }

    // The named call ("create", "map", "open", "dup", "load", "symbol") fails
    // from now on and is recorded as "<call> failed"; "" fails nothing.
    std::string failing;
    std::vector<std::string> events;
    std::int32_t openProcesses = 0;
    void* lastView = nullptr;
    // The heap block behind a duplicated handle value (what a client maps).
    unsigned char* BlockOfRemote(std::uint64_t remote) {
        auto it = remotes_.find(remote);
        return it == remotes_.end() ? nullptr : blocks_[it->second].data;
    }

private:
    struct Block { unsigned char* data = nullptr; std::uint32_t size = 0; bool closed = false; };
    static bool Failing(const char* call) {
        self_->events.push_back(call);
        if (self_->failing != call) return false;
        self_->events.back() += " failed";
        return true;
    }
    static os::Handle Create(std::uint32_t size) {
        if (Failing("create")) return 0;
        const os::Handle h = 0x7A000000 + ++self_->next_;
        self_->blocks_[h] = Block{new unsigned char[size](), size, false};  // zeroed like a fresh mapping
        return h;
    }
    static void* Map(os::Handle h, std::uint32_t size) {
        if (Failing("map")) return nullptr;
        auto it = self_->blocks_.find(h);
        if (it == self_->blocks_.end() || it->second.closed || size > it->second.size) return nullptr;
        return self_->lastView = it->second.data;
    }
    static bool Unmap(void* view, std::uint32_t) {
        self_->events.push_back("unmap");
        for (auto& [h, b] : self_->blocks_) {
            if (b.data != view) continue;
            delete[] b.data;  // freed at once: a later access is a use after free
            b.data = nullptr;
            return true;
        }
        return false;
    }
    static os::Handle Open(std::uint32_t pid) {
        if (Failing("open")) return 0;
        ++self_->openProcesses;
        return kProcessBase + pid;
    }
    static bool DupTo(os::Handle process, os::Handle h, std::uint64_t* remote) {
        if (Failing("dup")) return false;
        if (process < kProcessBase || self_->blocks_.count(h) == 0 || self_->blocks_[h].closed) return false;
        *remote = 0x7D000000 + ++self_->next_;
        self_->remotes_[*remote] = h;
        return true;
    }
    static bool Close(os::Handle h) {
        if (h >= kProcessBase && h < kProcessBase + 0x1000000) {
            self_->events.push_back("close process");
            --self_->openProcesses;
            return true;
        }
        auto it = self_->blocks_.find(h);
        if (it == self_->blocks_.end()) return self_->saved_.handle_close(h);
        self_->events.push_back("close mapping");
        it->second.closed = true;
        return true;
    }
    static bool CloseIn(os::Handle, std::uint64_t remote) {
        self_->events.push_back("close in client");
        return self_->remotes_.erase(remote) == 1;
    }
    static os::Module Load(const char16_t* p) { return Failing("load") ? nullptr : self_->saved_.module_load(p); }
    // Only the host's look-up of the entry is a step of its own.
    static void* Symbol(os::Module m, const char* n) {
        if (std::strcmp(n, ZOR_ISR_EXPORT_NAME) == 0 && Failing("symbol")) return nullptr;
        return self_->saved_.module_symbol(m, n);
    }
    static bool Free(os::Module m) { return self_->events.push_back("free"), self_->saved_.module_free(m); }

    static inline HeapAreaOs* self_ = nullptr;
    os::Calls saved_{};
    std::map<os::Handle, Block> blocks_;
    std::map<std::uint64_t, os::Handle> remotes_;
    std::uint32_t next_ = 0;
};

}  // namespace zor::test
