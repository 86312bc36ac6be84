// A machine of the tests: a home directory of its own and a communications manager that serves it,
// on a port that the system has given.
#pragma once

#include <filesystem>
#include <string>

#include "support/roles.h"
#include "support/support.h"

class Machine {
 public:
    explicit Machine(const std::string& netns = "") : m_netns(netns) {
        for (const char* directory : {"config", "etc", "tmp"})
            std::filesystem::create_directories(m_home / directory);
        Configure("configure.cfg", "[Machine]\nComms TcpPort=0\n");
    }
    // Adds to a configuration file; before the managers start.
    void Configure(const std::string& file, const std::string& text) const {
        const std::string path = m_home / ("config/" + file);
        WriteFile(path, ReadFile(path) + text);
    }
    void KnowMachines(const std::string& stanzas) const {
        WriteFile(m_home / "etc/machines.dat", stanzas);
    }
    // True once the communications manager serves.
    bool Start() {
        m_comms = Process({TEST_MANAGERS "/commsmanager"}, Home(), m_netns);
        return m_comms.Line().starts_with("ready ");
    }
    Process InRole(const std::string& role, const std::vector<std::string>& arguments) const {
        return Process::InRole(role, arguments, Home(), m_netns);
    }
    Process& Comms() { return m_comms; }
    const std::string& Home() const { return m_home.Path(); }

 private:
    TempDir m_home;
    std::string m_netns;
    Process m_comms;
};
