// File-system helpers of the host.
#pragma once

#include <string>

// Creates `path` and every missing parent (mode 0755, like mkdir -p). A trailing "/" is
// allowed. Returns non-zero on success (also when the directory exists already), 0 when a
// component cannot be created or exists as a non-directory; errno tells why.
int MakeSureDirectoryPathExists(const char* path);

// Directory listing over opendir/readdir. Entries come in the order the file system yields
// them, "." and ".." included. The stream is closed by the destructor.
class Directory {
public:
    // `result` = 0, or pwresult::kDirectoryError when the directory cannot be opened.
    Directory(long& result, const std::string& path);
    ~Directory();

    // 0 while an entry is returned in `name`; pwresult::kDirectoryEnd at the end,
    // pwresult::kDirectoryError on a read error or when the directory was not opened.
    long ReadDir(std::string& name);

    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

private:
    void* m_pDir;  // DIR*
};
