// Where the library's diagnostic texts go: the debug output channel and the error message box.
#pragma once

#include "KTypes.h"

// Receives each debug line (UTF-16, usually ending in "\n"). `context` is the pointer given at
// installation. Lines may arrive from any thread, one at a time.
using KDebugOutputSink = void (*)(const KChar* line, void* context);

// Shows an error to the user and returns when it has been dismissed. `style` is the Win32
// message-box style (16 = error icon with an OK button).
using KMessageBoxHandler = void (*)(const KChar* caption, const KChar* text, unsigned style,
                                    void* context);

// Installs the debug output sink. Null restores the default: UTF-8 lines on stderr when the
// environment variable KESTOR_DEBUG is set, nothing otherwise.
KESTOR_API void KSetDebugOutputSink(KDebugOutputSink sink, void* context);

// Installs the message-box handler. Null restores the default: "caption: text" on stderr.
KESTOR_API void KSetMessageBoxHandler(KMessageBoxHandler handler, void* context);
