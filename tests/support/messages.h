// What the tests of messages share: holders, addresses as texts, and packets written by hand.
// Addresses are written "machine:id", with "." for this machine and "-" for none, as of a channel.
#pragma once

#include <array>
#include <string>

#include "core/msg.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "support/archivebytes.h"

using Address = ObjHolder<MsgAddressS>;
using Message = ObjHolder<MsgMessageS>;
using Packet = ObjHolder<MsgPacketS>;

inline MsgAddressO At(const std::string& text) {
    if (text.empty()) return nullptr;
    const std::string name = text.substr(0, text.find(':'));
    const char* machine = name == "." ? SysLocalMachineName() : name.c_str();
    MsgAddressO address = nullptr;
    MsgMakeAddress(&address, name == "-" ? nullptr : machine,
                   std::stoi(text.substr(name.size() + 1)));
    return address;
}

inline std::string Shown(MsgAddressO address) {
    if (address == nullptr) return "nobody";
    const char* name = MsgGetMachineName(address);
    const char* shown = name == nullptr                              ? "-"
                        : std::string(name) == SysLocalMachineName() ? "."
                                                                     : name;
    return shown + (":" + std::to_string(MsgGetProcessId(address)));
}

struct TimeoutIn : ObjHolder<TimeTimeoutS> {
    explicit TimeoutIn(int milliseconds) {
        TimeCreateAndSetTimeout(Address(), milliseconds / 1000, milliseconds % 1000);
    }
};

// An object with these fields; what they own becomes the object's.
template <class T>
struct New : ObjHolder<T> {
    New(int32 magic, const char* descriptor, T fields = {})
        : ObjHolder<T>(ObjNew<T>(magic, descriptor)) {
        *this->Get() = fields;
    }
    T* operator->() const { return this->Get(); }
};

// What a network link carries of a packet: its body alone.
inline std::string Frame(MsgTypeT type, const std::string& object) {
    return bytes::Long(8 + static_cast<std::int64_t>(object.size())) + bytes::Long(type) + object;
}

// Next hop, machine and process of the source, machine and process of the destination.
using Ends = std::array<int32, 5>;

// Every word stands least significant byte first here: the host's order is that of this machine.
inline std::string PacketBytes(const Ends& e, MsgTypeT type, const std::string& object) {
    using bytes::Long;
    return Long(e[0]) + Long(200 + static_cast<std::int64_t>(object.size())) + Long(e[1]) +
           Long(e[2]) + Long(e[3]) + Long(e[4]) + Long(type) + Long(0) + std::string(160, '\0') +
           Frame(type, object);
}
