// The ZeroMQ side of bench_msg, in a unit of its own: REQ/REP or PUSH/PULL over TCP.
#pragma once

#include "link.h"

std::unique_ptr<Link> ZeromqLink(Pattern pattern, const std::string& address);
