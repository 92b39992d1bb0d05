// Points the tests at this build's driver plugins and stand-in plugins before any test runs.
#include <stdlib.h>

namespace {

struct PluginFolders {
    PluginFolders() {
        setenv("KESTOR_DRIVER_PATH", KESTOR_TEST_DRIVER_PATH, 0);
        setenv("KESTOR_TEST_PLUGINS", KESTOR_TEST_PLUGIN_PATH, 0);
    }
};

}  // namespace

// The support library is linked as objects, so this runs in every test binary.
const PluginFolders kPluginFolders;
