#include "common/test_host.h"

#include <cstdlib>
#include <cstring>

#include "support/wstr.h"

namespace zor::test {

TestHost::TestHost(bool prepareTables) : host_(log_.log()) {
    SetRunningHost(&host_);
    if (prepareTables) host_.registry.PrepareTables();
}

TestHost::~TestHost() {
    host_.registry.UnloadAll();
    SetRunningHost(nullptr);
}

IrqThread::IrqThread() {
    thread_ = std::thread([this] { Loop(); });
    Run([this] { threadId_ = os::current_thread_id(); });
}

IrqThread::~IrqThread() {
    {
        std::lock_guard<std::mutex> lk(m_);
        stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
}

void IrqThread::Loop() {
    std::unique_lock<std::mutex> lk(m_);
    for (;;) {
        cv_.wait(lk, [this] { return stop_ || !queue_.empty(); });
        if (queue_.empty()) return;
        auto work = std::move(queue_.front());
        queue_.erase(queue_.begin());
        lk.unlock();
        work();
        lk.lock();
        --pending_;
        cv_.notify_all();
    }
}

void IrqThread::Post(std::function<void()> work) {
    {
        std::lock_guard<std::mutex> lk(m_);
        queue_.push_back(std::move(work));
        ++pending_;
    }
    cv_.notify_all();
}

void IrqThread::Run(std::function<void()> work) {
    Post(std::move(work));
    Wait();
}

std::uint32_t IrqThread::Fire(std::uint32_t sequence) {
    FireAsync(sequence);
    return Wait();
}

void IrqThread::FireAsync(std::uint32_t sequence) {
    Post([this, sequence] {
        const std::uint32_t r = OnInterrupt(sequence);
        std::lock_guard<std::mutex> lk(m_);
        result_ = r;
    });
}

std::uint32_t IrqThread::Wait() {
    std::unique_lock<std::mutex> lk(m_);
    cv_.wait(lk, [this] { return pending_ == 0; });
    return result_;
}

TestModule::TestModule(const char* name) : fileName_(ModuleFileName(name)) {
    module_ = os::module_load(TestModulePath(name).c_str());
}

TestModule::~TestModule() {
    if (module_) {
        EXPECT_TRUE(os::module_free(module_));
    }
}

TestIsr::TestIsr(const char* name) : module_(name) {
    if (!module_.Fn<void*>("Test_Reset")) {
        ADD_FAILURE() << "test module not found: " << name;
        std::abort();
    }
    Reset();
}

std::vector<TestIsr::Call> TestIsr::Calls() const {
    std::vector<Call> out;
    auto get = module_.Fn<int (*)(std::uint32_t, std::uint32_t*)>("Test_Get");
    for (std::uint32_t i = 0, n = Count(); i < n; ++i) {
        std::uint32_t w[8];
        if (get(i, w))
            out.push_back(Call{w[0], w[1] | std::uint64_t{w[2]} << 32, w[3], w[4], w[5], w[6], w[7]});
    }
    return out;
}

std::vector<std::uint32_t> TestIsr::Codes() const {
    std::vector<std::uint32_t> out;
    for (const Call& c : Calls()) out.push_back(c.code);
    return out;
}

std::uint32_t TestIsr::CountOf(std::uint32_t code) const {
    std::uint32_t n = 0;
    for (const Call& c : Calls()) n += c.code == code;
    return n;
}

std::u16string ModuleFileName(const char* name) {
    std::u16string s;
    for (const char* p = name; *p; ++p) s += static_cast<char16_t>(*p);
    return s + ZOR_MODULE_SUFFIX;
}

std::vector<unsigned char> RegisterPayload(std::uint32_t pid, std::uint32_t sharedSize,
                                           const std::u16string& name) {
    std::vector<unsigned char> p(16 + 2 * (name.size() + 1), 0);
    std::memcpy(p.data(), &pid, 4);
    std::memcpy(p.data() + 4, &sharedSize, 4);
    std::memcpy(p.data() + 16, name.c_str(), 2 * (name.size() + 1));
    return p;
}

std::uint32_t AddFakeIsr(Host& h, ZorGetSetProc entry, const char16_t* name) {
    const std::uint32_t s = h.slots.Alloc();
    ModuleSlot& slot = h.slots[s];
    slot.kind.store(kKindIsr);
    slot.number.store(s);
    wcopy(slot.name, 20, name);
    slot.entry.store(entry);
    slot.inUse.store(1);
    h.dispatcher.InvalidateDispatchOrder();
    return s;
}

std::uint32_t RegisterIsr(Host& h, const char* name, std::uint32_t sharedSize) {
    const std::u16string file = ModuleFileName(name);
    const auto payload = RegisterPayload(os::current_process_id(), sharedSize, file);
    h.registry.RegisterISRProc(zor::os::process_peer(), payload.data(), static_cast<std::uint32_t>(payload.size()));
    return h.registry.FindModule(file.c_str());
}

}  // namespace zor::test
