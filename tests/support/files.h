// What the tests of paths and files share.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "core/filelock.h"
#include "core/filesys.h"
#include "core/memory.h"
#include "support/support.h"

// A path that goes where a std::string or a const char* is taken.
struct Name : std::string {
    Name(std::string text) : std::string(std::move(text)) {}
    Name(const char* text) : std::string(text) {}
    operator const char*() const { return c_str(); }
};

// A fresh directory and the names in it.
struct Dir : TempDir {
    Name operator()(const std::string& name) const { return Name(Path() + "/" + name); }
};

// A file below the home directory; the directories on the way to it are made.
inline void WriteInHome(const std::string& name, const std::string& bytes) {
    const std::filesystem::path path = TestHome() + "/" + name;
    std::filesystem::create_directories(path.parent_path());
    WriteFile(path, bytes);
}

// The text of a block that the caller owns; "<null>" for none.
template <class T>
std::string Owned(T* block) {
    if (block == nullptr) return "<null>";
    std::string text = block;
    MemFree(&block);
    return text;
}

inline RunResult InChild(std::function<int()> function) {
    return RunForked([](void* f) { return (*static_cast<std::function<int()>*>(f))(); }, &function);
}

// Whether a function, called with the numbers from 0 on in so many child processes at once, returns
// 0 in each of them.
inline bool InChildren(int count, const std::function<int(int number)>& function) {
    std::vector<pid_t> children;
    for (int number = 0; number < count; ++number) {
        children.push_back(fork());
        if (children.back() == 0) EndChild(function(number));
    }
    int failed = 0;
    for (const pid_t child : children) {
        int status = -1;
        failed += child < 0 || waitpid(child, &status, 0) != child || status != 0 ? 1 : 0;
    }
    return failed == 0;
}

// Whether another process would get a lock on a file without waiting.
inline bool LockIsFree(const std::string& path, FileLockT lock) {
    return InChild([&] {
               FileHandleT handle = FileHandleClosed;
               FileSysOpen(&handle, path.c_str(), FileModeReadWrite);
               return FileLockSetNoWait(handle, lock);
           }).exitCode == TRUE;
}

// Type and permissions of a file; 0 when it is not there.
inline unsigned ModeOf(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

// Makes directories of one name inside each other until their path is longer than the system takes.
inline const Name TooDeepName(std::string(200, 'n'));
inline bool MakeTooDeep(const std::string& top) {
    return InChild([&] {
               int failed = chdir(top.c_str());
               for (int level = 0; level < 25 && failed == 0; ++level)
                   failed = mkdir(TooDeepName, 0700) != 0 || chdir(TooDeepName) != 0;
               return failed;
           }).exitCode == 0;
}
