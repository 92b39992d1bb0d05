#include "acquisition/SettingsXmlValues.h"

#include <array>

#include "platform/WideString.h"

namespace kestor {

namespace {

constexpr std::array<const char*, 12> kTypeNames = {
    "REG_NONE",
    "REG_SZ",
    "REG_EXPAND_SZ",
    "REG_BINARY",
    "REG_DWORD",
    "REG_DWORD_BIG_ENDIAN",
    "REG_LINK",
    "REG_MULTI_SZ",
    "REG_RESOURCE_LIST",
    "REG_FULL_RESOURCE_DESCRIPTOR",
    "REG_RESOURCE_REQUIREMENTS_LIST",
    "REG_QWORD",
};

constexpr uint32_t kDwordBigEndian = 5;

bool IsControl(char16_t unit) {
    return unit < 0x20 || (unit >= 0x7F && unit <= 0x9F);
}

// Text that survives an XML round trip unchanged: the parser folds CR LF into LF and drops
// text made of white space only, and other control characters are not XML at all.
bool IsPortableText(WideStringView text) {
    bool onlySpace = true;
    for (const KChar unit : text) {
        if (unit != u'\t' && unit != u'\n' && IsControl(unit)) return false;
        if (unit != u' ' && unit != u'\t' && unit != u'\n') onlySpace = false;
    }
    return text.empty() || !onlySpace;
}

WideString FromUtf16Le(const std::vector<uint8_t>& data) {
    WideString text;
    text.reserve(data.size() / 2);
    for (size_t i = 0; i + 1 < data.size(); i += 2)
        text.push_back(static_cast<KChar>(data[i] | data[i + 1] << 8));
    return text;
}

void AppendUtf16Le(WideStringView text, std::vector<uint8_t>& data) {
    for (const KChar unit : text) {
        data.push_back(static_cast<uint8_t>(unit & 0xFF));
        data.push_back(static_cast<uint8_t>(unit >> 8));
    }
}

void AppendUtf8AsUtf16Le(const std::string& utf8, std::vector<uint8_t>& data) {
    AppendUtf16Le(Utf8ToWide(utf8), data);
    data.insert(data.end(), {0, 0});
}

std::string ToHex(const std::vector<uint8_t>& data) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string hex;
    hex.reserve(data.size() * 2);
    for (const uint8_t byte : data) {
        hex.push_back(kDigits[byte >> 4]);
        hex.push_back(kDigits[byte & 0xF]);
    }
    return hex;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Hex digit pairs; white space between them is allowed so that a file may be wrapped.
bool FromHex(std::string_view hex, std::vector<uint8_t>& data) {
    data.clear();
    int high = -1;
    for (const char c : hex) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            if (high >= 0) return false;
            continue;
        }
        const int digit = HexDigit(c);
        if (digit < 0) return false;
        if (high < 0) {
            high = digit;
        } else {
            data.push_back(static_cast<uint8_t>(high << 4 | digit));
            high = -1;
        }
    }
    return high < 0;
}

bool ParseDecimal(std::string_view text, uint64_t max, uint64_t& value) {
    if (text.empty() || text.size() > 20) return false;
    value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (max - digit) / 10) return false;
        value = value * 10 + digit;
    }
    return true;
}

size_t NumberSize(RegType type) {
    return type == RegType::Qword ? 8 : 4;
}

bool DecodeNumber(RegType type, const std::string& text, std::vector<uint8_t>& data) {
    const size_t size = NumberSize(type);
    uint64_t value = 0;
    if (!ParseDecimal(text, size == 8 ? UINT64_MAX : UINT32_MAX, value)) return false;
    data.assign(size, 0);
    const bool bigEndian = static_cast<uint32_t>(type) == kDwordBigEndian;
    for (size_t i = 0; i < size; ++i)
        data[bigEndian ? size - 1 - i : i] = static_cast<uint8_t>(value >> (8 * i));
    return true;
}

