// Scratch directories and whole-file reads and writes, for the tests and the benchmarks.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace pwsupport {

// A fresh directory "<base>/<prefix>XXXXXX", removed with its content by the destructor.
// path() is empty if it could not be made (errno then tells why).
class ScratchDir {
public:
    ScratchDir(const std::string& base, const std::string& prefix);
    ~ScratchDir();
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

private:
    std::string m_path;
};

// Removes `path` and, for a directory, everything below it (unwritable directories too).
void RemoveTree(const std::string& path);
bool WriteFile(const std::string& path, const std::string& content);
bool ReadFile(const std::string& path, std::string& content);
std::string ReadFileOrEmpty(const std::string& path);
bool FileExists(const std::string& path);

// Names in `directory` that are longer than `suffix` and end with it, without the suffix,
// sorted; and their number.
std::vector<std::string> FilesWithSuffix(const std::string& directory, const std::string& suffix);
size_t CountFiles(const std::string& directory, const std::string& suffix);

}  // namespace pwsupport
