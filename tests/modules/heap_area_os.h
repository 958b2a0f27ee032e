// A stand-in for the OS calls behind shared memory: mappings are heap
// blocks of exactly the size asked for (so that AddressSanitizer sees any
// access past the area, and any access after its release), processes and
// duplicated handles are tokens. Every call is recorded in order and any
// one can be made to fail, to check failure paths and their release order.
// Handles it does not know are passed to the platform.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "os/os.h"

namespace zor::test {

class HeapAreaOs {
public:
    static constexpr os::Handle kMappingBase = 0x7A000000;
    static constexpr os::Handle kProcessBase = 0x7B000000;
    static constexpr std::uint64_t kRemoteBase = 0x7D000000;

    HeapAreaOs() {
        saved_ = os::calls;
        self_ = this;
        os::calls.mapping_create = &Create;
        os::calls.mapping_map = &Map;
        os::calls.mapping_unmap = &Unmap;
        os::calls.process_open = &Open;
        os::calls.handle_dup_to = &DupTo;
        os::calls.handle_close = &Close;
    }
    ~HeapAreaOs() {
        os::calls = saved_;
        for (auto& [h, block] : blocks_) delete[] block.data;
        self_ = nullptr;
    }
    HeapAreaOs(const HeapAreaOs&) = delete;
    HeapAreaOs& operator=(const HeapAreaOs&) = delete;

    // Makes the named call ("create", "map", "open", "dup") fail from now on.
    void Fail(const std::string& call) { failing_ = call; }
    void FailNothing() { failing_.clear(); }
    const std::vector<std::string>& Events() const { return events_; }
    void ClearEvents() { events_.clear(); }
    std::uint32_t LiveBlocks() const {
        std::uint32_t n = 0;
        for (auto& [h, b] : blocks_) n += b.data != nullptr && !b.closed;
        return n;
    }
    std::int32_t OpenProcesses() const { return openProcesses_; }
    // The heap block behind a duplicated handle value (what a client maps).
    unsigned char* BlockOfRemote(std::uint64_t remote) {
        auto it = remotes_.find(remote);
        return it == remotes_.end() ? nullptr : blocks_[it->second].data;
    }

private:
    struct Block {
        unsigned char* data = nullptr;
        std::uint32_t size = 0;
        bool closed = false;
    };

    static bool Failing(const char* call) {
        self_->events_.push_back(call);
        if (self_->failing_ == call) {
            self_->events_.back() += " failed";
            return true;
        }
        return false;
    }
    static os::Handle Create(std::uint32_t size) {
        if (Failing("create")) return 0;
        const os::Handle h = kMappingBase + ++self_->next_;
        // Zeroed like a fresh page-file mapping.
        self_->blocks_[h] = Block{new unsigned char[size](), size, false};
        return h;
    }
    static void* Map(os::Handle h, std::uint32_t size) {
        if (Failing("map")) return nullptr;
        auto it = self_->blocks_.find(h);
        if (it == self_->blocks_.end() || it->second.closed || size > it->second.size) return nullptr;
        return it->second.data;
    }
    static bool Unmap(void* view, std::uint32_t) {
        self_->events_.push_back("unmap");
        for (auto& [h, b] : self_->blocks_) {
            if (b.data == view) {
                // Freed at once: a later access is a use after free.
                delete[] b.data;
                b.data = nullptr;
                return true;
            }
        }
        return false;
    }
    static os::Handle Open(std::uint32_t pid) {
        if (Failing("open")) return 0;
        ++self_->openProcesses_;
        return kProcessBase + pid;
    }
    static bool DupTo(os::Handle process, os::Handle h, std::uint64_t* remote) {
        if (Failing("dup")) return false;
        if (process < kProcessBase || self_->blocks_.count(h) == 0 || self_->blocks_[h].closed)
            return false;
        *remote = kRemoteBase + ++self_->next_;
        self_->remotes_[*remote] = h;
        return true;
    }
    static bool Close(os::Handle h) {
        if (h >= kProcessBase && h < kProcessBase + 0x1000000) {
            self_->events_.push_back("close process");
            --self_->openProcesses_;
            return true;
        }
        auto it = self_->blocks_.find(h);
        if (it == self_->blocks_.end()) return self_->saved_.handle_close(h);
        self_->events_.push_back("close mapping");
        it->second.closed = true;
        return true;
    }

    static inline HeapAreaOs* self_ = nullptr;
    os::Calls saved_{};
    std::string failing_;
    std::vector<std::string> events_;
    std::map<os::Handle, Block> blocks_;
    std::map<std::uint64_t, os::Handle> remotes_;
    std::uint32_t next_ = 0;
    std::int32_t openProcesses_ = 0;
};

}  // namespace zor::test
