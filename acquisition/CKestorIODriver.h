// The digital lines of the loaded grabber, behind KIODriver. Codes: 73 when the grabber has no
// digital lines, 93 for a null output or an empty name buffer, 147 for a line outside
// 0 .. count-1, 93 for setting a line that is an input, 78 when the driver fails a read and 79
// when it fails to set a line.
#pragma once

#include "KGrab.h"

namespace kestor {

class CKestorIODriver : public KErrorDetect {
public:
    explicit CKestorIODriver(IKUnknown* grabber);  // queries the lines; null: none

    bool IsAvailable() const { return static_cast<bool>(io_); }
    bool GetLineCount(long* count);
    bool GetLineName(long line, KChar* name, unsigned int capacity);
    bool IsOutput(long line, bool* output);
    bool GetLine(long line, bool* level);
    bool SetLine(long line, bool level);

private:
    // Records why `line` cannot be used (73, 78, 147) and returns false.
    bool CheckLine(long line);
    bool AskIsOutput(int32_t line, bool& output);

    KComPtr<IKDigitalIO> io_;
};

}  // namespace kestor
