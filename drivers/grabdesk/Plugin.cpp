// Exports of the grabber manager plugin.
#include "common/PluginExports.h"
#include "grabdesk/GrabberManager.h"

KESTOR_DEFINE_PLUGIN(CLSID_KGrabberManager, kKPluginGrabberManager, "Grabdesk",
                     kestor::GrabberManager)
