// User-interface texts. translate() looks a key up in the built-in English table (or an
// installed catalogue) and keeps the text of its last translation, whose address stays
// valid until the next translate() or the translator's destruction. An unknown key
// translates to itself.
#pragma once

#include <string>

class UITranslator {
public:
    static const std::string PhoneHomeComponentName;
    static const std::string PhoneHomeWithCrashDumpName;

    UITranslator();
    ~UITranslator();

    const char* translate(const std::string& key);

private:
    std::string m_lastText;
};
