// Everything the command line decides about the simulated server.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace oltb::sim {

constexpr const char* ServerPort = "9495";

enum class MalformedKind {
    automatic,      // short for GetConfig, brokenTrailer for every other command
    shortPayload,   // 16 payload bytes (the configuration without its last byte, or zeros)
    emptyPayload,   // no payload bytes
    brokenTrailer,  // the right payload, but the trailer B2 00
};

struct FaultSettings {
    std::optional<std::uint64_t> closeAfterWords;  // per connection, time-base words included
    std::set<std::uint8_t> ignoredCommands;        // carried out, but never answered
    std::optional<std::uint8_t> malformedCommand;  // answered with a malformed response frame
    MalformedKind malformedKind = MalformedKind::automatic;
    std::uint64_t overflowEveryWords = 0;  // 0: no simulated overflows
    std::uint64_t overflowLostWords = 0;
};

struct ServerSettings {
    std::string address = "127.0.0.1";
    double speed = 1.0;
    bool maxRate = false;
    bool counter = false;
    std::uint64_t counterStepTicks = 64;
    std::uint64_t clockStartTick = 1000000000;
    FaultSettings faults;
    bool verbose = false;
};

}  // namespace oltb::sim
