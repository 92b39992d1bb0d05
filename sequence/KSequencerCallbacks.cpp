#include "KSequence.h"

KSequencerCallbacks::~KSequencerCallbacks() = default;
void KSequencerCallbacks::OnImageWrite(unsigned int, void*) {}
void KSequencerCallbacks::OnImageRead(KImage*, unsigned int, void*) {}
void KSequencerCallbacks::OnEndOfSequence(bool&, unsigned int, void*) {}
void KSequencerCallbacks::OnEndOfPlaybackRange(bool&, unsigned int, void*) {}
void KSequencerCallbacks::OnPlaybackStopped(unsigned int, void*) {}
