#pragma once

// Reads a fuzz input as a sequence of values. Every read succeeds: past the end of the input the
// bytes read as 0 and the strings as empty, so any input, however short, makes one whole run.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kestrin::fuzz {

class FuzzInput
{
public:
    FuzzInput(const std::uint8_t* data, std::size_t size)
        : data_(data)
        , size_(size)
    {}

    [[nodiscard]] bool isEmpty() const { return offset_ >= size_; }

    std::uint8_t takeByte() { return offset_ < size_ ? data_[offset_++] : 0; }

    /// `byteCount` (up to 8) bytes as an unsigned number, the first byte the least significant.
    std::uint64_t takeBits(int byteCount)
    {
        std::uint64_t value = 0;
        for (int i = 0; i < byteCount; ++i) {
            value |= std::uint64_t{takeByte()} << (8U * static_cast<unsigned>(i));
        }
        return value;
    }

    /// A signed 64-bit value of any size: the selector byte decides between a small value (one
    /// byte, -128...127), a medium one (four bytes) and any 64-bit pattern, so that both typical
    /// and extreme values are easy to reach.
    std::int64_t takeInt64()
    {
        switch (takeByte() % 3) {
            case 0:
                return static_cast<std::int8_t>(takeByte());
            case 1:
                return static_cast<std::int32_t>(takeBits(4));
            default:
                return static_cast<std::int64_t>(takeBits(8));
        }
    }

    /// The next `maxBytes` or fewer bytes, as many as a length byte pair asks for.
    std::string_view takeString(std::size_t maxBytes)
    {
        const std::size_t wanted = static_cast<std::size_t>(takeBits(2)) % (maxBytes + 1);
        const std::size_t count = std::min(wanted, size_ - std::min(offset_, size_));
        const std::string_view text(reinterpret_cast<const char*>(data_) + offset_, count);
        offset_ += count;
        return text;
    }

    /// Everything not read yet.
    std::string_view takeRest()
    {
        const std::size_t start = std::min(offset_, size_);
        offset_ = size_;
        return {reinterpret_cast<const char*>(data_) + start, size_ - start};
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t offset_ = 0;
};

}  // namespace kestrin::fuzz
