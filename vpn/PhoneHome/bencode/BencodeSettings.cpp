// CBencodeSettings: the settings interface handed to other modules, mapped onto a
// dictionary that the agent owns. Its records carry the agent's source file name, since
// the adapter is part of the agent's interface towards the modules.
#include "Bencode.h"

#include <cstring>
#include <new>

#include "AppLog.h"

#define SETTINGS_LOG_ERROR(...)                                                                  \
    CAppLog::LogDebugMessage(__func__, "vpn/PhoneHome/PhoneHomeAgent", __LINE__, CAppLog::Error, \
                             __VA_ARGS__)

namespace {

void LogWithoutThrowing(char const* text) {
    try {
        CAppLog::LogDebugMessage("Insert", "vpn/PhoneHome/PhoneHomeAgent", __LINE__, CAppLog::Error,
                                 "%s", text);
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

CBencodeSettings::CBencodeSettings(CBencodeDictionary& dictionary) : m_dictionary(dictionary) {}

CBencodeSettings::~CBencodeSettings() {}

// Modules call these through the host: memory that runs short fails the insertion (as a
// refused one), and nothing unwinds through the caller.
bool CBencodeSettings::Insert(char const* key, char const* value, bool appendToList) {
    try {
        return InsertString(key, value, appendToList);
    } catch (const std::bad_alloc&) {
        LogWithoutThrowing("Failed to insert string into dictionary");
        return false;
    }
}

bool CBencodeSettings::Insert(char const* key, long long value) {
    try {
        return InsertInteger(key, value);
    } catch (const std::bad_alloc&) {
        LogWithoutThrowing("Failed to insert integer into dictionary");
        return false;
    }
}

bool CBencodeSettings::InsertString(char const* key, char const* value, bool appendToList) {
    if (key == nullptr || value == nullptr) {
        SETTINGS_LOG_ERROR("NULL parameter passed");
        return false;
    }
    if (strnlen(key, m_uiMaxKeySize + 1) > m_uiMaxKeySize) {
        SETTINGS_LOG_ERROR("Key size greater than maximum permitted limit (%d)",
                           static_cast<int>(m_uiMaxKeySize));
        return false;
    }
    // This bound measures the key, not the value, so the key bound above always decides
    // first and values of any length pass; the file reader bounds strings when read back.
    if (strnlen(key, m_uiMaxValueStringSize + 1) >= m_uiMaxValueStringSize) {
        SETTINGS_LOG_ERROR("Value string size greater than maximum permitted limit (%d)",
                           static_cast<int>(m_uiMaxValueStringSize));
        return false;
    }
    if (appendToList) {
        CBencodeList* list = nullptr;
        if (!m_dictionary.Get(key, list, true)) {
            SETTINGS_LOG_ERROR("Failed to get CBencodeList instance with key (%s)", key);
            return false;
        }
        if (!list->Append(std::string(value))) {
            SETTINGS_LOG_ERROR("Failed to insert string into list");
            return false;
        }
        return true;
    }
    if (!m_dictionary.Insert(key, std::string(value))) {
        SETTINGS_LOG_ERROR("Failed to insert string into dictionary");
        return false;
    }
    return true;
}

bool CBencodeSettings::InsertInteger(char const* key, long long value) {
    if (key == nullptr) {
        SETTINGS_LOG_ERROR("NULL parameter passed");
        return false;
    }
    if (strnlen(key, m_uiMaxKeySize + 1) > m_uiMaxKeySize) {
        SETTINGS_LOG_ERROR("Keysize greater than maximum permitted limit (%d)",
                           static_cast<int>(m_uiMaxKeySize));
        return false;
    }
    if (!m_dictionary.Insert(key, value)) {
        SETTINGS_LOG_ERROR("Failed to insert integer into dictionary");
        return false;
    }
    return true;
}
