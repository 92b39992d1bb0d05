// Exports of the GenICam driver plugin.
#include "common/PluginExports.h"
#include "genicam/GenICamCamera.h"

KESTOR_DEFINE_PLUGIN(CLSID_KGenICamCamera, kKPluginGrabberDriver, "GenICam",
                     kestor::genicam::GenICamCamera)
