// The settings file: one root element standing for the exported key, nested <Key> elements for
// its subkeys and <Value> elements for values (see docs/settings-file.md). The import reads the
// whole file into a tree and checks every part of it before a single registry write, and then
// writes the tree in one transaction, so a bad file changes nothing.
#include "acquisition/SettingsXml.h"

#include <tinyxml2.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string_view>

#include "acquisition/SettingsXmlValues.h"
#include "platform/FileSystem.h"
#include "platform/RegistryTree.h"

namespace kestor {

namespace {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

constexpr const char* kRootElement = "KestorGrabberSettings";
constexpr const char* kFormatVersion = "1";
constexpr const char* kKeyElement = "Key";
constexpr const char* kValueElement = "Value";
constexpr const char* kStringElement = "String";
constexpr const char* kHexEncoding = "hex";

// Far beyond real driver settings, and below the XML parser's own nesting limit (the root,
// the keys, a value and its strings must fit in it).
constexpr int kMaxKeyDepth = 64;
static_assert(kMaxKeyDepth + 3 < TINYXML2_MAX_ELEMENT_DEPTH);
// A settings file of a few drivers is some kilobytes; anything near this is not one.
constexpr std::uintmax_t kMaxFileSize = 16u * 1024 * 1024;

// --- export ------------------------------------------------------------------------------------

// The file cannot hold control characters in names, nor types it has no name for; such a key is
// not exported rather than written in a form that would not read back the same.
bool AppendValue(XMLDocument& document, XMLElement& parent, const RegistryTreeValue& value) {
    const char* typeName = RegTypeName(value.type);
    if (typeName == nullptr || HasControlCharacter(value.name)) return false;
    XMLElement* element = document.NewElement(kValueElement);
    parent.InsertEndChild(element);
    element->SetAttribute("name", WideToUtf8(value.name).c_str());
    element->SetAttribute("type", typeName);
    const ValueContent content = EncodeValueData(value.type, value.data);
    if (content.form != NaturalForm(value.type)) element->SetAttribute("encoding", kHexEncoding);
    if (content.form == ValueForm::Strings) {
        for (const std::string& entry : content.strings)
            element->InsertNewChildElement(kStringElement)->SetText(entry.c_str());
    } else if (!content.text.empty()) {
        element->SetText(content.text.c_str());
    }
    return true;
}

// Subkeys first, each with everything below it, then the key's own values.
bool AppendKey(XMLDocument& document, XMLElement& element, const RegistryTree& key, int depth) {
    for (const RegistryTree& subKey : key.subKeys) {
        if (depth + 1 > kMaxKeyDepth || HasControlCharacter(subKey.name)) return false;
        XMLElement* child = document.NewElement(kKeyElement);
        element.InsertEndChild(child);
        child->SetAttribute("name", WideToUtf8(subKey.name).c_str());
        if (!AppendKey(document, *child, subKey, depth + 1)) return false;
    }
    for (const RegistryTreeValue& value : key.values) {
        if (!AppendValue(document, element, value)) return false;
    }
    return true;
}

// A name no other writer of the folder picks, so that two exports never share a scratch file.
std::string ScratchName(const std::string& target) {
    std::random_device random;
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".tmp-%08x%08x", random(), random());
    return target + suffix;
}

// Writes a scratch file beside the target and renames it over the target, so that readers see
// either the old file or the complete new one.
bool WriteFileWhole(const std::string& target, const char* data, size_t size) {
    const std::string scratch = ScratchName(target);
    {
        std::ofstream out(scratch, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        out.write(data, static_cast<std::streamsize>(size));
        out.close();
        if (!out) {
            std::remove(scratch.c_str());
            return false;
        }
    }
    std::error_code error;
    std::filesystem::rename(scratch, target, error);
    if (error) std::remove(scratch.c_str());
    return !error;
}

// --- import ------------------------------------------------------------------------------------

// In order of weight: a file that is not ours is refused as such even where it also holds
// something hostile.
enum class Fault {
    None,
    Content,  // a settings file asking for something that must not be written
    Layout,   // not a settings file: the file is unusable as a whole
};

Fault Worst(Fault a, Fault b) {
    return a > b ? a : b;
}

// The text of an element that holds only text (comments are allowed and skipped).
bool TextOnly(const XMLElement& element, std::string& text) {
    text.clear();
    for (const XMLNode* node = element.FirstChild(); node != nullptr; node = node->NextSibling()) {
        if (node->ToComment() != nullptr) continue;
        if (node->ToText() == nullptr) return false;
        text += node->Value();
    }
    return true;
}

Fault ReadContent(const XMLElement& element, RegType type, ValueForm form,
                  std::vector<uint8_t>& data) {
    ValueContent content;
    content.form = form;
    if (form == ValueForm::Strings) {
        for (const XMLNode* node = element.FirstChild(); node != nullptr;
             node = node->NextSibling()) {
            if (node->ToComment() != nullptr) continue;
            const XMLElement* entry = node->ToElement();
            std::string text;
            if (entry == nullptr || std::string_view(entry->Name()) != kStringElement ||
                !TextOnly(*entry, text))
                return Fault::Layout;
            content.strings.push_back(std::move(text));
        }
    } else if (!TextOnly(element, content.text)) {
        return Fault::Layout;
    }
    if (!DecodeValueData(type, content, data)) return Fault::Layout;
    return data.size() > RegistryKey::kMaxValueSize ? Fault::Content : Fault::None;
}

Fault ReadValue(const XMLElement& element, RegistryTreeValue& value) {
    const char* name = element.Attribute("name");
    const char* typeName = element.Attribute("type");
    const char* encoding = element.Attribute("encoding");
    if (name == nullptr || typeName == nullptr) return Fault::Layout;
    if (encoding != nullptr && std::string_view(encoding) != kHexEncoding) return Fault::Layout;
    if (!RegTypeFromName(typeName, value.type)) return Fault::Content;
    value.name = Utf8ToWide(name);
    if (HasControlCharacter(value.name) || value.name.size() > RegistryKey::kMaxValueNameLength)
        return Fault::Content;
    const ValueForm form = encoding != nullptr ? ValueForm::Hex : NaturalForm(value.type);
    return ReadContent(element, value.type, form, value.data);
}

// A key name is one level below its parent: it may not be empty nor contain the separator.
bool IsAcceptableKeyName(WideStringView name) {
    return !name.empty() && name.size() <= RegistryKey::kMaxKeyNameLength &&
           name.find(u'\\') == WideStringView::npos && !HasControlCharacter(name);
}

// Reads the children of a key element. Goes on after a Content fault so that a Layout fault
// further down still decides the result.
Fault ReadKey(const XMLElement& element, int depth, RegistryTree& key) {
    Fault fault = Fault::None;
    for (const XMLNode* node = element.FirstChild(); node != nullptr; node = node->NextSibling()) {
        if (node->ToComment() != nullptr) continue;
        const XMLElement* child = node->ToElement();
        if (child == nullptr) return Fault::Layout;
        const std::string_view kind = child->Name();
        if (kind == kKeyElement) {
            const char* name = child->Attribute("name");
            if (name == nullptr) return Fault::Layout;
            RegistryTree& subKey = key.subKeys.emplace_back();
            subKey.name = Utf8ToWide(name);
            if (depth + 1 > kMaxKeyDepth || !IsAcceptableKeyName(subKey.name))
                fault = Fault::Content;
            fault = Worst(fault, ReadKey(*child, depth + 1, subKey));
        } else if (kind == kValueElement) {
            fault = Worst(fault, ReadValue(*child, key.values.emplace_back()));
        } else {
            return Fault::Layout;
        }
        if (fault == Fault::Layout) return fault;
    }
    return fault;
}

// Exactly one element at the top, ours, in the version this code writes.
const XMLElement* SettingsRoot(const XMLDocument& document) {
    const XMLElement* root = nullptr;
    for (const XMLNode* node = document.FirstChild(); node != nullptr; node = node->NextSibling()) {
        if (node->ToComment() != nullptr || node->ToDeclaration() != nullptr) continue;
        if (node->ToElement() == nullptr || root != nullptr) return nullptr;
        root = node->ToElement();
    }
    if (root == nullptr || std::string_view(root->Name()) != kRootElement) return nullptr;
    const char* version = root->Attribute("version");
    if (version == nullptr || std::string_view(version) != kFormatVersion) return nullptr;
    return root;
}

bool ReadFileWhole(const std::string& path, std::string& bytes) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size > kMaxFileSize) return false;
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad() && bytes.size() <= kMaxFileSize;
}

