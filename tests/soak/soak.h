// What the processes of the soak say to each other, and what the report shows of them.
//
// The controller (soak.cpp) is a viewer. It starts load processes (load.cpp), each in a place: some
// are services that get a task, some are adopted. A place keeps its number when its process is
// killed and another one comes.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "core/msgwait.h"
#include "core/objwrappers.h"
#include "support/messages.h"
#include "support/peer.h"

constexpr MsgTypeT HelloType = 30001;   // to the controller: "PLACE PID"
constexpr MsgTypeT RosterType = 30002;  // to load processes: the ids of all
constexpr MsgTypeT DataType = 30003;
constexpr MsgTypeT AckType = 30004;     // the number of the data, an integer
constexpr MsgTypeT StatusType = 30005;  // to the controller, all counts
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

// What a load process counts; the last four are the configuration values written last, what it
// still waits for, and 1 once it begins nothing any more.
enum Count {
    Sent,
    Acked,
    Big,
    Channels,
    Tasks,
    Logged,
    Traced,
    Local,
    Served,
    Open,
    Quiet,
    Counts
};
using Status = std::array<int, Counts>;

using Time = Clock::time_point;

// A handler of messages whose function gets the body as well, null when it is of another class.
template <class T, int32 magic, void (*handle)(MsgMessageO message, T* body)>
MsgWaitResultE On(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<T> body;
    MsgGetObject(body.Address(), message, magic);
    handle(message, body.Get());
    return eMsgWaitResultHandled;
}
template <void (*handle)(MsgMessageO message, ObjStringS* text)>
constexpr MsgWaitHandlerT OnText = On<ObjStringS, ObjStringMagic, handle>;
template <void (*handle)(MsgMessageO message, ObjIntegerS* number)>
constexpr MsgWaitHandlerT OnNumber = On<ObjIntegerS, ObjIntegerMagic, handle>;

struct Handler {
    MsgTypeT type;
    MsgWaitHandlerT handle;
};

inline void SendText(ProcIdT to, MsgTypeT type, const std::string& text) {
    const ::Address address(AddressOf(to));
    const ObjHolder<ObjStringS> body(ObjStringNew(text.c_str()));
    MsgSendObject(address.Get(), type, body.Get());
}

// --- report.cpp: samples of processes, and whether they stay flat ---

// RSS in kB and descriptors; blocks and objects in the shared memory, -1 for who shows none.
using Sample = std::array<int, 4>;

// A process that lives as long as the soak.
struct Subject {
    std::string name;
    ProcIdT id;
    pid_t pid;
    std::vector<Sample> samples;
};

// Of the operating system's and, for the id of a managed process, of the viewer's shared memory.
void TakeSample(Subject& subject);

// The table of samples, and for each figure the means of the second and the last third. Flat: the
// last mean is above the second one by no more than a twentieth and, besides, 512 kB, 4
// descriptors, 100 blocks, 100 objects. Adds a fault for each figure that is not.
std::string SamplesText(const std::vector<Subject>& subjects, int seconds,
                        std::vector<std::string>& faults);

// What a process does, for one that does not answer.
std::string WhatItDoes(ProcIdT id, pid_t pid);
