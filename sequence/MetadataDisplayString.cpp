#include "sequence/MetadataDisplayString.h"

#include <cstring>

#include "platform/LocalTime.h"

namespace kestor {

namespace {

enum class ArgumentKind { None, Integer, Double, WideText };

ArgumentKind ArgumentKindOf(uint32_t format) {
    switch (format) {
        case eKMetadataByte:
        case eKMetadataShort:
        case eKMetadataUnsignedShort:
        case eKMetadataInteger:
        case eKMetadataUnsignedInteger:
            return ArgumentKind::Integer;
        case eKMetadataDouble:
            return ArgumentKind::Double;
        case eKMetadataString:
            return ArgumentKind::WideText;
        default:
            return ArgumentKind::None;
    }
}

bool IsDigit(KChar c) {
    return c >= u'0' && c <= u'9';
}

bool Contains(const char* set, KChar c) {
    return c < 0x80 && c != 0 && std::strchr(set, c);
}

// Checks one conversion after its '%' (mirrors the parser of WideFormat). Sets `consumes` when
// the conversion takes an argument. False when it takes one of another type than `kind`, or
// takes width or precision from the argument list.
bool CheckConversion(const KChar* pattern, size_t& i, ArgumentKind kind, bool& consumes) {
    while (Contains("-+ #0", pattern[i])) ++i;
    if (pattern[i] == u'*') return false;
    while (IsDigit(pattern[i])) ++i;
    if (pattern[i] == u'.') {
        ++i;
        if (pattern[i] == u'*') return false;
        while (IsDigit(pattern[i])) ++i;
    }
    // Size prefix: only the ones under which the argument is read at the width it is passed.
    char size = 0;
    if (pattern[i] == u'h') {
        size = 'h';
        if (pattern[++i] == u'h') ++i;
    } else if (pattern[i] == u'l' || pattern[i] == u'w') {
        size = static_cast<char>(pattern[i++]);
        if (size == 'l' && pattern[i] == u'l') return false;
    } else if (Contains("LzjtI", pattern[i])) {
        return false;
    }
    const KChar conversion = pattern[i];
    if (conversion == 0) return true;  // a lone '%' at the end prints nothing
    ++i;
    if (conversion == u'%' || !Contains("diuxXofFeEgGaAsScCpn", conversion)) {
        consumes = false;  // printed as text
        return true;
    }
    consumes = true;
    switch (kind) {
        case ArgumentKind::Integer:
            return Contains("diuxXocC", conversion) && size != 'l' && size != 'w';
        case ArgumentKind::Double:
            return Contains("fFeEgGaA", conversion) && size != 'h';
        case ArgumentKind::WideText:
            return (conversion == u's' && size != 'h') ||
                   (conversion == u'S' && (size == 'l' || size == 'w'));
        case ArgumentKind::None:
            return false;
    }
    return false;
}

bool PrintBoolean(const KChar* pattern, const uint8_t* data, uint32_t size, WideString& text) {
    if (size < 1) return false;
    const WideStringView words(pattern, WideLength(pattern));
    const size_t separator = words.find(u';');
    if (separator == WideStringView::npos) return false;
    text = WideString(data[0] != 0 ? words.substr(0, separator) : words.substr(separator + 1));
    if (text.size() >= kDisplayStringCapacity) text.resize(kDisplayStringCapacity - 1);
    return true;
}

template <class T>
T LoadLittleEndian(const uint8_t* data) {
    uint64_t bits = 0;
    for (size_t i = 0; i < sizeof(T); ++i) bits |= uint64_t{data[i]} << (8 * i);
    T value;
    if constexpr (sizeof(T) == sizeof(uint64_t)) {
        std::memcpy(&value, &bits, sizeof value);
    } else {
        value = static_cast<T>(bits);
    }
    return value;
}

// The data as a wide string: up to its first NUL or the end of the data.
WideString WideTextOf(const uint8_t* data, uint32_t size) {
    WideString text;
    for (uint32_t at = 0; at + 1 < size; at += 2) {
        const auto unit = static_cast<KChar>(data[at] | data[at + 1] << 8);
        if (unit == 0) break;
        text.push_back(unit);
    }
    return text;
}

}  // namespace

const KChar* DefaultPatternFor(uint32_t format) {
    switch (format) {
        case eKMetadataBoolean:
            return u"true;false";
        case eKMetadataByte:
        case eKMetadataShort:
        case eKMetadataUnsignedShort:
        case eKMetadataInteger:
            return u"%d";
        case eKMetadataUnsignedInteger:
            return u"%u";
        case eKMetadataDouble:
            return u"%f";
        case eKMetadataString:
            return u"%s";
        default:
            return u"";
    }
}

bool PatternSuitsFormat(const KChar* pattern, uint32_t format) {
    const ArgumentKind kind = ArgumentKindOf(format);
    if (pattern == nullptr || kind == ArgumentKind::None) return false;
    int arguments = 0;
    for (size_t i = 0; pattern[i] != 0;) {
        if (pattern[i++] != u'%') continue;
        bool consumes = false;
        if (!CheckConversion(pattern, i, kind, consumes)) return false;
        if (consumes && ++arguments > 1) return false;
    }
    return true;
}

bool FormatMetadataValue(uint32_t format, const KChar* pattern, const uint8_t* data, uint32_t size,
                         WideString& text) {
    if (pattern == nullptr || (data == nullptr && size != 0)) return false;
    if (format == eKMetadataBoolean) return PrintBoolean(pattern, data, size, text);
    if (!PatternSuitsFormat(pattern, format)) return false;

    KChar buffer[kDisplayStringCapacity];
    switch (format) {
        case eKMetadataByte:
            if (size < 1) return false;
            WideFormat(buffer, kDisplayStringCapacity, pattern, int{data[0]});
            break;
        case eKMetadataShort:
            if (size < 2) return false;
            WideFormat(buffer, kDisplayStringCapacity, pattern,
                       int{LoadLittleEndian<int16_t>(data)});
            break;
        case eKMetadataUnsignedShort:
            if (size < 2) return false;
            WideFormat(buffer, kDisplayStringCapacity, pattern,
                       int{LoadLittleEndian<uint16_t>(data)});
            break;
        case eKMetadataInteger:
            if (size < 4) return false;
            WideFormat(buffer, kDisplayStringCapacity, pattern, LoadLittleEndian<int32_t>(data));
            break;
        case eKMetadataUnsignedInteger:
            if (size < 4) return false;
            WideFormat(buffer, kDisplayStringCapacity, pattern, LoadLittleEndian<uint32_t>(data));
            break;
        case eKMetadataDouble:
            if (size < 8) return false;
            WideFormat(buffer, kDisplayStringCapacity, pattern, LoadLittleEndian<double>(data));
            break;
        case eKMetadataString: {
            const WideString value = WideTextOf(data, size);
            WideFormat(buffer, kDisplayStringCapacity, pattern, value.c_str());
            break;
        }
        default:
            return false;
    }
    text = buffer;
    return true;
}

bool FormatTime64Metadata(const uint8_t* data, uint32_t size, WideString& text) {
    static const KChar* const kWeekdays[] = {u"Sun", u"Mon", u"Tue", u"Wed",
                                             u"Thu", u"Fri", u"Sat"};
    static const KChar* const kMonths[] = {u"Jan", u"Feb", u"Mar", u"Apr", u"May", u"Jun",
                                           u"Jul", u"Aug", u"Sep", u"Oct", u"Nov", u"Dec"};
    if (data == nullptr || size < 12) return false;
    LocalTimeFields local{};
    if (!ToLocalTime(LoadLittleEndian<int64_t>(data), local)) return false;
    if (local.weekday < 0 || local.weekday > 6 || local.month < 0 || local.month > 11) return false;

    // The classic ctime layout, of which the first 19 characters (no year) are shown.
    KChar calendar[30];
    WideFormat(calendar, 30, u"%s %s %.2d %.2d:%.2d:%.2d %lld\n", kWeekdays[local.weekday],
               kMonths[local.month], local.day, local.hour, local.minute, local.second,
               static_cast<long long>(local.year));
    KChar shown[40];
    WideFormat(shown, 40, u"%.19s.%.003hu%.003hu", calendar,
               static_cast<unsigned>(LoadLittleEndian<uint16_t>(data + 8)),
               static_cast<unsigned>(LoadLittleEndian<uint16_t>(data + 10)));
    text = shown;
    return true;
}

bool FormatLtcMetadata(const uint8_t* data, uint32_t size, WideString& text) {
    if (data == nullptr || size < 4) return false;
    // Hours and frames use 6 bits, minutes and seconds 7; the other bits are flags.
    const uint32_t code = LoadLittleEndian<uint32_t>(data) & 0x3F7F7F3Fu;
    KChar digits[16];
    WideFormat(digits, 16, u"%8.8X", code);
    KChar shown[16];
    WideFormat(shown, 16, u"%c%c:%c%c:%c%c-%c%c", digits[0], digits[1], digits[2], digits[3],
               digits[4], digits[5], digits[6], digits[7]);
    text = shown;
    return true;
}

}  // namespace kestor
