// The live video output of the loaded grabber, behind KVideoOutputDriver. Codes: 73 when the
// grabber has no video output, 93 for a null output, 80 when the driver fails a call.
#pragma once

#include "KGrab.h"

namespace kestor {

class CKestorVideoOutputDriver : public KErrorDetect {
public:
    explicit CKestorVideoOutputDriver(IKUnknown* grabber);  // null: no output

    bool IsAvailable() const { return static_cast<bool>(output_); }
    bool IsEnabled(bool* enabled);
    bool Enable(bool enable);

private:
    KComPtr<IKVideoOutput> output_;
};

}  // namespace kestor
