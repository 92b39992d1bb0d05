// The do-nothing defaults of the application's grab callbacks.
#include "KGrab.h"

KGrabCallbacks::~KGrabCallbacks() = default;
void KGrabCallbacks::OnBeforeImageReceived(unsigned int, void*) {}
void KGrabCallbacks::OnImageReceived(KImage*, unsigned int, void*) {}
void KGrabCallbacks::OnImageReleased(unsigned int, void*) {}
void KGrabCallbacks::OnBeforeQueuingGrab(unsigned int, void*) {}
void KGrabCallbacks::OnAfterQueuingGrab(unsigned int, void*) {}
void KGrabCallbacks::OnBeforeStartStreaming(unsigned int, void*) {}
void KGrabCallbacks::OnAfterStartStreaming(unsigned int, void*) {}
void KGrabCallbacks::OnBeforeStopStreaming(unsigned int, void*) {}
void KGrabCallbacks::OnAfterStopStreaming(unsigned int, void*) {}
void KGrabCallbacks::OnNotification(eKGRABBER_NOTIFICATION, eKSUGGESTED_ACTION) {}
