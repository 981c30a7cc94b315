// The narrow settings interface that the feedback agent hands to the client's other
// modules (through the host callback) so that they can deposit named settings.
#pragma once

class IBencodeSettings {
public:
    virtual bool Insert(char const* key, long long value) = 0;
    virtual bool Insert(char const* key, char const* value, bool appendToList) = 0;
};
