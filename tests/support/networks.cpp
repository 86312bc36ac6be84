// The line between a and b (a < b) is 10.91.(10a+b).0/24 and fd91:0:0:(10a+b)::/64. The end of a
// has the host number 1 and that of b 130, so that the silent addresses 131 and on beside a, and 2
// and on beside b, share more bits with the one who calls than the real one does: the name service
// puts those first.
#include "support/networks.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "support/support.h"

namespace {

std::string Line(int a, int b) { return std::to_string(10 * std::min(a, b) + std::max(a, b)); }

std::string End(int from) { return "to" + std::to_string(from); }

// What a command says, and whether it succeeds.
std::pair<std::string, bool> Said(const std::string& command) {
    std::string said;
    char buffer[256];
    FILE* output = popen(command.c_str(), "re");
    while (output != nullptr && std::fgets(buffer, sizeof(buffer), output) != nullptr)
        said += buffer;
    return {said, output != nullptr && pclose(output) == 0};
}

}  // namespace

Networks::Networks(int count) {
    const std::string name = "tl" + std::to_string(getpid());
    for (int n = 0; n < count && m_problem.empty(); n++) {
        m_names.push_back(name + static_cast<char>('a' + n));
        if (Ip("netns add " + m_names.back())) Ip("-n " + m_names.back() + " link set lo up");
    }
    for (int b = 1; b < count && m_problem.empty(); b++) {
        for (int a = 0; a < b && Join(a, b); a++) {
        }
    }
}

Networks::~Networks() {
    for (const std::string& name : m_names) Ip("netns del " + name);
}

std::string Networks::Inet(int of, int from) const {
    return "10.91." + Line(of, from) + (of < from ? ".1" : ".130");
}

std::string Networks::Inet6(int of, int from) const {
    return "fd91:0:0:" + Line(of, from) + (of < from ? "::1" : "::82");
}

std::string Networks::Silent(int of, int from, int which) {
    const std::string address =
        "10.91." + Line(of, from) + "." + std::to_string((of < from ? 131 : 2) + which);
    // Known to the line by a number that no end of it has.
    Ip("-n " + Name(from) + " neigh replace " + address +
       " lladdr 02:00:00:00:00:99 nud permanent dev " + End(of));
    return address;
}

bool Networks::Cut(int of, int from) {
    return Ip("-n " + Name(of) + " link set " + End(from) + " down");
}

bool Networks::Mend(int of, int from) {
    return Ip("-n " + Name(of) + " link set " + End(from) + " up") && Carries(of, from) &&
           Carries(from, of);
}

// A line that is back drops what it is given for a second or two, until both systems have seen it.
bool Networks::Carries(int of, int from) {
    const std::string call = "ip netns exec " + Name(from) +
                             " timeout 1 bash -c 'exec 3<>/dev/tcp/" + Inet(of, from) + "/9' 2>&1";
    for (int tries = 0; tries < 20; tries++) {
        if (Said(call).first.find("refused") != std::string::npos) return true;
        usleep(100000);
    }
    return false;
}

bool Networks::Join(int a, int b) {
    if (!Ip("link add " + End(b) + " netns " + Name(a) + " type veth peer name " + End(a) +
            " netns " + Name(b)))
        return false;
    for (const auto& [of, from] : {std::pair(a, b), std::pair(b, a)}) {
        const std::string end = "-n " + Name(of) + " ";
        if (!Ip(end + "addr add " + Inet(of, from) + "/24 dev " + End(from)) ||
            !Ip(end + "addr add " + Inet6(of, from) + "/64 nodad dev " + End(from)) ||
            !Ip(end + "link set " + End(from) + " up"))
            return false;
    }
    return true;
}

// The first failure is kept, with the command and what it said.
bool Networks::Ip(const std::string& arguments) {
    const auto [said, succeeded] = Said("ip " + arguments + " 2>&1");
    if (!succeeded && m_problem.empty()) m_problem = "ip " + arguments + ": " + said;
    return succeeded;
}
