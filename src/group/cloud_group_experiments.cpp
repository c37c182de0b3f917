// CloudGroup: experiment listings and folders, creation and submission, inspection and
// attachments.
#include <cmath>
#include <filesystem>
#include <string_view>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/oss.hpp"
#include "korvalin_client/com/space.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/com/user.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/languages.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_client::group {

using languages::lang;

namespace {

Value or_null(const std::optional<std::int64_t>& v) { return v ? Value(*v) : Value(nullptr); }
Value or_null(const std::optional<std::string>& v) { return v ? Value(*v) : Value(nullptr); }

com::minio::MinIOAPI& ensure_minio(CloudGroup& g) {
  if (!g.minio) g.minio = com::minio::get_minio_client(g.organization_id());
  return *g.minio;
}

const Value& require_list(const Value& record, std::string_view key) {
  const Value& v = require_key(record, key);
  if (!v.is_array()) {
    throw TypeError("\"" + std::string(key) + "\" must be a list, not " + kind_name(v));
  }
  return v;
}

// Each record of the listing's "list" carries its id as "exp_id" instead of "sub_process_id".
Value rename_experiment_ids(Value listing) {
  if (!listing.is_object()) {
    throw TypeError(std::string("an experiment listing must be a mapping, not ") +
                    kind_name(listing));
  }
  Value& records = require_key(listing, "list");
  if (!records.is_array()) {
    throw TypeError(std::string("\"list\" of an experiment listing must be a list, not ") +
                    kind_name(records));
  }
  for (Value& record : records) {
    Value id = require_key(record, "sub_process_id");
    record["exp_id"] = std::move(id);
    record.erase("sub_process_id");
  }
  return listing;
}

// Whitespace as users' scripts understand it: the ASCII blanks and control separators and the
// Unicode spaces (no-break, ideographic, ...).
bool is_space(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x20) || c == 0x85 || c == 0xA0 ||
         c == 0x1680 || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 ||
         c == 0x202F || c == 0x205F || c == 0x3000;
}

// The UTF-8 code point at s[i] and its length; length 0 for a malformed sequence.
std::pair<char32_t, std::size_t> code_point_at(std::string_view s, std::size_t i) {
  const auto b = static_cast<unsigned char>(s[i]);
  std::size_t n = 0;  // from the lead byte: 0xxxxxxx, 110xxxxx, 1110xxxx, 11110xxx
  if (b < 0x80) {
    n = 1;
  } else if ((b >> 5) == 0x6) {
    n = 2;
  } else if ((b >> 4) == 0xE) {
    n = 3;
  } else if ((b >> 3) == 0x1E) {
    n = 4;
  }
  if (n == 0 || i + n > s.size()) return {0, 0};
  char32_t c = n == 1 ? b : (b & (0x7Fu >> n));
  for (std::size_t k = 1; k < n; ++k) {
    const auto cb = static_cast<unsigned char>(s[i + k]);
    if ((cb & 0xC0) != 0x80) return {0, 0};
    c = (c << 6) | (cb & 0x3F);
  }
  return {c, n};
}

