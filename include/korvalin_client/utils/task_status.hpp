// The states an experiment (sub-process) passes through, and the mapping of the service's
// raw status texts onto them.
#pragma once

#include <string>
#include <string_view>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::utils::task_status {

// Not yet queued (created, being prepared).
inline constexpr std::string_view PENDING = "pending";
// Waiting for a device.
inline constexpr std::string_view QUEUED = "queued";
// Running on a device.
inline constexpr std::string_view RUNNING = "running";
// The four terminal states.
inline constexpr std::string_view COMPLETE = "complete";
inline constexpr std::string_view ERROR = "error";
inline constexpr std::string_view CANCELED = "canceled";
inline constexpr std::string_view TIMEOUT = "timeout";

// Maps a raw status onto the constants above: case-insensitive, surrounding blanks ignored,
// common synonyms accepted ("Completed", "finished", "success" -> COMPLETE; "failed" ->
// ERROR; "cancelled", "terminated", "aborted" -> CANCELED; "timed_out" -> TIMEOUT;
// "in_progress" -> RUNNING; "waiting" -> QUEUED; "created" -> PENDING; ...).
// Null and the empty text give the empty text, which is not terminal. Any other text is a
// ValueError naming it; a value that is neither text nor null is a TypeError.
std::string normalize_sub_process_status(const Value& status);

// Whether a normalised status is one of COMPLETE, ERROR, CANCELED, TIMEOUT.
bool is_terminal(std::string_view normalized_status);

}  // namespace korvalin_client::utils::task_status
