// Facts about machines, from a hand-written machines.dat and the local configuration.
#include <gtest/gtest.h>

#include "core/machineinfo.h"
#include "core/sys.h"
#include "support/files.h"
#include "support/leftovers.h"

namespace {

using Text = std::string;

// All that can be asked about a machine, in one line; "-" for what is refused.
Text Facts(const char* machine) {
    const auto number = [&](auto fnGet, auto tValue) {
        return fnGet(&tValue, machine) == TRUE ? std::to_string(tValue) + " " : Text("- ");
    };
    const auto text = [&](auto fnGet) {
        char* pstrValue = nullptr;
        return fnGet(&pstrValue, machine) == TRUE ? "'" + Owned(pstrValue) + "' " : Text("- ");
    };
    const Text facts = number(MachInfoGetSystemType, MachInfoSysTypeE{7}) +
                       number(MachInfoIsTLServer, BooleanT{7}) + number(MachInfoGetTLVersion, 7) +
                       number(MachInfoTLVersionMajor, 7) + number(MachInfoTLVersionMinor, 7) +
                       number(MachInfoGetTLVersionAndBuild, 7) +
                       number(MachInfoGetTLPatchLevel, 7) + text(MachInfoGetDescription) +
                       text(MachInfoGetPreferredAddr) + text(MachInfoGetContactAddr);
    const char* version = MachInfoTLVersionString(machine);
    return facts + (version == nullptr ? "-" : version);
}

}  // namespace

TEST(MachineInfo, FactsOfMachines) {
    WriteInHome(
        "etc/machines.dat",
        "[bare]\n"
        "[full]\nType=WinNT\nServer=True\nDescription=a box\nTLVersion=7012\nTLBuildLevel=34\n"
        "Preferred Address=10.0.0.1\nContact Address=10.0.0.2\n"
        "[odd]\nType=beos\nServer=yes\nTLVersion=new\nTLBuildLevel=x\n"
        "[huge]\nType=UNIX\nTLVersion=2147483647\nTLBuildLevel=2147483647\n"
        "[zero]\nTLVersion=7000\n"
        "[Local]\nType=winnt\nServer=TRUE\nTLVersion=1\nTLBuildLevel=2\nDescription=wrong\n"
        "Preferred Address=wrong\nContact Address=wrong\n"
        "[other:hidden]\nType=unix\n");
    ASSERT_EQ(SysSetLocalMachineName("local"), TRUE);
    const Text bare = "0 6003 6 3 6003000 0 '' ";
    const std::pair<const char*, Text> machines[] = {
        {"bare", "0 " + bare + "'bare' 'bare' 6.03"},
        {"full", "1 1 7012 7 12 7012034 34 'a box' '10.0.0.1' '10.0.0.2' 7.12"},
        {"odd", "- " + bare + "'odd' 'odd' 6.03"},
        {"huge", "0 0 2147483647 2147483 647 2147482647 2147483647 '' 'huge' 'huge' 2147483.647"},
        {"zero", "0 0 7000 7 0 7000000 0 '' 'zero' 'zero' 7.00"},
        {"LOCAL", "7 " + bare + "'LOCAL' 'LOCAL' 6.03"},
    };
    const Leftovers before;
    for (const auto& [machine, facts] : machines) EXPECT_EQ(Facts(machine), facts);
    for (const char* unknown : {"hidden", "none", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(Facts(unknown), "- - - - - - - - - - -");
    EXPECT_EQ(before.Text(), "");

    WriteInHome("config/configure.cfg",
                "[Details]\nServer=true\nDescription=mine\nTLBuildLevel=5\nTLVersion=1\n"
                "Preferred Address=10.0.0.3\nContact Address=10.0.0.4\n");
    WriteInHome("config/version.cfg", "[Details]\nTLVersion=7001\nTLBuildLevel=9\n");
    EXPECT_EQ(Facts("local"), "7 1 7001 7 1 7001009 5 'mine' '10.0.0.3' '10.0.0.4' 7.01");
    WriteInHome("config/configure.cfg", "[Details]\nServer=no\nTLBuildLevel=no\n");
    WriteInHome("config/version.cfg", "[Details]\nTLVersion=no\nTLBuildLevel=no\n");
    EXPECT_EQ(Facts("local"), "7 " + bare + "'local' 'local' 6.03");
    EXPECT_EQ(MachInfoFind("Local"), TRUE);
    for (const char* machine : {"full", "none", static_cast<const char*>(nullptr)})
        EXPECT_EQ(MachInfoFind(machine), FALSE);
    for (const auto& [lVersion, text] : {std::pair{6010, "6.10"},
                                         {6009, "6.09"},
                                         {0, "0.00"},
                                         {INT32_MAX, "2147483.647"},
                                         {INT32_MIN, "-2147483.0-648"}})
        EXPECT_STREQ(MachInfoTLVersionStringFromTLVersion(lVersion), text);
}