std::string_view strip_spaces(std::string_view s) {
  std::size_t begin = 0;
  while (begin < s.size()) {
    const auto [c, n] = code_point_at(s, begin);
    if (n == 0 || !is_space(c)) break;
    begin += n;
  }
  std::size_t end = s.size();
  while (end > begin) {
    std::size_t start = end - 1;
    while (start > begin && end - start < 4 &&
           (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) {
      --start;
    }
    const auto [c, n] = code_point_at(s, start);
    if (n != end - start || !is_space(c)) break;
    end = start;
  }
  return s.substr(begin, end - begin);
}

std::string_view strip_slashes(std::string_view s) {
  const std::size_t begin = s.find_first_not_of('/');
  if (begin == std::string_view::npos) return {};
  return s.substr(begin, s.find_last_not_of('/') - begin + 1);
}

// Replaces a JSON-text "progress" of a detail record by its value; leaves the record as it is
// when there is none or it is not valid JSON.
void decode_progress(Value& detail) {
  if (!detail.is_object()) return;
  auto it = detail.find("progress");
  if (it == detail.end() || !it->is_string()) return;
  Value decoded = Value::parse(it->get_ref<const std::string&>(), nullptr, false);
  if (decoded.is_discarded() || inspect_value(decoded).too_deep) return;
  *it = std::move(decoded);
}

// "%Y-%m-%d %H:%M:%S" in local time of a message's "timestamp" (seconds since the epoch).
std::string message_time(const Value& message) {
  const Value& ts = require_key(message, "timestamp");
  if (ts.is_number_integer()) return utils::local_datetime(ts.get<std::int64_t>());
  if (ts.is_number_float()) {
    const double t = std::floor(ts.get<double>());
    if (!(t > -9.2e18 && t < 9.2e18)) {
      throw ValueError("message timestamp " + ts.dump() + " cannot be converted to a local date");
    }
    return utils::local_datetime(static_cast<std::int64_t>(t));
  }
  throw TypeError(std::string("\"timestamp\" must be a number, not ") + kind_name(ts));
}

void check_attachment(const Value& attachment) {
  expect_mapping_or_null(attachment, "attachment");
  if (attachment.is_null()) return;
  for (const auto& [name, id] : attachment.items()) {
    if (!id.is_number_integer()) {
      throw TypeError("attachment \"" + name + "\" must map to an integer resource id, not " +
                      kind_name(id));
    }
  }
}

Value decode_experiment_file(const Bytes& raw, const std::string& path) {
  try {
    return utils::msgpack_loads(raw);
  } catch (const ValueError& e) {
    throw ValueError("cannot decode the experiment file " + path + ": " + e.what());
  }
}

}  // namespace

// ---- listings and folders -----------------------------------------------------------------

Value CloudGroup::list_exps(std::int64_t space_id, std::int64_t page, std::int64_t per_page) {
  return rename_experiment_ids(com::sub_process::list_sub_processes(space_id, page, per_page));
}

Value CloudGroup::list_new_exps(std::int64_t space_id, std::int64_t since_exp_id,
                                std::optional<std::int64_t> exp_folder_id, std::int64_t limit) {
  return rename_experiment_ids(com::sub_process::list_new_experiments(
      space_id, since_exp_id, or_null(exp_folder_id), limit));
}

Value CloudGroup::count_exps_by_folder(std::int64_t space_id,
                                       std::optional<std::int64_t> exp_folder_id) {
  return com::sub_process::count_experiments_by_folder(space_id, or_null(exp_folder_id));
}

Value CloudGroup::list_exps_by_folder(std::int64_t space_id,
                                      std::optional<std::int64_t> exp_folder_id,
                                      std::optional<std::int64_t> before_exp_id,
                                      std::int64_t limit) {
  return rename_experiment_ids(com::sub_process::list_sub_processes_by_folder(
      space_id, or_null(exp_folder_id), or_null(before_exp_id), limit));
}

