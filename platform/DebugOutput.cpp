#include "platform/DebugOutput.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "KDebug.h"
#include "platform/WideString.h"

namespace kestor {

namespace {

void DefaultSink(const KChar* line, void*) {
    static const bool enabled = std::getenv("KESTOR_DEBUG") != nullptr;
    if (!enabled) return;
    const std::string text = WideToUtf8(line);
    std::fwrite(text.data(), 1, text.size(), stderr);
}

void DefaultMessageBox(const KChar* caption, const KChar* text, unsigned, void*) {
    std::fprintf(stderr, "%s: %s\n", WideToUtf8(caption).c_str(), WideToUtf8(text).c_str());
}

// Recursive so that a sink may itself report through the library without deadlocking.
std::recursive_mutex& OutputMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

KDebugOutputSink g_sink = DefaultSink;
void* g_sinkContext = nullptr;
KMessageBoxHandler g_messageBox = DefaultMessageBox;
void* g_messageBoxContext = nullptr;

}  // namespace

void DebugOutput(const KChar* line) {
    std::lock_guard lock(OutputMutex());
    g_sink(line != nullptr ? line : u"", g_sinkContext);
}

void ShowMessageBox(const KChar* caption, const KChar* text, unsigned style) {
    KMessageBoxHandler handler;
    void* context;
    {
        std::lock_guard lock(OutputMutex());
        handler = g_messageBox;
        context = g_messageBoxContext;
    }
    // The box blocks until dismissed; debug output from other threads must not wait on it.
    handler(caption != nullptr ? caption : u"", text != nullptr ? text : u"", style, context);
}

}  // namespace kestor

void KSetDebugOutputSink(KDebugOutputSink sink, void* context) {
    std::lock_guard lock(kestor::OutputMutex());
    kestor::g_sink = sink != nullptr ? sink : kestor::DefaultSink;
    kestor::g_sinkContext = sink != nullptr ? context : nullptr;
}

void KSetMessageBoxHandler(KMessageBoxHandler handler, void* context) {
    std::lock_guard lock(kestor::OutputMutex());
    kestor::g_messageBox = handler != nullptr ? handler : kestor::DefaultMessageBox;
    kestor::g_messageBoxContext = handler != nullptr ? context : nullptr;
}
