#include "spdlog.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <memory>

namespace {

std::unique_ptr<spdlog::logger> logger;

}  // namespace

void SpdlogStart(bool on) {
    constexpr std::size_t Lines = 512;
    logger = std::make_unique<spdlog::logger>(
        "LIST", std::make_shared<spdlog::sinks::ringbuffer_sink_st>(Lines));
    logger->set_level(on ? spdlog::level::trace : spdlog::level::err);
}

void SpdlogLine(const char* result, const void* first, int second) {
    logger->debug("{} = ListGetNthNode({}, {})", result, first, second);
}

void SpdlogStartFile(const char* path) {
    logger = std::make_unique<spdlog::logger>(
        "LIST", std::make_shared<spdlog::sinks::basic_file_sink_st>(path, true));
    logger->set_pattern("%l %-8n:%P %H%M%S %v");
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);
}
