#include "ScratchFiles.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace pwsupport {

ScratchDir::ScratchDir(const std::string& base, const std::string& prefix) {
    std::string pattern = base + "/" + prefix + "XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) != nullptr) {
        m_path = buffer.data();
    }
}

ScratchDir::~ScratchDir() {
    if (!m_path.empty()) {
        RemoveTree(m_path);
    }
}

void RemoveTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        return;
    }
    if (S_ISDIR(st.st_mode)) {
        chmod(path.c_str(), 0700);  // tests make unwritable directories
        if (DIR* dir = opendir(path.c_str())) {
            std::vector<std::string> names;
            while (struct dirent* entry = readdir(dir)) {
                if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
                    names.push_back(entry->d_name);
                }
            }
            closedir(dir);
            for (const std::string& name : names) {
                RemoveTree(path + "/" + name);
            }
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

bool WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(out);
}

bool ReadFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    content = buffer.str();
    return true;
}

std::string ReadFileOrEmpty(const std::string& path) {
    std::string content;
    ReadFile(path, content);
    return content;
}

bool FileExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> FilesWithSuffix(const std::string& directory, const std::string& suffix) {
    std::vector<std::string> names;
    if (DIR* dir = opendir(directory.c_str())) {
        while (struct dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name.size() > suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                names.push_back(name.substr(0, name.size() - suffix.size()));
            }
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

size_t CountFiles(const std::string& directory, const std::string& suffix) {
    return FilesWithSuffix(directory, suffix).size();
}

}  // namespace pwsupport
