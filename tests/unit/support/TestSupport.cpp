#include "TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace pwtest {

TempDir::TempDir() {
    std::string base = "/tmp";
    const char* tmp = getenv("TMPDIR");
    if (tmp != nullptr && *tmp != '\0') {
        base = tmp;
    }
    std::string pattern = base + "/pwtest-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed: " << strerror(errno);
    }
    m_path = buffer.data();
}

TempDir::~TempDir() {
    RemoveTree(m_path);
}

void RemoveTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        return;
    }
    if (S_ISDIR(st.st_mode)) {
        chmod(path.c_str(), 0700);  // tests make unwritable directories
        DIR* dir = opendir(path.c_str());
        if (dir != nullptr) {
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

void HostFixture::SetUp() {
    StartLogCapture();
    ClearFaults();
    UseManualClock(kStartSeconds);
}

void HostFixture::TearDown() {
    ClearFaults();
    UseRealClock();
    StopLogCapture();
}

std::string HostFixture::DumpLog() {
    std::string text;
    for (const LogRecord& record : CapturedLogs()) {
        text += "  [" + std::to_string(record.importance) + "] " + record.function + ": ";
        if (record.hasResult) {
            text += record.failedCall + " (" + std::to_string(record.result) + ") ";
        }
        text += record.text + "\n";
    }
    return text;
}

}  // namespace pwtest
