// Processes that a test starts from its own program: new ones, in which the library starts afresh,
// each with a role that the test file has named.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

using RoleFunction = int (*)(const std::vector<std::string>& arguments);

// Names a role: static const Role echo("echo", Echo);
struct Role {
    Role(const char* name, RoleFunction function);
};

// The program's own role when it was started in one; never returns then.
void RunRole(int argc, char** argv);

// A child process and what it prints. Its end is waited for, or brought about, at the latest when
// the object goes.
class Process {
 public:
    Process() = default;
    // A program with arguments, in a home directory, without waiting for it. A name space other
    // than "" is that of the network in which it runs; it is the host's name then, and "etc/hosts"
    // of the home directory its table of hosts when it is there.
    Process(const std::vector<std::string>& arguments, const std::string& home,
            const std::string& netns = "");
    // This program in a role.
    static Process InRole(const std::string& role, const std::vector<std::string>& arguments,
                          const std::string& home, const std::string& netns = "");
    ~Process();
    Process(Process&& other) noexcept;
    Process& operator=(Process&& other) noexcept;

    pid_t Id() const { return m_id; }
    // The next line that it prints, without its end; "" when it prints none any more or the seconds
    // are over.
    std::string Line(int seconds = 60);
    void Write(const std::string& text) const;  // to its standard input
    void Signal(int number) const;
    // Its exit code, once it has ended; -1 when a signal ended it, -2 when the seconds were over,
    // after which it has been killed, -3 at once when there is none to wait for. What it still
    // printed is added to what was not read yet.
    int Wait(int seconds = 120);
    const std::string& Rest() const { return m_read; }

 private:
    void Kill();
    bool ReadMore(int milliseconds);

    pid_t m_id = -1;
    int m_input = -1;
    int m_output = -1;
    std::string m_read;
};
