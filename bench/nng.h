// The nng side of bench_msg, in a unit of its own: req/rep or push/pull over TCP.
#pragma once

#include "link.h"

std::unique_ptr<Link> NngLink(Pattern pattern, const std::string& address);
