// A hash of an identity, for unordered sets and maps keyed by Qv::UUID:
// FNV-1a over its four words.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/Cookie.h"

namespace Qv {

struct UUIDHash {
    std::size_t operator()(const UUID& id) const noexcept {
        std::uint64_t h = 1469598103934665603ull;
        for (std::uint32_t w : id.words)
            h = (h ^ w) * 1099511628211ull;
        return static_cast<std::size_t>(h);
    }
};

}  // namespace Qv
