// For tests: the table of hosts that the network directory reads.
#pragma once

// Takes another file, /etc/hosts for null. The text stays the caller's and must last.
void MachineNetSetHostTable(const char* pstrPath);
