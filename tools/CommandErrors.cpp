// `kestor errors [CODE...]`: the text of each error code (all documented codes by default).
#include <cstdio>

#include "Commands.h"
#include "KError.h"
#include "KUtils.h"

namespace kestor::tool {

int RunErrors(const std::vector<long>& codes) {
    if (codes.empty()) {
        const std::string undocumented =
            KWideToUtf8(KErrorManager::GetErrorString(static_cast<eKErrorCode>(81)));
        for (int code = 0; code < 168; ++code) {
            const std::string text =
                KWideToUtf8(KErrorManager::GetErrorString(static_cast<eKErrorCode>(code)));
            if (text != undocumented) std::printf("%4d  %s\n", code, text.c_str());
        }
        return 0;
    }
    for (long code : codes) {
        std::printf(
            "%4ld  %s\n", code,
            KWideToUtf8(KErrorManager::GetErrorString(static_cast<eKErrorCode>(code))).c_str());
    }
    return 0;
}

}  // namespace kestor::tool
