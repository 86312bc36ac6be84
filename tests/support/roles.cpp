#include "support/roles.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

#include "core/context.h"

namespace {

using Clock = std::chrono::steady_clock;

std::map<std::string, RoleFunction>& Roles() {
    static std::map<std::string, RoleFunction> roles;
    return roles;
}

int MillisecondsUntil(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// Into a name space, with a host name and, where the home directory holds one, a table of hosts of
// its own: the machine's are those of the name space.
bool Enter(const std::string& netns, const std::string& home) {
    const int space = open(("/run/netns/" + netns).c_str(), O_RDONLY | O_CLOEXEC);
    if (space == -1 || setns(space, CLONE_NEWNET) != 0 || unshare(CLONE_NEWUTS) != 0 ||
        sethostname(netns.data(), netns.size()) != 0)
        return false;
    const std::string hosts = home + "/etc/hosts";
    if (access(hosts.c_str(), R_OK) != 0) return true;
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
}

[[noreturn]] void Become(const std::vector<std::string>& arguments, const std::string& home,
                         const std::string& netns) {
    if (!netns.empty() && !Enter(netns, home)) _exit(126);
    setenv("KRHOME", home.c_str(), 1);
    std::vector<std::string> words = arguments;
    if (const std::string emulator = TEST_EMULATOR; !emulator.empty())
        words.insert(words.begin(), emulator);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

}  // namespace

Role::Role(const char* name, RoleFunction function) { Roles()[name] = function; }

void RunRole(int argc, char** argv) {
    if (argc < 3 || std::strcmp(argv[1], "--role") != 0) return;
    const auto role = Roles().find(argv[2]);
    if (role == Roles().end() || ContextInitialize() != TRUE) std::exit(125);
    const int code = role->second(std::vector<std::string>(argv + 3, argv + argc));
    std::fflush(stdout);
    std::exit(code);
}

Process::Process(const std::vector<std::string>& arguments, const std::string& home,
                 const std::string& netns) {
    int in[2], out[2];
    std::fflush(stdout);
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
    m_id = fork();
    if (m_id == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        Become(arguments, home, netns);
    }
    close(in[0]);
    close(out[1]);
    m_input = in[1];
    m_output = out[0];
}

Process Process::InRole(const std::string& role, const std::vector<std::string>& arguments,
                        const std::string& home, const std::string& netns) {
    std::vector<std::string> words = {std::filesystem::read_symlink("/proc/self/exe"), "--role",
                                      role};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return Process(words, home, netns);
}

Process::~Process() {
    Kill();
    for (const int end : {m_input, m_output})
        if (end != -1) close(end);
}

Process::Process(Process&& other) noexcept
    : m_id(std::exchange(other.m_id, -1)),
      m_input(std::exchange(other.m_input, -1)),
      m_output(std::exchange(other.m_output, -1)),
      m_read(std::move(other.m_read)) {}

Process& Process::operator=(Process&& other) noexcept {
    std::swap(m_id, other.m_id);
    std::swap(m_input, other.m_input);
    std::swap(m_output, other.m_output);
    std::swap(m_read, other.m_read);
    return *this;
}

bool Process::ReadMore(int milliseconds) {
    pollfd output = {m_output, POLLIN, 0};
    char buffer[4096];
    if (m_output == -1 || poll(&output, 1, milliseconds) <= 0) return false;
    const ssize_t count = read(m_output, buffer, sizeof(buffer));
    if (count <= 0) return false;
    m_read.append(buffer, static_cast<std::size_t>(count));
    return true;
}

std::string Process::Line(int seconds) {
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        if (const auto at = m_read.find('\n'); at != std::string::npos) {
            const std::string line = m_read.substr(0, at);
            m_read.erase(0, at + 1);
            return line;
        }
        if (!ReadMore(MillisecondsUntil(end))) return "";
    }
}

void Process::Write(const std::string& text) const {
    if (write(m_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
}

void Process::Signal(int number) const {
    if (m_id > 0) kill(m_id, number);
}

// The one place that kills. Without a process there is none to kill: to the system the id -1 means
// every process there is.
void Process::Kill() {
    if (m_id <= 0) return;
    kill(m_id, SIGCONT);
    kill(m_id, SIGKILL);
    waitpid(m_id, nullptr, 0);
    m_id = -1;
}

int Process::Wait(int seconds) {
    if (m_id <= 0) return -3;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    // The pipe is at its end when the process is, unless a child of its holds it too.
    while (ReadMore(MillisecondsUntil(end))) {
    }
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(m_id, &status, WNOHANG)) == 0 && Clock::now() < end) usleep(1000);
    if (ended != m_id) {
        Kill();
        return -2;
    }
    m_id = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
