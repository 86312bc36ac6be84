// What the processes of the soak say to each other.
//
// The controller (soak.cpp) is a viewer. It starts load processes (load.cpp), each in a place: some
// are services that get a task, some are adopted. A place keeps its number when its process is
// killed and another one comes.
#pragma once

#include <string>

#include "core/object.h"
#include "core/types.h"
#include "support/peer.h"

constexpr MsgTypeT HelloType = 30001;   // to the controller: "PLACE PID"
constexpr MsgTypeT RosterType = 30002;  // to load processes: the ids of all
constexpr MsgTypeT DataType = 30003;
constexpr MsgTypeT AckType = 30004;     // the number of the data, an integer
constexpr MsgTypeT StatusType = 30005;  // to the controller, StatusText
constexpr MsgTypeT FaultType = 30006;   // to the controller, what went wrong
constexpr MsgTypeT DoneType = 30007;    // from a worker: the number that came with its task
constexpr MsgTypeT QuietType = 30008;   // to load processes: begin nothing any more

constexpr char LocalFile[] = "local.cfg", ServedFile[] = "served.cfg";  // configuration
constexpr char LogFormat[] = "process %d wrote number %d";
constexpr int32 SoakLog = 100100001;
constexpr auto Due = std::chrono::seconds(10);  // for any answer

constexpr int32 DataMagic = ObjMagic(0xca010203);
constexpr char DataDescriptor[] = "i;i;d;";
struct DataS {
    ProcIdT tTo;
    int32 lNumber;  // 1, 2, ... from each process to each other one, on each of the ways
    ObjDataFieldT tFill;
};

// What a load process counts.
struct Status {
    int sent = 0, acked = 0, big = 0, channels = 0, tasks = 0, logged = 0, traced = 0;
    int local = 0, served = 0;  // last configuration values written
    int open = 0;               // what it still waits for
    int quiet = 0;              // 1 once it begins nothing any more
};

template <class F>
void ForEachCount(Status& status, F each) {
    for (int* count :
         {&status.sent, &status.acked, &status.big, &status.channels, &status.tasks, &status.logged,
          &status.traced, &status.local, &status.served, &status.open, &status.quiet})
        each(*count);
}

// From now on the process works for the client whose configuration the server keeps.
void WorkForClient();
void SendText(MsgAddressO to, MsgTypeT type, const std::string& text);
std::string BodyText(MsgMessageO message);  // "" when it is none
