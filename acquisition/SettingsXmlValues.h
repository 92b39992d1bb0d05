// How a registry value is spelled inside a settings file: the name of its type and its data as
// readable content (text, a number, a list of strings) or, when that would not give back the
// very same bytes, as hex.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Registry.h"

namespace kestor {

// "REG_SZ", "REG_DWORD" ...; null for a type number that has no name.
const char* RegTypeName(RegType type);
bool RegTypeFromName(std::string_view name, RegType& type);

enum class ValueForm {
    Hex,      // the bytes as hex digits, for any type
    Text,     // REG_SZ, REG_EXPAND_SZ: UTF-8 text, the terminator implied
    Number,   // REG_DWORD, REG_DWORD_BIG_ENDIAN, REG_QWORD: unsigned decimal
    Strings,  // REG_MULTI_SZ: one entry per string, the terminators implied
};

// The readable form of a type (Hex for types that have none).
ValueForm NaturalForm(RegType type);

struct ValueContent {
    ValueForm form = ValueForm::Hex;
    std::string text;                  // Hex, Text, Number
    std::vector<std::string> strings;  // Strings
};

// The readable form when it reproduces `data` exactly, else hex.
ValueContent EncodeValueData(RegType type, const std::vector<uint8_t>& data);

// False when the content is malformed for its form (bad digits, a number out of range).
bool DecodeValueData(RegType type, const ValueContent& content, std::vector<uint8_t>& data);

// Control characters (C0, DEL, C1) cannot stand in a name of the settings file.
bool HasControlCharacter(std::u16string_view text);

}  // namespace kestor
