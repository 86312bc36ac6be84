// A machine of the tests: a home directory of its own and a communications manager that serves it,
// on a port that the system has given. With a name space it has a network of its own, whose name is
// the machine's as well, and may have a network manager.
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
    // Its table of hosts; with a name space only.
    void KnowHosts(const std::string& lines) const { WriteFile(m_home / "etc/hosts", lines); }
    // True once the communications manager serves.
    bool Start() {
        m_comms = Process({TEST_MANAGERS "/commsmanager"}, Home(), m_netns);
        return m_comms.Line().starts_with("ready ");
    }
    // True once the network manager serves too, which "Manager Port" of its configuration concerns.
    bool StartNetwork() {
        m_network = Process({TEST_MANAGERS "/netmanager"}, Home(), m_netns);
        return m_network.Line().starts_with("ready ");
    }
    Process InRole(const std::string& role, const std::vector<std::string>& arguments) const {
        return Process::InRole(role, arguments, Home(), m_netns);
    }
    Process& Comms() { return m_comms; }
    Process& Network() { return m_network; }
    const std::string& Name() const { return m_netns; }  // "" when it is this host's
    const std::string& Home() const { return m_home.Path(); }

 private:
    TempDir m_home;
    std::string m_netns;
    Process m_comms;
    Process m_network;
};
