#include "platform/RegistryNames.h"

#include <iterator>

#include "platform/Registry.h"

namespace kestor {

namespace {

// Lower-case letters from `first` to `last`, every `step` units, map to unit + `delta`.
struct CaseRange {
    char16_t first;
    char16_t last;
    uint16_t step;
    int32_t delta;
};

// Sorted by `first`; ranges do not overlap.
constexpr CaseRange kCaseRanges[] = {
    {0x0061, 0x007A, 1, -32},  // a-z
    {0x00E0, 0x00F6, 1, -32},  // Latin-1 à-ö
    {0x00F8, 0x00FE, 1, -32},  // ø-þ
    {0x00FF, 0x00FF, 1, 121},  // ÿ -> Ÿ
    {0x0101, 0x012F, 2, -1},   // Latin Extended-A pairs
    {0x0133, 0x0137, 2, -1},  {0x013A, 0x0148, 2, -1},  {0x014B, 0x0177, 2, -1},
    {0x017A, 0x017E, 2, -1},  {0x03AC, 0x03AC, 1, -38},  // Greek ά
    {0x03AD, 0x03AF, 1, -37},                            // έ ή ί
    {0x03B1, 0x03C1, 1, -32},                            // α-ρ
    {0x03C2, 0x03C2, 1, -31},                            // final sigma -> Σ
    {0x03C3, 0x03CB, 1, -32},                            // σ-ϋ
    {0x03CC, 0x03CC, 1, -64},                            // ό
    {0x03CD, 0x03CE, 1, -63},                            // ύ ώ
    {0x0430, 0x044F, 1, -32},                            // Cyrillic а-я
    {0x0450, 0x045F, 1, -80},                            // ѐ-џ
    {0x0461, 0x0481, 2, -1},  {0x048B, 0x04BF, 2, -1},  {0x04C2, 0x04CE, 2, -1},
    {0x04CF, 0x04CF, 1, -15},                            // ӏ -> Ӏ
    {0x04D1, 0x052F, 2, -1},  {0x0561, 0x0586, 1, -48},  // Armenian
    {0x1E01, 0x1E95, 2, -1},                             // Latin Extended Additional
    {0x1EA1, 0x1EFF, 2, -1},  {0xFF41, 0xFF5A, 1, -32},  // full-width a-z
};

bool IsSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDFFF;
}

// True when every surrogate in `name` is part of a well-formed pair.
bool HasOnlyPairedSurrogates(WideStringView name) {
    for (size_t i = 0; i < name.size(); ++i) {
        const char32_t unit = name[i];
        if (!IsSurrogate(unit)) continue;
        if (unit >= 0xDC00 || i + 1 >= name.size() || name[i + 1] < 0xDC00 || name[i + 1] > 0xDFFF)
            return false;
        ++i;
    }
    return true;
}

}  // namespace

KChar FoldRegistryChar(KChar unit) {
    if (unit < 0x61) return unit;
    for (const CaseRange& range : kCaseRanges) {
        if (unit < range.first) break;
        if (unit <= range.last && (unit - range.first) % range.step == 0)
            return static_cast<KChar>(unit + range.delta);
    }
    return unit;
}

WideString FoldRegistryName(WideStringView name) {
    WideString folded(name);
    for (KChar& unit : folded) unit = FoldRegistryChar(unit);
    return folded;
}

bool IsValidKeyName(WideStringView name) {
    if (name.empty() || name.size() > RegistryKey::kMaxKeyNameLength) return false;
    if (name.find(KChar{0}) != WideStringView::npos) return false;
    if (name.find(KChar{'\\'}) != WideStringView::npos) return false;
    return HasOnlyPairedSurrogates(name);
}

bool IsValidValueName(WideStringView name) {
    if (name.size() > RegistryKey::kMaxValueNameLength) return false;
    if (name.find(KChar{0}) != WideStringView::npos) return false;
    return HasOnlyPairedSurrogates(name);
}

bool SplitRegistryPath(WideStringView path, std::vector<WideStringView>& names) {
    names.clear();
    if (path.size() > RegistryKey::kMaxPathLength) return false;
    while (!path.empty() && path.front() == u'\\') path.remove_prefix(1);
    while (!path.empty() && path.back() == u'\\') path.remove_suffix(1);
    while (!path.empty()) {
        const size_t end = path.find(u'\\');
        const WideStringView name = path.substr(0, end);
        if (!IsValidKeyName(name)) return false;
        names.push_back(name);
        if (end == WideStringView::npos) break;
        path.remove_prefix(end + 1);
    }
    return true;
}

}  // namespace kestor
