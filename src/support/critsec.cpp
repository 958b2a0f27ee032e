#include "support/critsec.h"

namespace zor {

namespace {
constexpr auto kRelaxed = std::memory_order_relaxed;
}

void CCritSec::Enter() {
    mutex_.lock();
    depth_.store(depth_.load(kRelaxed) + 1, kRelaxed);
}

void CCritSec::Leave() {
    depth_.store(depth_.load(kRelaxed) - 1, kRelaxed);
    mutex_.unlock();
}

// Only the outermost lock of a thread names the holder; inner locks of the
// same thread leave it as it is, and the outermost release clears it.
CLock::CLock(CCritSec& section, const char* name, std::uint32_t line, const char* file)
    : section_(section) {
    section_.Enter();
    prevName_ = section_.holderName_.load(kRelaxed);
    prevLine_ = section_.holderLine_.load(kRelaxed);
    prevFile_ = section_.holderFile_.load(kRelaxed);
    if (section_.depth_.load(kRelaxed) == 1) {
        section_.holderName_.store(name, kRelaxed);
        section_.holderLine_.store(line, kRelaxed);
        section_.holderFile_.store(file, kRelaxed);
    }
}

CLock::~CLock() {
    section_.holderName_.store(prevName_, kRelaxed);
    section_.holderLine_.store(prevLine_, kRelaxed);
    section_.holderFile_.store(prevFile_, kRelaxed);
    section_.Leave();
}

}  // namespace zor
