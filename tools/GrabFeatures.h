// Setting a driver's advanced features by name from the command line ("Width=1024").
#pragma once

#include <string>

#include "KGrab.h"

namespace kestor::tool {

// Sets `name=value` on the loaded grabber, looking up advanced features first, then adjustments:
// integers, doubles, booleans (0/1, true/false, on/off),
// enumerations (entry name or number) and commands (value ignored; executed). False with `why`
// set when the feature is unknown, the value does not parse or the driver refuses it.
bool SetFeature(KGrabModule& module, const std::string& assignment, std::string& why);

// Reads a feature's value as text; false when there is no such feature.
bool GetFeatureText(KGrabModule& module, const std::string& name, std::string& value);

}  // namespace kestor::tool
