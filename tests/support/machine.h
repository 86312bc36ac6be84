// A machine of the tests: a home directory of its own and a communications manager that serves it,
// on a port that the system has given, with whatever other managers a test starts. With a name
// space it has a network of its own, whose name is the machine's as well.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "support/roles.h"
#include "support/support.h"

class Machine {
 public:
    explicit Machine(const std::string& netns = "") : m_netns(netns) {
        for (const char* directory : {"bin", "config", "etc", "tmp"})
            std::filesystem::create_directories(m_home / directory);
        Configure("configure.cfg", "[Machine]\nComms TcpPort=0\n");
        WriteFile(m_home / "bin/keys", "");
        Configure("programs.cfg", "[Process Manager]\nunix=bin/keys\n");
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
    // A program for the process manager to start, "bin/NAME": this one in the role "program", with
    // the name and the process id as arguments.
    void AddProgram(const std::string& name) const {
        const std::string path = m_home / ("bin/" + name);
        WriteFile(path, std::string("#!/bin/sh\nexec ") + TEST_EMULATOR + " " +
                            std::filesystem::read_symlink("/proc/self/exe").string() +
                            " --role program " + name + " $1\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }
    // True once the communications manager serves.
    bool Start() { return Start("commsmanager"); }
    // True once a further manager serves: "Manager Port" of its configuration concerns that of the
    // network.
    bool Start(const std::string& manager) {
        m_managers[manager] = Process({TEST_MANAGERS "/" + manager}, Home(), m_netns);
        return m_managers[manager].Line().starts_with("ready ");
    }
    bool StartNetwork() { return Start("netmanager"); }
    Process InRole(const std::string& role, const std::vector<std::string>& arguments) const {
        return Process::InRole(role, arguments, Home(), m_netns);
    }
    Process& Manager(const std::string& name) { return m_managers[name]; }
    Process& Comms() { return Manager("commsmanager"); }
    Process& Network() { return Manager("netmanager"); }
    const std::string& Name() const { return m_netns; }  // "" when it is this host's
    const std::string& Home() const { return m_home.Path(); }

 private:
    TempDir m_home;
    std::string m_netns;
    std::map<std::string, Process> m_managers;
};
