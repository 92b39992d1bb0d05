// The debugger output channel and the blocking error message box, as the library sees them.
#pragma once

#include "KTypes.h"

namespace kestor {

// Emits one line on the debug output channel (the text as given; callers add the newline).
void DebugOutput(const KChar* line);

// Shows a blocking error message box through the installed handler.
void ShowMessageBox(const KChar* caption, const KChar* text, unsigned style);

}  // namespace kestor
