// A registry key of the current user, with its subkeys and values, as an XML file: what the
// grab module's ExportGrabberSettings writes and what Load's settings file reads back.
#pragma once

#include <string>

#include "KTypes.h"
#include "platform/WideString.h"

namespace kestor {

// Writes `keyPath` (e.g. "Software\Acme\Grabdesk\") depth first: each key's subkeys, then its
// values (layout: docs/settings-file.md). 164 when the key cannot be opened for reading or
// holds what the file cannot carry (control characters in names, unnamed value types); 61 when
// the file cannot be written. A partial file is never left behind.
eKErrorCode ExportRegistryKeyToXml(const WideString& keyPath, const std::string& utf8File);

// Writes the keys and values of such a file back under `keyPath` (created as needed).
// The whole file is read and checked before anything is written, so a file that cannot be
// read or parsed (60) or that names keys outside `keyPath` or values of unknown types (165)
// changes nothing; 165 also when a key or value cannot be written.
eKErrorCode ImportXmlToRegistryKey(const std::string& utf8File, const WideString& keyPath);

}  // namespace kestor
