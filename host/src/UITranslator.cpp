// User-interface texts: built-in English, translated through an installed gettext
// catalogue of the "pathweave" domain when the process's locale has one.
#include "UITranslator.h"

#include <libintl.h>

namespace {

const char kTextDomain[] = "pathweave";

struct Entry {
    const char* key;
    const char* english;
};

const Entry kTexts[] = {
    {"PhoneHomeComponentName", "Customer Experience Feedback"},
    {"PhoneHomeWithCrashDumpName", "Customer Experience Feedback (with crash reports)"},
};

}  // namespace

const std::string UITranslator::PhoneHomeComponentName = "PhoneHomeComponentName";
const std::string UITranslator::PhoneHomeWithCrashDumpName = "PhoneHomeWithCrashDumpName";

UITranslator::UITranslator() {}

UITranslator::~UITranslator() {}

const char* UITranslator::translate(const std::string& key) {
    const char* english = nullptr;
    for (const Entry& entry : kTexts) {
        if (key == entry.key) {
            english = entry.english;
            break;
        }
    }
    if (english == nullptr) {
        m_lastText = key;
    } else {
        // dgettext hands back its argument when no catalogue translates it.
        m_lastText = dgettext(kTextDomain, english);
    }
    return m_lastText.c_str();
}
