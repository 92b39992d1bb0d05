// Exports of the simulated camera plugin.
#include "common/PluginExports.h"
#include "simulated/SimulatedCamera.h"

KESTOR_DEFINE_PLUGIN(CLSID_KSimulatedCamera, kKPluginGrabberDriver, "Simulated Camera",
                     kestor::simulated::SimulatedCamera)
