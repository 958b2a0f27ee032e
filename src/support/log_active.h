// The set of active level/mask pairs and the parser of its list syntax
// (the syntax is described with ZOR_LOG_ACTIVE in log.h).
#pragma once

#include <cstdint>

namespace zor::logdetail {

constexpr int kLevels = 16;         // levels 0-15 have a row each
constexpr int kRows = kLevels + 1;  // the last row: every level above 15

struct ActiveSet {
    std::uint64_t low[kRows];  // masks 0-63
    bool high[kRows];          // masks above 63
    void Fill(bool on) {
        for (int r = 0; r < kRows; ++r) low[r] = on ? ~std::uint64_t{0} : 0, high[r] = on;
    }
};

// Applies a comma list to a set that starts with every pair active; false
// when the list is malformed (the set is then undefined).
bool ParseActive(const char* list, ActiveSet& a);

}  // namespace zor::logdetail
