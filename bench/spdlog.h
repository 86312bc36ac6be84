// The spdlog side of bench_trace, in a unit of its own. One logger at a time.
#pragma once

// A logger that keeps the newest lines in a ring, as the trace buffer does; on lets the line pass.
void SpdlogStart(bool on);
void SpdlogLine(const char* result, const void* first, int second);

// A logger that writes every line to a file at once.
void SpdlogStartFile(const char* path);
