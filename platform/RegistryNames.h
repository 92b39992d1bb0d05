// Names and paths of registry keys and values: validation, splitting and the case folding that
// makes lookups case-insensitive and fixes the enumeration order.
#pragma once

#include <vector>

#include "platform/WideString.h"

namespace kestor {

// Upper-case form of a UTF-16 unit, as the registry compares names. Covers the letters of
// ASCII, Latin-1, Latin Extended-A, Latin Extended Additional, Greek, Cyrillic, Armenian and
// the full-width forms; every other unit folds to itself. The table must never change: folded
// names are stored, and a different folding would hide existing keys.
KChar FoldRegistryChar(KChar unit);
WideString FoldRegistryName(WideStringView name);

// A key name is 1 to 255 units without NUL or backslash; a value name is up to 16383 units
// without NUL (backslashes allowed, empty = default value). Lone surrogates are refused in both
// because the store keeps names as UTF-8.
bool IsValidKeyName(WideStringView name);
bool IsValidValueName(WideStringView name);

// Splits a backslash-separated key path into its names. Leading and trailing backslashes are
// ignored; an empty path yields no names. False when a name is empty or invalid or the path is
// longer than the registry allows.
bool SplitRegistryPath(WideStringView path, std::vector<WideStringView>& names);

}  // namespace kestor
