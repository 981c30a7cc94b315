#include "report/Report.h"

namespace collector {

namespace {
const char* const kKindNames[] = {"feedback", "crash", "threat", "damaged"};
}

const char* KindName(ReportKind kind) {
    return kKindNames[static_cast<int>(kind)];
}

bool ParseKind(const std::string& text, ReportKind& kind) {
    for (int i = 0; i < 4; ++i) {
        if (text == kKindNames[i]) {
            kind = static_cast<ReportKind>(i);
            return true;
        }
    }
    return false;
}

}  // namespace collector
