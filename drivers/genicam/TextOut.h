// UTF-8 text of Aravis into the caller buffers of the driver interfaces.
#pragma once

#include <string>

#include "KGrabberAbi.h"
#include "platform/WideString.h"

namespace kestor::genicam {

inline void CopyText(KAbiChar* destination, uint32_t capacity, const std::string& utf8) {
    KCopyName(destination, capacity, Utf8ToWide(utf8).c_str());
}

}  // namespace kestor::genicam
