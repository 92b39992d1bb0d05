// The simulated camera's settings in the registry store: one key per driver settings key,
// one value per setting. Values read back are range-checked; a missing, mistyped or
// out-of-range value is replaced by its default (and written back), never trusted.
#pragma once

#include "platform/Registry.h"
#include "simulated/SimulatedConfig.h"

namespace kestor::simulated {

inline constexpr const KChar* kDriverName = u"Simulated Camera";

class SimulatedSettingsStore {
public:
    // `settingsKey` followed by the driver's own subkey name.
    static WideString KeyPath(const KChar* settingsKey);

    // Creates the key when missing and reads every value into `config`.
    RegStatus Load(const WideString& path, SimulatedConfig& config);
    // Writes every value; the next Load sees them.
    RegStatus Save(const SimulatedConfig& config) const;
    // The time source status as it stands in the store now (it may be changed from outside
    // while the camera runs); `fallback` when it cannot be read.
    uint32_t ReadTimeSourceStatus(uint32_t fallback) const;

    const WideString& Path() const { return path_; }

private:
    WideString path_;
};

}  // namespace kestor::simulated
