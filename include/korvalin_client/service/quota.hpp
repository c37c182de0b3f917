// Per-organisation quotas: how many bytes an organisation's objects may take in the store and
// how many of its experiments may wait "queued" at once. An administrator sets them
// (`korvalin admin quota`); none set means no limit. docs/decisions/quotas.md says why.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {

// One organisation's limits and what it uses now.
struct Quota {
  std::int64_t organization_id = 0;
  std::string organization_name;
  std::optional<std::int64_t> max_bytes;   // none: unlimited
  std::optional<std::int64_t> max_queued;  // none: unlimited
  std::int64_t stored_bytes = 0;           // what its recorded objects take
  std::int64_t queued = 0;                 // its experiments "queued" now

  // The bytes it may still store; none when unlimited.
  std::optional<std::int64_t> bytes_left() const;
};

// Storing `adding` more bytes, or queueing one more experiment, would pass an organisation's
// quota. A RuntimeError to clients (the same kind in the embedded service and over HTTP; the
// server answers 413 for bytes, 429 for queued experiments).
class QuotaError : public RuntimeError {
 public:
  enum class Limit { bytes, queued };
  QuotaError(Limit limit, const std::string& message) : RuntimeError(message), limit_(limit) {}
  Limit limit() const { return limit_; }

  // "organisation 2 may store 1000 bytes; it stores 900 and this would add 200"
  static QuotaError bytes(const Quota& q, std::int64_t adding);
  // "organisation 2 may have 3 experiments queued; it has 3"
  static QuotaError queued(const Quota& q);

 private:
  Limit limit_;
};

}  // namespace korvalin_client::service
