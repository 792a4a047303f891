// The one road by which the time code reports what it repaired on its own
// ("LocalStructTm::fromUnixTime(...) failed!"): a warning on the log channel
// "Timeval".
#pragma once

// The name of the channel the warnings go to.
constexpr const char* TIME_WARNING_CHANNEL = "Timeval";

// Formats the message printf-style and logs it at WARN on the channel
// "Timeval". Safe from any thread; keeps errno.
void logTimeWarning(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
