#include "support/support.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

// There in a coverage build.
void WriteCounts() asm("__gcov_dump") __attribute__((weak));

namespace {

std::vector<TraceCapture::Record> g_records;

BooleanT Collect(const char* pBuffer, int32 lSize, void* /*pArgument*/) {
    TraceMessageHeaderT head;
    std::memcpy(&head, pBuffer, sizeof(head));
    std::string module(head.strModuleId, sizeof(head.strModuleId));
    module.erase(module.find_last_not_of(' ') + 1);
    const char* text = pBuffer + sizeof(head);
    g_records.push_back({module, head.lTraceId, head.lStatusCode, head.lLevel,
                         std::string(text, strnlen(text, lSize - sizeof(head)))});
    errno = 0;
    return TRUE;
}

std::string MakeTempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tesselXXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    return pattern;
}

// Reads a child's standard output to its end and waits for it.
RunResult Finish(pid_t child, int fd) {
    RunResult result;
    char buffer[65536];
    ssize_t count = 0;
    while ((count = read(fd, buffer, sizeof(buffer))) > 0 || (count < 0 && errno == EINTR))
        if (count > 0) result.output.append(buffer, static_cast<std::size_t>(count));
    close(fd);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

template <class F>
RunResult Fork(F inChild) {
    int ends[2];
    if (pipe(ends) != 0) std::abort();
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        inChild();
    }
    close(ends[1]);
    return Finish(child, ends[0]);
}

}  // namespace

TempDir::TempDir() : m_path(MakeTempDir()) {}

TempDir::~TempDir() {
    std::error_code error;
    fs::remove_all(m_path, error);
}

const std::string& TestHome() {
    static const char* const given = std::getenv(TestHomeVariable);
    static const std::string path = given == nullptr ? "" : given;
    if (given != nullptr) return path;
    static const TempDir home;
    return home.Path();
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::abort();
    }
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> ListDir(const std::string& path) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(path, error))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> Split(const std::string& text, char end) {
    std::istringstream in(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(in, part, end);) parts.push_back(part);
    return parts;
}

TraceCapture::TraceCapture(int32 level)
    : m_previous(TraceSetLevel(static_cast<TraceLevelE>(level))) {
    g_records.clear();
    TraceSetCallback(Collect);
}

TraceCapture::~TraceCapture() {
    TraceSetCallback(nullptr);
    TraceSetLevel(m_previous);
    g_records.clear();
}

const std::vector<TraceCapture::Record>& TraceCapture::Records() const { return g_records; }

int TraceCapture::Count(const std::string& module, int32 number) const {
    return static_cast<int>(std::ranges::count_if(
        g_records, [&](const Record& r) { return r.module == module && r.number == number; }));
}

TraceCapture::Record TraceCapture::First(const std::string& module, int32 number) const {
    for (const Record& record : g_records)
        if (record.module == module && record.number == number) return record;
    return {module, number, 0, -99, ""};
}

int TraceCapture::CountText(const std::string& text) const {
    return static_cast<int>(std::ranges::count(g_records, text, &Record::text));
}

void TraceCapture::Clear() { g_records.clear(); }

RunResult Run(const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment) {
    std::vector<std::string> words = arguments;
    if (const std::string emulator = TEST_EMULATOR; !emulator.empty())
        words.insert(words.begin(), emulator);
    return Fork([&] {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        for (const std::string& entry : environment) putenv(strdup(entry.c_str()));
        execv(argv[0], argv.data());
        _exit(127);
    });
}

void EndChild(int code) {
    if (WriteCounts != nullptr) {
        // Files of counts that a test's limit cuts short would spoil what others wrote.
        struct rlimit limit = {};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_FSIZE, &limit);
        WriteCounts();
    }
    _exit(code);
}

RunResult RunForked(int (*function)(void*), void* argument) {
    return Fork([&] {
        const int code = function(argument);
        std::fflush(stdout);
        EndChild(code);
    });
}
