// printf-style formatting of UTF-16 text. Numbers are formatted by the C library from a
// rebuilt narrow conversion spec; strings and characters are handled here so that %s can
// take UTF-16 arguments as wide printf does on Windows.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/WideString.h"

namespace kestor {

namespace {

enum class Size { Default, Char, Short, Long, LongLong, Int64, SizeT, IntMax, PtrDiff, LongDouble };

struct Spec {
    std::string flags;
    int width = -1;
    int precision = -1;
    Size size = Size::Default;
    bool wideOverride = false;    // 'l' or 'w' on s/c
    bool narrowOverride = false;  // 'h' on s/c
    char conversion = 0;
};

bool IsDigit(KChar c) {
    return c >= u'0' && c <= u'9';
}

void AppendPadded(WideString& out, WideStringView text, const Spec& spec) {
    const size_t width = spec.width > 0 ? static_cast<size_t>(spec.width) : 0;
    const bool left = spec.flags.find('-') != std::string::npos;
    const size_t pad = width > text.size() ? width - text.size() : 0;
    if (!left) out.append(pad, u' ');
    out.append(text);
    if (left) out.append(pad, u' ');
}

void AppendAscii(WideString& out, const char* text) {
    for (; *text != 0; ++text) out.push_back(static_cast<KChar>(static_cast<unsigned char>(*text)));
}

std::string NarrowSpec(const Spec& spec, const char* lengthModifier) {
    std::string s = "%" + spec.flags;
    if (spec.width >= 0) s += std::to_string(spec.width);
    if (spec.precision >= 0) s += "." + std::to_string(spec.precision);
    s += lengthModifier;
    s += spec.conversion;
    return s;
}

template <typename T>
void AppendNumber(WideString& out, const Spec& spec, const char* lengthModifier, T value) {
    const std::string narrow = NarrowSpec(spec, lengthModifier);
    char buffer[512];
    int n = std::snprintf(buffer, sizeof buffer, narrow.c_str(), value);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof buffer) {
        AppendAscii(out, buffer);
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), narrow.c_str(), value);
    AppendAscii(out, big.c_str());
}

void AppendSigned(WideString& out, const Spec& spec, va_list& args) {
    switch (spec.size) {
        case Size::Char:
            AppendNumber(out, spec, "", static_cast<signed char>(va_arg(args, int)));
            break;
        case Size::Short:
            AppendNumber(out, spec, "", static_cast<short>(va_arg(args, int)));
            break;
        case Size::Long:
            AppendNumber(out, spec, "l", va_arg(args, long));
            break;
        case Size::LongLong:
            AppendNumber(out, spec, "ll", va_arg(args, long long));
            break;
        case Size::Int64:
            AppendNumber(out, spec, "ll", static_cast<long long>(va_arg(args, int64_t)));
            break;
        case Size::SizeT:
            AppendNumber(out, spec, "ll", static_cast<long long>(va_arg(args, ptrdiff_t)));
            break;
        case Size::IntMax:
            AppendNumber(out, spec, "ll", static_cast<long long>(va_arg(args, intmax_t)));
            break;
        case Size::PtrDiff:
            AppendNumber(out, spec, "ll", static_cast<long long>(va_arg(args, ptrdiff_t)));
            break;
        default:
            AppendNumber(out, spec, "", va_arg(args, int));
            break;
    }
}

void AppendUnsigned(WideString& out, const Spec& spec, va_list& args) {
    using ull = unsigned long long;
    switch (spec.size) {
        case Size::Char:
            AppendNumber(out, spec, "",
                         static_cast<unsigned>(static_cast<unsigned char>(va_arg(args, unsigned))));
            break;
        case Size::Short:
            AppendNumber(
                out, spec, "",
                static_cast<unsigned>(static_cast<unsigned short>(va_arg(args, unsigned))));
            break;
        case Size::Long:
            AppendNumber(out, spec, "l", va_arg(args, unsigned long));
            break;
        case Size::LongLong:
            AppendNumber(out, spec, "ll", va_arg(args, ull));
            break;
        case Size::Int64:
            AppendNumber(out, spec, "ll", static_cast<ull>(va_arg(args, uint64_t)));
            break;
        case Size::SizeT:
            AppendNumber(out, spec, "ll", static_cast<ull>(va_arg(args, size_t)));
            break;
        case Size::IntMax:
            AppendNumber(out, spec, "ll", static_cast<ull>(va_arg(args, uintmax_t)));
            break;
        case Size::PtrDiff:
            AppendNumber(out, spec, "ll", static_cast<ull>(va_arg(args, ptrdiff_t)));
            break;
        default:
            AppendNumber(out, spec, "", va_arg(args, unsigned));
            break;
    }
}

void AppendFloat(WideString& out, const Spec& spec, va_list& args) {
    if (spec.size == Size::LongDouble)
        AppendNumber(out, spec, "L", va_arg(args, long double));
    else
        AppendNumber(out, spec, "", va_arg(args, double));
}

void AppendString(WideString& out, const Spec& spec, bool wide, va_list& args) {
    WideString converted;
    WideStringView text;
    if (wide) {
        const KChar* s = va_arg(args, const KChar*);
        text = s != nullptr ? WideStringView(s, WideLength(s)) : WideStringView(u"(null)");
    } else {
        const char* s = va_arg(args, const char*);
        converted = Utf8ToWide(s != nullptr ? s : "(null)");
        text = converted;
    }
    if (spec.precision >= 0 && text.size() > static_cast<size_t>(spec.precision))
        text = text.substr(0, static_cast<size_t>(spec.precision));
    AppendPadded(out, text, spec);
}