bool DecodeReadable(RegType type, const ValueContent& content, std::vector<uint8_t>& data) {
    data.clear();
    switch (content.form) {
        case ValueForm::Hex:
            return FromHex(content.text, data);
        case ValueForm::Text:
            AppendUtf8AsUtf16Le(content.text, data);
            return true;
        case ValueForm::Number:
            return DecodeNumber(type, content.text, data);
        case ValueForm::Strings:
            for (const std::string& entry : content.strings) AppendUtf8AsUtf16Le(entry, data);
            data.insert(data.end(), {0, 0});
            return true;
    }
    return false;
}

// The readable spelling of `data`, before checking that it gives the same bytes back.
bool EncodeReadable(RegType type, const std::vector<uint8_t>& data, ValueContent& content) {
    switch (content.form) {
        case ValueForm::Hex:
            return false;
        case ValueForm::Text: {
            WideString text = FromUtf16Le(data);
            if (text.empty() || text.back() != 0) return false;
            text.pop_back();
            if (!IsPortableText(text)) return false;
            content.text = WideToUtf8(text);
            return true;
        }
        case ValueForm::Number: {
            if (data.size() != NumberSize(type)) return false;
            const bool bigEndian = static_cast<uint32_t>(type) == kDwordBigEndian;
            uint64_t value = 0;
            for (size_t i = 0; i < data.size(); ++i)
                value |= uint64_t{data[bigEndian ? data.size() - 1 - i : i]} << (8 * i);
            content.text = std::to_string(value);
            return true;
        }
        case ValueForm::Strings: {
            const WideString all = FromUtf16Le(data);
            // A list ends with an empty string; an empty entry inside it could not be told apart.
            if (all.empty() || all.back() != 0) return false;
            size_t start = 0;
            while (start + 1 < all.size()) {
                const size_t end = all.find(KChar{0}, start);
                const WideStringView entry(all.data() + start, end - start);
                if (entry.empty() || !IsPortableText(entry)) return false;
                content.strings.push_back(WideToUtf8(entry));
                start = end + 1;
            }
            return true;
        }
    }
    return false;
}

}  // namespace

const char* RegTypeName(RegType type) {
    const auto number = static_cast<uint32_t>(type);
    return number < kTypeNames.size() ? kTypeNames[number] : nullptr;
}

bool RegTypeFromName(std::string_view name, RegType& type) {
    for (uint32_t number = 0; number < kTypeNames.size(); ++number) {
        if (name == kTypeNames[number]) {
            type = static_cast<RegType>(number);
            return true;
        }
    }
    return false;
}

ValueForm NaturalForm(RegType type) {
    switch (static_cast<uint32_t>(type)) {
        case static_cast<uint32_t>(RegType::String):
        case static_cast<uint32_t>(RegType::ExpandString):
            return ValueForm::Text;
        case static_cast<uint32_t>(RegType::Dword):
        case kDwordBigEndian:
        case static_cast<uint32_t>(RegType::Qword):
            return ValueForm::Number;
        case static_cast<uint32_t>(RegType::MultiString):
            return ValueForm::Strings;
        default:
            return ValueForm::Hex;
    }
}

ValueContent EncodeValueData(RegType type, const std::vector<uint8_t>& data) {
    ValueContent content;
    content.form = NaturalForm(type);
    std::vector<uint8_t> back;
    if (EncodeReadable(type, data, content) && DecodeReadable(type, content, back) && back == data)
        return content;
    content = ValueContent{};
    content.text = ToHex(data);
    return content;
}

bool DecodeValueData(RegType type, const ValueContent& content, std::vector<uint8_t>& data) {
    return DecodeReadable(type, content, data);
}

bool HasControlCharacter(std::u16string_view text) {
    for (const char16_t unit : text) {
        if (IsControl(unit)) return true;
    }
    return false;
}

}  // namespace kestor
