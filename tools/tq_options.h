// tq_options.h - the options that every test shares (method, Monte Carlo,
// limits, output), defined once, and the readers of their values.
#ifndef TQ_OPTIONS_H
#define TQ_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tq_types.h"

namespace tq {

struct Test;

// Declares the shared options that `test` reads on its subcommand.
void AddSharedOptions(CLI::App& app, const Test& test, SharedOptions& shared);

// Writes the shared options into the call: procedure, method, Monte Carlo
// settings, time limit, memory, spill path and filler.
void ApplySharedOptions(const Test& test, const SharedOptions& shared, Call& call);

// A size such as "512M", "2G", "1.5GiB", "800K"; a bare number is in
// kilobytes; "free" or -1 is the free memory of the machine (-1).
// Returns kilobytes.
int64_t ParseMemoryKiB(const std::string& text);

// Physical memory of the machine in kilobytes.
int64_t MachineMemoryKiB();

// The memory ceiling tq sets when --memory isn't given, in MiB: the
// environment's ANVLWTQ_MEMORY_CEILING when valid, else a quarter of the
// machine.
int64_t DefaultCeilingMiB();

// A duration such as "30s", "5m", "1h", "1.5m"; a bare number is minutes,
// and 0 is no limit.  Returns seconds.
double ParseDurationSeconds(const std::string& text);

// The help layout of tq: an option, its value's name, and its description
// wrapped under it with the default at the end.
std::shared_ptr<CLI::Formatter> HelpFormatter();

// The candidate closest to `word` by edit distance.
std::string Nearest(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace tq

#endif  // TQ_OPTIONS_H
