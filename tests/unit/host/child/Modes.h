#pragma once

#include <cstdint>

/// What the child can be told to do; each mode is a main of the host's entry.
namespace HostChild {

/// The program's second and third arguments, 0 unless given.
extern std::uint32_t argument1;
extern std::uint32_t argument2;

/// One line on the standard error, at once and without the log.
void say(const char* text);
void say(const char* text, std::uint64_t number);
/// Waits for the end of the standard input.
void awaitGoOn();

// Entry.cpp
std::int32_t returnArgument();
std::int32_t exitAtOnce();
std::int32_t writeIntoBrokenPipe();
std::int32_t checkStandardDescriptors();
std::int32_t exhaustAlloc();
std::int32_t exhaustNew();

// Termination.cpp
std::int32_t blockedSignals();
std::int32_t interruptedWhileStarting();
std::int32_t delivered();
std::int32_t deliveredLater();
std::int32_t registeredLater();
std::int32_t retriedByAnother();

// Log.cpp
std::int32_t logLevels();
std::int32_t logTexts();
std::int32_t logParts();
std::int32_t logFlood();
std::int32_t logFloodWithoutDescriptors();
std::int32_t logLate();
std::int32_t writeText();

}  // namespace HostChild
