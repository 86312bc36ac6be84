// Machines that are joined pairwise by networks of their own.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "support/machine.h"
#include "support/networks.h"

constexpr int ManagerPort = 20500;  // of every network manager

class World {
 public:
    explicit World(int count) : m_networks(count) {
        for (int n = 0; n < count && Problem().empty(); n++) {
            m_machines.push_back(std::make_unique<Machine>(m_networks.Name(n)));
            At(n).Configure("tlnmgr.cfg", "[Network]\nManager Port=" + std::to_string(ManagerPort) +
                                              "\n" + (count == 2 ? "Peer Timeout=2\n" : "") +
                                              "Connect Timeout=1\n");
        }
    }
    const std::string& Problem() const { return m_networks.Problem(); }
    Machine& At(int n) { return *m_machines[static_cast<std::size_t>(n)]; }
    Networks& Lines() { return m_networks; }
    // The numbers of a machine differ between those that know it.
    std::string Stanza(int of, int by, const std::string& addresses) {
        return "[" + m_networks.Name(of) + "]\nId=" + std::to_string(10 * of + by + 20) +
               "\nManager Port=" + std::to_string(ManagerPort) + "\n" + addresses;
    }
    // They know each other at one address, and what else a stanza says of each.
    void Introduce(bool inet6, const std::string& more = "") {
        for (int by = 0; by < Count(); by++) {
            std::string stanzas;
            for (int of = 0; of < Count(); of++) {
                if (of == by) continue;
                stanzas += Stanza(of, by,
                                  "Contact Address=" +
                                      (inet6 ? m_networks.Inet6(of, by) : m_networks.Inet(of, by)) +
                                      "\n" + more);
            }
            At(by).KnowMachines(stanzas);
        }
    }
    bool Start() {
        for (const auto& machine : m_machines) {
            if (!machine->Start() || !machine->StartNetwork()) return false;
        }
        return true;
    }
    int Count() const { return static_cast<int>(m_machines.size()); }

 private:
    Networks m_networks;
    std::vector<std::unique_ptr<Machine>> m_machines;
};

// Leaves the test, as skipped, where networks cannot be made.
#define NEED_NETWORKS(world) \
    if (!(world).Problem().empty()) GTEST_SKIP() << "no networks can be made: " << (world).Problem()
