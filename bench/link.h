// One end of a connection between two processes, as bench_msg measures it: the same few operations
// over the library's channels, over bare sockets, and over what others made of them.
#pragma once

#include <memory>
#include <string>

enum class Pattern { Request, OneWay };  // an answer to each message, or none

class Link {
 public:
    virtual ~Link() = default;
    virtual std::string Address() const { return ""; }  // of a serving end, for the other one
    virtual void Send(const std::string& body) = 0;
    virtual void Flush() {}             // until all that was sent has been handed over
    virtual std::size_t Receive() = 0;  // waits for a message; the size of its body
    virtual void SendBack() = 0;        // what was received last
};

// Makes the end that serves, or with an address the one that calls.
using LinkMaker = std::unique_ptr<Link> (*)(Pattern pattern, const std::string& address);

enum class Route { Channel, BlockingChannel, Manager };
std::unique_ptr<Link> TesselLink(Route route, const std::string& address);
// Brings the process up under an id of its machine. False when there is no manager.
bool TesselStart(int id);
// Bytes on a data channel beside those of a body.
std::size_t TesselOverhead();

// Each read waited for in a select, or done at once; as many bytes as a data channel carries.
std::unique_ptr<Link> SocketLink(bool select, const std::string& address);
// Loopback sockets: a listening one, its port, one connected to a port.
int SocketListen(int backlog);
int SocketPort(int socket);
int SocketConnect(int port);
void SocketSend(int socket, const char* bytes, std::size_t size);

[[noreturn]] void Fail(const std::string& what);
