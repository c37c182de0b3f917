// Group: a device group's live parameters, pending changes and parameter (de)serialisation.
//
// The base of CloudGroup. It keeps the parameters of the selected space as live values
// (space_parameters), the values set since the last submission (waiting_for_submit), and
// temporary overrides that are read first but never submitted. Parameters travel to and from
// the service as (text, type name) pairs, converted by the parameter codec
// (utils/parameter_codec.hpp). A stored pair that does not decode (written before the service
// checked values, or by another program) is kept aside: the rest of the space loads, and a
// read of that key is the error that names it.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/utils/space_cache.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::group {

// Parameters by full key, with lookups by any string-like key.
using ParameterMap = std::map<std::string, Value, std::less<>>;

class Group {
 public:
  Group() = default;
  virtual ~Group() = default;

  // The group's name; every service call that names the group passes it.
  std::string group_name;
  // The selected space, absent until one is selected.
  std::optional<std::int64_t> space_id;
  // The space version asked for at initialisation, if any.
  std::optional<std::int64_t> space_version;
  // Live parameters of the selected space, by full key.
  ParameterMap space_parameters;
  // Values set since the last submission, in the order they were set (a mapping Value).
  Value waiting_for_submit = Value::object();
  // Overrides that get_space_parameter returns before the live values; never submitted.
  ParameterMap temporary_parameters;

  // The initialiser: sets group_name, a null space_id, the space version, and takes
  // `space_parameters` (a mapping or null) as values to set (live and pending) and
  // `temporary_parameters` (a mapping or null) as overrides. A TypeError naming the argument
  // when either is neither a mapping nor null.
  void initialize(const std::string& group_name, const std::optional<std::string>& space_name,
                  std::optional<std::int64_t> space_version, const Value& space_parameters,
                  const Value& temporary_parameters);

  // Sets a parameter: live at once, and pending until the next submission.
  void set_space_parameter(const std::string& key, Value value);

  // The value of a parameter: a temporary override if there is one, else the live value.
  // With `refresh_cache`, the live parameters are refreshed first (refresh_space_parameters).
  // A KeyError naming the key when it has no value; a ValueError or TypeError naming it when
  // its stored value could not be read. Keys without a leading "/" get one.
  Value get_space_parameter(const std::string& key, bool refresh_cache = false);

  // (text, type name) of a value, as the service stores it (utils::encode_parameter).
  std::pair<std::string, std::string> serialize_parameter(const std::string& key,
                                                          const Value& value,
                                                          bool json_compact = true) const;

  // The value of a (text, type name) pair (utils::decode_parameter).
  static Value deserialize_single_parameter(const Value& v, const Value& t);

  // A mapping from three parallel lists of keys, texts and type names (ValueError when their
  // lengths differ; keys are taken as they stand). A pair that does not decode is an error
  // naming its key.
  static ParameterMap deserialize_parameter(const std::vector<std::string>& keys,
                                            const std::vector<Value>& values,
                                            const std::vector<Value>& types);

  // Replaces the live parameters by the cached records of space `space_id` (deserialised),
  // then lays the pending changes over them so that values not yet submitted stay visible.
  // Records that do not decode are kept aside for get_space_parameter to name.
  void input_space_parameter_from_cache(std::int64_t space_id,
                                        const std::vector<utils::SpaceCache::Record>& records);
  // The same from a SpaceCache's contents. When the live parameters were last loaded from
  // the same SpaceCache object and space, only what changed since is read and deserialised
  // (with the keys set through set_space_parameter meanwhile), so a sync costs time in
  // proportion to the change, not to the space. Change the live parameters through
  // set_space_parameter only: a direct change of space_parameters may survive such a load.
  void input_space_parameter_from_cache(std::int64_t space_id,
                                        const utils::SpaceCache::Contents& contents);

  // Finishes a submission: the pending changes have reached the service and are cleared.
  void submit_space_parameter();

 protected:
  // Brings the live parameters up to date before a refreshing read. A Group of its own has
  // nothing to refresh from; CloudGroup synchronises with the service.
  virtual void refresh_space_parameters() {}

 private:
  // Where the live parameters were last loaded from (SpaceCache::Contents::source() and
  // generation(); source 0 means "not from a SpaceCache"), and the keys set since.
  std::uint64_t loaded_source_ = 0;
  std::uint64_t loaded_generation_ = 0;
  std::optional<std::int64_t> loaded_space_;
  std::set<std::string> set_since_load_;
  // Keys of the loaded space whose stored value does not decode, with the error (naming the
  // key) that reading it raised.
  std::map<std::string, std::exception_ptr, std::less<>> unreadable_;
};

}  // namespace korvalin_client::group