void AppendChar(WideString& out, const Spec& spec, bool wide, va_list& args) {
    const int value = va_arg(args, int);
    const KChar c =
        wide ? static_cast<KChar>(value) : static_cast<KChar>(static_cast<unsigned char>(value));
    AppendPadded(out, WideStringView(&c, 1), spec);
}

// Parses the conversion spec after '%'; returns the position after it.
size_t ParseSpec(const KChar* format, size_t i, Spec& spec, va_list& args) {
    while (format[i] == u'-' || format[i] == u'+' || format[i] == u' ' || format[i] == u'#' ||
           format[i] == u'0') {
        if (spec.flags.find(static_cast<char>(format[i])) == std::string::npos)
            spec.flags.push_back(static_cast<char>(format[i]));
        ++i;
    }
    if (format[i] == u'*') {
        spec.width = va_arg(args, int);
        if (spec.width < 0) {  // a negative width means left-justified
            spec.flags.push_back('-');
            spec.width = -spec.width;
        }
        ++i;
    } else {
        while (IsDigit(format[i]))
            spec.width = (spec.width < 0 ? 0 : spec.width) * 10 + (format[i++] - u'0');
    }
    if (format[i] == u'.') {
        ++i;
        spec.precision = 0;
        if (format[i] == u'*') {
            spec.precision = va_arg(args, int);
            if (spec.precision < 0) spec.precision = -1;
            ++i;
        } else {
            while (IsDigit(format[i])) spec.precision = spec.precision * 10 + (format[i++] - u'0');
        }
    }
    if (spec.width > 4096) spec.width = 4096;  // keeps a hostile pattern from exhausting memory
    if (spec.precision > 4096) spec.precision = 4096;
    switch (format[i]) {
        case u'h':
            ++i;
            spec.narrowOverride = true;
            if (format[i] == u'h') {
                spec.size = Size::Char;
                ++i;
            } else {
                spec.size = Size::Short;
            }
            break;
        case u'l':
            ++i;
            spec.wideOverride = true;
            if (format[i] == u'l') {
                spec.size = Size::LongLong;
                ++i;
            } else {
                spec.size = Size::Long;
            }
            break;
        case u'w':
            ++i;
            spec.wideOverride = true;
            break;
        case u'L':
            ++i;
            spec.size = Size::LongDouble;
            break;
        case u'z':
            ++i;
            spec.size = Size::SizeT;
            break;
        case u'j':
            ++i;
            spec.size = Size::IntMax;
            break;
        case u't':
            ++i;
            spec.size = Size::PtrDiff;
            break;
        case u'I':
            if (format[i + 1] == u'6' && format[i + 2] == u'4') {
                spec.size = Size::Int64;
                i += 3;
            } else if (format[i + 1] == u'3' && format[i + 2] == u'2') {
                spec.size = Size::Default;
                i += 3;
            } else {
                spec.size = Size::SizeT;
                ++i;
            }
            break;
        default:
            break;
    }
    spec.conversion = format[i] < 0x80 ? static_cast<char>(format[i]) : '?';
    return format[i] != 0 ? i + 1 : i;
}

}  // namespace

WideString WideFormatStringV(const KChar* format, va_list args) {
    WideString out;
    if (format == nullptr) return out;
    va_list ap;
    va_copy(ap, args);
    size_t i = 0;
    while (format[i] != 0) {
        if (format[i] != u'%') {
            out.push_back(format[i++]);
            continue;
        }
        const size_t start = i;
        Spec spec;
        i = ParseSpec(format, i + 1, spec, ap);
        switch (spec.conversion) {
            case '%':
                out.push_back(u'%');
                break;
            case 'd':
            case 'i':
                AppendSigned(out, spec, ap);
                break;
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                AppendUnsigned(out, spec, ap);
                break;
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                AppendFloat(out, spec, ap);
                break;
            case 's':
                AppendString(out, spec, !spec.narrowOverride, ap);
                break;
            case 'S':
                AppendString(out, spec, spec.wideOverride, ap);
                break;
            case 'c':
                AppendChar(out, spec, !spec.narrowOverride, ap);
                break;
            case 'C':
                AppendChar(out, spec, spec.wideOverride, ap);
                break;
            case 'p':
                AppendNumber(out, spec, "", va_arg(ap, void*));
                break;
            case 'n':
                (void)va_arg(ap, void*);
                break;  // never written through: a classic exploit
            default:    // unknown conversion: keep the text as it stands
                out.append(format + start, format + i);
                break;
        }
    }
    va_end(ap);
    return out;
}

WideString WideFormatString(const KChar* format, ...) {
    va_list args;
    va_start(args, format);
    WideString out = WideFormatStringV(format, args);
    va_end(args);
    return out;
}

size_t WideFormatV(KChar* buffer, size_t capacity, const KChar* format, va_list args) {
    if (buffer == nullptr || capacity == 0) return 0;
    const WideString text = WideFormatStringV(format, args);
    const size_t n = text.size() < capacity - 1 ? text.size() : capacity - 1;
    std::memcpy(buffer, text.data(), n * sizeof(KChar));
    buffer[n] = 0;
    return n;
}

size_t WideFormat(KChar* buffer, size_t capacity, const KChar* format, ...) {
    va_list args;
    va_start(args, format);
    const size_t n = WideFormatV(buffer, capacity, format, args);
    va_end(args);
    return n;
}

}  // namespace kestor
