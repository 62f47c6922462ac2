#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrin::core {

/// Builds one hash from a sequence of fields fed in a fixed order, so that records hash exactly
/// the fields their equality compares. Not for cryptographic use.
class HashBuilder
{
public:
    void add(std::uint64_t word)
    {
        // splitmix64 finaliser over the running state: every input bit reaches every output bit.
        std::uint64_t x = state_ ^ (word + 0x9e3779b97f4a7c15ULL + (state_ << 6U) + (state_ >> 2U));
        x = (x ^ (x >> 30U)) * 0xbf58476d1ce4e5b9ULL;
        x = (x ^ (x >> 27U)) * 0x94d049bb133111ebULL;
        state_ = x ^ (x >> 31U);
    }
    void addSigned(std::int64_t word) { add(static_cast<std::uint64_t>(word)); }

    [[nodiscard]] std::size_t result() const { return static_cast<std::size_t>(state_); }

private:
    std::uint64_t state_ = 0xcbf29ce484222325ULL;
};

}  // namespace kestrin::core