eKErrorCode ExportTree(const WideString& keyPath, const std::string& utf8File) {
    RegistryTree tree;
    if (ReadRegistryTree(keyPath, tree) != RegStatus::Ok) return eKErrRegistryRead;

    XMLDocument document;
    document.InsertEndChild(document.NewDeclaration());
    XMLElement* root = document.NewElement(kRootElement);
    document.InsertEndChild(root);
    root->SetAttribute("version", kFormatVersion);
    root->SetAttribute("key", WideToUtf8(keyPath).c_str());
    if (!AppendKey(document, *root, tree, 0)) return eKErrRegistryRead;

    tinyxml2::XMLPrinter printer;
    document.Print(&printer);
    const size_t size = printer.CStrSize() > 0 ? static_cast<size_t>(printer.CStrSize() - 1) : 0;
    if (!WriteFileWhole(NativePath(utf8File), printer.CStr(), size)) return eKErrCreateOpenFile;
    return eKErrSuccess;
}

eKErrorCode ImportTree(const std::string& utf8File, const WideString& keyPath) {
    std::string bytes;
    if (!ReadFileWhole(NativePath(utf8File), bytes)) return eKErrFileNotFound;
    // The parser stops at a NUL; whatever follows it would go unchecked.
    if (bytes.find('\0') != std::string::npos) return eKErrFileNotFound;

    XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.Parse(bytes.data(), bytes.size()) != tinyxml2::XML_SUCCESS)
        return eKErrFileNotFound;
    const XMLElement* root = SettingsRoot(document);
    if (root == nullptr) return eKErrFileNotFound;

    RegistryTree tree;
    switch (ReadKey(*root, 0, tree)) {
        case Fault::Layout:
            return eKErrFileNotFound;
        case Fault::Content:
            return eKErrRegistryWrite;
        case Fault::None:
            break;
    }
    return WriteRegistryTree(keyPath, tree) == RegStatus::Ok ? eKErrSuccess : eKErrRegistryWrite;
}

}  // namespace

// Both run on the application's thread; an allocation failure is reported, not thrown.
eKErrorCode ExportRegistryKeyToXml(const WideString& keyPath, const std::string& utf8File) {
    try {
        return ExportTree(keyPath, utf8File);
    } catch (...) {
        return eKErrOutOfMemory;
    }
}

eKErrorCode ImportXmlToRegistryKey(const std::string& utf8File, const WideString& keyPath) {
    try {
        return ImportTree(utf8File, keyPath);
    } catch (...) {
        return eKErrOutOfMemory;
    }
}

}  // namespace kestor