Value CloudGroup::create_exp_folder(std::int64_t space_id, const std::string& folder_path) {
  if (strip_spaces(folder_path).empty()) throw ValueError("folder_path cannot be empty");
  const std::string_view normalized = strip_slashes(strip_spaces(folder_path));
  if (normalized.empty()) throw ValueError("folder_path cannot be empty after normalization");

  // Levels keep their own blanks; only blank or empty levels (doubled slashes) are dropped.
  std::vector<std::string> folder_names;
  for (std::size_t start = 0;;) {
    const std::size_t slash = normalized.find('/', start);
    const std::string_view segment = normalized.substr(start, slash - start);
    if (!strip_spaces(segment).empty()) folder_names.emplace_back(segment);
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  if (folder_names.empty()) throw ValueError("folder_path must contain at least one folder name");

  Value current_parent_id = nullptr;  // the space's root level
  Value last_folder_info = nullptr;
  for (const std::string& folder_name : folder_names) {
    if (folder_name.empty()) throw ValueError("Folder name cannot be empty.");

    const Value existing_folders =
        com::sub_process::list_exp_folders_by_parent(named_group(), space_id, current_parent_id);
    if (!existing_folders.is_array()) {
      throw TypeError(std::string("the folder listing must be a list, not ") +
                      kind_name(existing_folders));
    }
    const Value* existing = nullptr;
    for (const Value& folder : existing_folders) {
      if (get_key(folder, "exp_folder_name") == folder_name) {
        existing = &folder;
        break;
      }
    }

    if (existing != nullptr && truthy(*existing)) {
      current_parent_id = require_key(*existing, "exp_folder_id");
      last_folder_info = *existing;
    } else {
      Value folder_info =
          com::sub_process::create_exp_folder(space_id, folder_name, current_parent_id);
      current_parent_id = require_key(folder_info, "exp_folder_id");
      last_folder_info = std::move(folder_info);
    }
  }
  return last_folder_info;
}

// ---- creation and submission --------------------------------------------------------------

experiment::Experiment CloudGroup::create_exp(std::string title, std::string desc) {
  return experiment::Experiment(std::move(title), std::move(desc), this);
}

Value CloudGroup::terminate_exp(std::int64_t exp_id) {
  return com::sub_process::terminate_sub_process(exp_id);
}

Value CloudGroup::submit_exp(experiment::Experiment& exp, SubmitOptions options) {
  check_attachment(options.attachment);

  if (!truthy(com::user::check_device_permission_by_name(named_group()))) {
    throw RuntimeError("Permission denied.");
  }
  if (!space_id) throw RuntimeError(lang.msg("group_space_id_not_set"));
  const std::int64_t sid = *space_id;
  com::minio::MinIOAPI& store = ensure_minio(*this);

  exp.attachment = options.attachment.is_null() ? Value::object() : options.attachment;
  exp.valid();

  const std::int64_t space_timestamp =
      options.space_timestamp ? *options.space_timestamp : env().now_seconds();
  // The experiment's own template wins over the argument.
  std::optional<std::string> template_name = options.template_name;
  if (exp.template_) template_name = exp.template_;

  // A folder id given wins; a path is resolved (and created) only without one.
  Value exp_folder_id = or_null(options.exp_folder_id);
  if (!options.exp_folder_id && options.exp_folder_path) {
    const Value folder = create_exp_folder(sid, *options.exp_folder_path);
    exp_folder_id = get_key(folder, "exp_folder_id");
    expect_int_or_null(exp_folder_id, "\"exp_folder_id\" of the folder record");
  }

  const Bytes serialized = utils::msgpack_dumps(exp.serialize());

  const Value location = store.upload(std::to_string(sid), serialized, "exp", "kvexp");
  // The source of the stored definition is always "SDK"; options.source goes with the run.
  const Value resource = com::oss::add_resource("", "kvexp", location.dump(), "exp", "SDK",
                                                device_group_id());
  const Value resource_id = require_key(resource, "resource_id");

  const Value sub_process = com::sub_process::create_sub_process(
      organization_id(), group_name, sid, exp.title, exp.desc, resource_id, options.source,
      space_timestamp, or_null(template_name), exp_folder_id, or_null(options.priority));
  const std::int64_t exp_id = require_int(sub_process, "sub_process_id");

  const std::string exp_cache_dir = create_exp_cache_dir(env().now_seconds(), exp_id);
  utils::write_file_atomic(exp_cache_dir + "/" + std::to_string(exp_id) + ".kvexp", serialized);

  return require_key(sub_process, "sub_process_id");
}

// ---- inspection ---------------------------------------------------------------------------

Value CloudGroup::get_experiment(std::int64_t exp_id) {
  return com::sub_process::get_sub_process_detail(exp_id);
}

Value CloudGroup::get_experiment_status(std::int64_t exp_id) {
  Value exp_detail = com::sub_process::get_sub_process_detail(exp_id);
  decode_progress(exp_detail);
  return exp_detail;
}

Value CloudGroup::get_experiment_msg(std::int64_t exp_id) {
  Value msgs = com::sub_process::get_sub_process_msg(exp_id);
  if (!msgs.is_array()) {
    throw TypeError(std::string("the message log must be a list, not ") + kind_name(msgs));
  }
  for (Value& message : msgs) {
    std::string when = message_time(message);
    message["timestamp"] = std::move(when);
  }
  return msgs;
}

std::tuple<experiment::Experiment, Value, Value> CloudGroup::get_experiment_detail(
    std::int64_t exp_id, bool set_space) {
  Value exp_detail = com::sub_process::get_sub_process_detail(exp_id);
  const std::string exp_cache_dir =
      create_exp_cache_dir(require_key(exp_detail, "create_time"), exp_id);

  const Value exp_space_id = get_key(exp_detail, "space_id");
  if (exp_space_id.is_null()) {
    throw RuntimeError("Experiment " + std::to_string(exp_id) + " does not have space_id");
  }
  expect_int(exp_space_id, "\"space_id\" of the experiment detail");
  Value space_detail = com::space::get_space_detail(exp_space_id);

  if (set_space) {
    const Value space_name = get_key(space_detail, "space_name");
    if (truthy(space_name)) this->set_space(space_name);
  }

  const std::string exp_file = exp_cache_dir + "/" + std::to_string(exp_id) + ".kvexp";
  Bytes raw_data;
  if (utils::path_exists(exp_file)) {
    raw_data = utils::read_file(exp_file);
  } else {
    com::minio::MinIOAPI& store = ensure_minio(*this);
    const Value res_info = com::oss::get_resource_info(require_key(exp_detail, "resource_id"));
    if (require_key(res_info, "total") != 1) {
      throw RuntimeError(
          languages::format(lang.msg("group_exp_resource_id_not_set"), {std::to_string(exp_id)}));
    }
    const Value& files = require_list(res_info, "list");
    if (files.empty()) {
      throw KeyError("the resource of experiment " + std::to_string(exp_id) + " lists no file");
    }
    raw_data = store.download(require_key(files[0], "uri"));
    utils::write_file_atomic(exp_file, raw_data);
  }

  experiment::Experiment exp_obj =
      experiment::Experiment::deserialize(decode_experiment_file(raw_data, exp_file), this);
  decode_progress(exp_detail);
  return {std::move(exp_obj), std::move(exp_detail), std::move(space_detail)};
}

// ---- attachments --------------------------------------------------------------------------

Value CloudGroup::upload_exp_attachment(const std::string& indicator, const std::string& filename,
                                        const Bytes& data, const std::string& file_format) {
  if (!minio) {
    throw RuntimeError(
        "upload_exp_attachment needs the object-storage client, which is made by submit_exp "
        "or a download; none was made yet");
  }
  const Value location = minio->upload(indicator, data, "exp_attachment", file_format);
  const Value resource = com::oss::add_resource(filename, file_format, location.dump(),
                                                "exp_attachment", "SDK", device_group_id());
  const Value& resource_id = require_key(resource, "resource_id");
  expect_int_or_null(resource_id, "\"resource_id\"");
  return resource_id;
}

Value CloudGroup::download_exp_attachment(std::int64_t exp_id) {
  const experiment::Experiment exp = std::get<0>(get_experiment_detail(exp_id));
  const Value& attachment = exp.attachment;
  if (!truthy(attachment)) return Value::object();

  Value resource_ids = Value::array();
  for (const Value& id : attachment) resource_ids.push_back(id);
  const Value info = com::oss::get_resource_info(resource_ids);
  if (require_key(info, "total") == 0) return Value::object();

  com::minio::MinIOAPI& store = ensure_minio(*this);
  const std::string dir = create_exp_cache_dir(env().now_seconds(), exp_id);

  // Every name the service gave must stay inside the directory; refuse them all before any
  // file is written.
  const Value& records = require_list(info, "list");
  for (const Value& record : records) {
    if (!record.is_object() || !record.contains("file_name")) continue;
    utils::check_child_name(expect_text(record["file_name"], "\"file_name\""), "attachment");
  }

  Value result = Value::object();
  for (const Value& record : records) {
    const Value& uri = require_key(record, "uri");
    const std::string& file_name = expect_text(require_key(record, "file_name"), "\"file_name\"");
    const Value& file_format = require_key(record, "file_format");

    const std::string path = dir + "/" + file_name;
    if (!std::filesystem::is_regular_file(path)) {
      utils::write_file_atomic(path, store.download(uri));
    }
    result[file_name] = Value::object(
        {{"file_name", file_name}, {"format", file_format}, {"absolute_path", path}});
  }
  return result;
}

}  // namespace korvalin_client::group
