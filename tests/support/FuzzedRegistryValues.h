// Turns fuzz input into registry values for the targets that fuzz a reader of settings: each
// value gets a name the reader knows (or a made-up one), any type and any bytes, so that the
// reader meets missing, mistyped, truncated and out-of-range values alike.
//
// The input is a list of records, read until it ends or `maxValues` were made:
//   name byte    n % (names + 1) picks names[n % (names + 1)]; the last choice is a made-up
//                name: a length byte (0 to 32) and that many bytes, each taken as one character
//   kind byte    k % 8:  0 REG_DWORD of the next 4 bytes (fewer when the input ends)
//                        1 REG_SZ of a length byte and that many bytes as characters, NUL added
//                        2 REG_QWORD of the next 8 bytes (fewer when the input ends)
//                        3 REG_SZ of a length byte and that many raw bytes (UTF-16LE, no NUL)
//                        4 REG_BINARY of a length byte and that many bytes
//                        5 REG_EXPAND_SZ as kind 1
//                        6 REG_MULTI_SZ as kind 3
//                        7 a type byte (any number), then a length byte and that many bytes
// A record cut short by the end of the input still counts, with what was left of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/Registry.h"

namespace kestor::test {

struct FuzzedRegistryValue {
    WideString name;
    RegType type = RegType::None;
    std::vector<uint8_t> data;
};

class FuzzedInput {
public:
    FuzzedInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool Empty() const { return position_ >= size_; }
    uint8_t Byte() { return Empty() ? 0 : data_[position_++]; }
    // Up to `count` bytes, fewer when the input ends first.
    std::vector<uint8_t> Bytes(size_t count) {
        const size_t taken = count < size_ - position_ ? count : size_ - position_;
        std::vector<uint8_t> bytes(data_ + position_, data_ + position_ + taken);
        position_ += taken;
        return bytes;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t position_ = 0;
};

namespace fuzzed_registry_detail {

inline std::vector<uint8_t> WidenedText(const std::vector<uint8_t>& bytes) {
    std::vector<uint8_t> text;
    for (const uint8_t byte : bytes) {
        text.push_back(byte);  // UTF-16LE: one byte is one character below U+0100
        text.push_back(0);
    }
    text.push_back(0);
    text.push_back(0);
    return text;
}

}  // namespace fuzzed_registry_detail

inline std::vector<FuzzedRegistryValue> DecodeRegistryValues(FuzzedInput& input,
                                                             std::span<const char16_t* const> names,
                                                             size_t maxValues) {
    using fuzzed_registry_detail::WidenedText;
    std::vector<FuzzedRegistryValue> values;
    while (!input.Empty() && values.size() < maxValues) {
        FuzzedRegistryValue value;
        const size_t choice = input.Byte() % (names.size() + 1);
        if (choice < names.size()) {
            value.name = names[choice];
        } else {
            for (const uint8_t byte : input.Bytes(input.Byte() % 33))
                value.name += static_cast<char16_t>(byte);
        }
        switch (input.Byte() % 8) {
            case 0:
                value.type = RegType::Dword;
                value.data = input.Bytes(4);
                break;
            case 1:
                value.type = RegType::String;
                value.data = WidenedText(input.Bytes(input.Byte()));
                break;
            case 2:
                value.type = RegType::Qword;
                value.data = input.Bytes(8);
                break;
            case 3:
                value.type = RegType::String;
                value.data = input.Bytes(input.Byte());
                break;
            case 4:
                value.type = RegType::Binary;
                value.data = input.Bytes(input.Byte());
                break;
            case 5:
                value.type = RegType::ExpandString;
                value.data = WidenedText(input.Bytes(input.Byte()));
                break;
            case 6:
                value.type = RegType::MultiString;
                value.data = input.Bytes(input.Byte());
                break;
            default:
                value.type = static_cast<RegType>(input.Byte());
                value.data = input.Bytes(input.Byte());
                break;
        }
        values.push_back(std::move(value));
    }
    return values;
}

// Writes `values` into `key` in order (a later value of the same name replaces an earlier one).
// A value the store refuses (a name it does not take) is left out.
inline void WriteRegistryValues(RegistryKey& key, const std::vector<FuzzedRegistryValue>& values) {
    for (const FuzzedRegistryValue& value : values) {
        key.SetValue(value.name, value.type, value.data.data(),
                     static_cast<uint32_t>(value.data.size()));
    }
}

}  // namespace kestor::test
