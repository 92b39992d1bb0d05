#include "platform/WideString.h"

#include "KUtils.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace kestor {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void AppendWide(WideString& out, char32_t cp) {
    if (cp < 0x10000) {
        out.push_back(static_cast<KChar>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<KChar>(0xD800 | (cp >> 10)));
        out.push_back(static_cast<KChar>(0xDC00 | (cp & 0x3FF)));
    }
}

// Decodes one UTF-8 sequence starting at in[i]; advances i past it.
char32_t DecodeUtf8(std::string_view in, size_t& i) {
    const auto lead = static_cast<unsigned char>(in[i++]);
    if (lead < 0x80) return lead;
    int extra;
    char32_t cp;
    char32_t minimum;
    if ((lead & 0xE0) == 0xC0) {
        extra = 1, cp = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2, cp = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3, cp = lead & 0x07, minimum = 0x10000;
    } else {
        return kReplacement;
    }
    for (int k = 0; k < extra; ++k) {
        if (i >= in.size()) return kReplacement;
        const auto next = static_cast<unsigned char>(in[i]);
        if ((next & 0xC0) != 0x80) return kReplacement;
        cp = (cp << 6) | (next & 0x3F);
        ++i;
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return kReplacement;
    return cp;
}

}  // namespace

size_t WideLength(const KChar* text) {
    if (text == nullptr) return 0;
    size_t n = 0;
    while (text[n] != 0) ++n;
    return n;
}

WideString Utf8ToWide(std::string_view utf8) {
    WideString out;
    out.reserve(utf8.size());
    size_t i = 0;
    while (i < utf8.size()) AppendWide(out, DecodeUtf8(utf8, i));
    return out;
}

std::string WideToUtf8(WideStringView wide) {
    std::string out;
    out.reserve(wide.size());
    for (size_t i = 0; i < wide.size(); ++i) {
        char32_t unit = wide[i];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < wide.size() && wide[i + 1] >= 0xDC00 &&
            wide[i + 1] <= 0xDFFF) {
            unit = 0x10000 + ((unit - 0xD800) << 10) + (wide[i + 1] - 0xDC00);
            ++i;
        } else if (unit >= 0xD800 && unit <= 0xDFFF) {
            unit = kReplacement;
        }
        AppendUtf8(out, unit);
    }
    return out;
}

std::string WideToUtf8(const KChar* wide) {
    return wide == nullptr ? std::string() : WideToUtf8(WideStringView(wide, WideLength(wide)));
}

}  // namespace kestor

std::string KWideToUtf8(const KChar* text) {
    return kestor::WideToUtf8(text);
}

std::basic_string<KChar> KUtf8ToWide(const char* text) {
    return text == nullptr ? kestor::WideString() : kestor::Utf8ToWide(text);
}
