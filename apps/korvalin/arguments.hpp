// The values written on the command line that CLI11 leaves as text: KEY=VALUE assignments,
// sweeps, comma lists, and experiment definition files. A malformed argument is a UsageError
// (exit 2) that quotes it; a file that cannot be used is a korvalin_client error naming it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_app {

// The most points one --sweep may have.
inline constexpr std::int64_t kMaxSweepPoints = 1'000'000;
// The largest experiment definition file read.
inline constexpr std::uintmax_t kMaxDefinitionBytes = 64u << 20;

// "KEY=VALUE": the key with a leading "/" and the value read as JSON (a number, true, false,
// null, "quoted text", a list or a mapping), or as the text itself when it is not JSON.
std::pair<std::string, korvalin_client::Value> parse_assignment(const std::string& text);

// "KEY=START:STOP:N": N values evenly spaced from START to STOP, both included (integers when
// START and STOP are written as integers and the step is whole); or "KEY=[v1, v2, ...]": the
// values of a JSON list.
korvalin_client::experiment::Sweep parse_sweep(const std::string& text);

// "I,Q": the names between commas, blanks around them dropped; none may be empty.
std::vector<std::string> split_names(const std::string& text, const std::string& what);

// An experiment definition file: the experiment's stored form as JSON (docs/cli.md), where
// "format" and "version" may be left out.
korvalin_client::experiment::Experiment read_definition_file(const std::string& path);

}  // namespace korvalin_app
