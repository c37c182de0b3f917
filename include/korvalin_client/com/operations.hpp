// The catalogue of the service's operations: every function of korvalin_client::com that takes
// and returns Values, declared once.
//
//   X(module, name, positional, arguments...)
//
// `module` is the com namespace the function lives in, `arguments` its argument names in order,
// and the first `positional` of them are positional: the rest are keywords, which a caller may
// leave out (null). Everything that lists the operations is derived from this table: the typed
// com functions (src/com/functions.cpp), Backend::call's dispatch, the engine's dispatch, the
// test double, and both ends of the HTTP transport (one endpoint per operation, arguments sent
// by name). Adding an operation is one line here, its declaration in the com header, and its
// engine code.
//
// Not in the table: get_minio_client, which hands out an object rather than a Value; over HTTP
// the object store has endpoints of its own.
#pragma once

#include <array>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "korvalin_client/utils/value.hpp"

#define KORVALIN_OPERATIONS(X)                                                                 \
  X(device, get_group_list, 4, page, per_page, org_id, show_hidden)                            \
  X(device, create_group, 3, device_group_name, description, organization_id)                  \
  X(device, get_group_detail, 0, device_group_name)                                            \
  X(space, list_space, 1, group_name, page, per_page, show_hidden_space)                       \
  X(space, create_space, 3, group_name, space_name, description)                               \
  X(space, get_space_detail, 1, space_id)                                                      \
  X(space, set_space_hidden, 2, space_id, hidden)                                              \
  X(space, get_parameter, 1, space_id, timestamp, parent_category)                             \
  X(space, get_parameter_log, 1, space_id, timestamp)                                          \
  X(space, add_parameter, 4, space_id, keys, values, types, experiment_id, node_id, session_id) \
  X(space, delete_parameter, 2, space_id, key, delete_status)                                  \
  X(space, get_parameter_tree, 3, space_id, version, parent_tree)                              \
  X(space, get_parameter_history, 4, space_id, key, page, per_page)                            \
  X(sub_process, create_sub_process, 5, organization_id, group_name, space_id, title, desc,    \
    resource_id, source, space_timestamp, template_name, exp_folder_id, priority)              \
  X(sub_process, get_sub_process_detail, 0, sub_process_id)                                    \
  X(sub_process, get_sub_process_result, 3, sub_process_id, start_piece_id, end_piece_id)      \
  X(sub_process, get_sub_process_msg, 1, sub_process_id)                                       \
  X(sub_process, list_sub_processes, 3, space_id, page, per_page)                              \
  X(sub_process, list_new_experiments, 4, space_id, since_exp_id, exp_folder_id, limit)        \
  X(sub_process, list_sub_processes_by_folder, 4, space_id, exp_folder_id, before_exp_id,      \
    limit)                                                                                     \
  X(sub_process, count_experiments_by_folder, 2, space_id, exp_folder_id)                      \
  X(sub_process, terminate_sub_process, 0, sub_process_id)                                     \
  X(sub_process, download_result_chunk_from_cache, 2, sub_process_id, chunk_id)               \
  X(sub_process, create_exp_folder, 2, space_id, exp_folder_name, parent_exp_folder_id)        \
  X(sub_process, list_exp_folders_by_parent, 0, device_group_name, space_id,                   \
    parent_exp_folder_id)                                                                      \
  X(sub_process, add_fitting_result, 5, sub_process_id, space_id, big_img_id, small_img_id,    \
    fitting_result)                                                                            \
  X(sub_process, get_fitting_result, 1, sub_process_id)                                        \
  X(oss, add_resource, 5, file_name, file_format, uri, category, source, device_group_id)      \
  X(oss, get_resource_info, 1, resource_ids)                                                   \
  X(user, check_device_permission_by_name, 1, group_name, access)                              \
  X(user, check_space_permission_by_id, 1, space_id)

// ---- helpers over an argument list (up to 11 names) ------------------------------------------
#define KORVALIN_PP_CAT_(a, b) a##b
#define KORVALIN_PP_CAT(a, b) KORVALIN_PP_CAT_(a, b)
#define KORVALIN_PP_COUNT_(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, N, ...) N
#define KORVALIN_PP_COUNT(...) KORVALIN_PP_COUNT_(__VA_ARGS__, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1)
// KORVALIN_PP_MAP(F, a, b, c) -> F(a), F(b), F(c)
#define KORVALIN_PP_MAP1(F, a) F(a)
#define KORVALIN_PP_MAP2(F, a, ...) F(a), KORVALIN_PP_MAP1(F, __VA_ARGS__)
#define KORVALIN_PP_MAP3(F, a, ...) F(a), KORVALIN_PP_MAP2(F, __VA_ARGS__)
#define KORVALIN_PP_MAP4(F, a, ...) F(a), KORVALIN_PP_MAP3(F, __VA_ARGS__)
#define KORVALIN_PP_MAP5(F, a, ...) F(a), KORVALIN_PP_MAP4(F, __VA_ARGS__)
#define KORVALIN_PP_MAP6(F, a, ...) F(a), KORVALIN_PP_MAP5(F, __VA_ARGS__)
#define KORVALIN_PP_MAP7(F, a, ...) F(a), KORVALIN_PP_MAP6(F, __VA_ARGS__)
#define KORVALIN_PP_MAP8(F, a, ...) F(a), KORVALIN_PP_MAP7(F, __VA_ARGS__)
#define KORVALIN_PP_MAP9(F, a, ...) F(a), KORVALIN_PP_MAP8(F, __VA_ARGS__)
#define KORVALIN_PP_MAP10(F, a, ...) F(a), KORVALIN_PP_MAP9(F, __VA_ARGS__)
#define KORVALIN_PP_MAP11(F, a, ...) F(a), KORVALIN_PP_MAP10(F, __VA_ARGS__)
#define KORVALIN_PP_MAP(F, ...) \
  KORVALIN_PP_CAT(KORVALIN_PP_MAP, KORVALIN_PP_COUNT(__VA_ARGS__))(F, __VA_ARGS__)
#define KORVALIN_PP_PARAM(a) const ::korvalin_client::Value& a
#define KORVALIN_PP_ADDRESS(a) &a
#define KORVALIN_PP_NAME(a) std::string_view(#a)
// `const Value& a, const Value& b, ...`: the parameters of an operation's typed function.
#define KORVALIN_OPERATION_PARAMS(...) KORVALIN_PP_MAP(KORVALIN_PP_PARAM, __VA_ARGS__)

namespace korvalin_client::com {

enum class Operation {
#define KORVALIN_X(module, name, positional, ...) name,
  KORVALIN_OPERATIONS(KORVALIN_X)
#undef KORVALIN_X
};

struct OperationInfo {
  Operation operation;
  std::string_view module;
  std::string_view name;
  std::span<const std::string_view> arguments;  // in order
  std::size_t positional;                       // the first ones; the rest are keywords
};

namespace detail {
#define KORVALIN_X(module, name, positional, ...) \
  inline constexpr std::string_view name##_arguments[] = {                 \
      KORVALIN_PP_MAP(KORVALIN_PP_NAME, __VA_ARGS__)};
KORVALIN_OPERATIONS(KORVALIN_X)
#undef KORVALIN_X
}  // namespace detail

// Every operation, in catalogue order (kOperations[i].operation == Operation(i)).
inline constexpr OperationInfo kOperations[] = {
#define KORVALIN_X(module, name, positional, ...) \
  {Operation::name, #module, #name, detail::name##_arguments, positional},
    KORVALIN_OPERATIONS(KORVALIN_X)
#undef KORVALIN_X
};
inline constexpr std::size_t kOperationCount = std::size(kOperations);

constexpr const OperationInfo& info(Operation op) { return kOperations[static_cast<std::size_t>(op)]; }

// Whether an operation only reads (its name begins with get_, list_, count_, check_ or
// download_): repeating it changes nothing, so a client may send it again after a connection
// failed. Every other operation writes and is sent at most once.
constexpr bool is_read(Operation op) {
  const std::string_view name = info(op).name;
  for (const std::string_view prefix : {"get_", "list_", "count_", "check_", "download_"}) {
    if (name.starts_with(prefix)) return true;
  }
  return false;
}

// The operation of a module and name, or nothing.
std::optional<Operation> find_operation(std::string_view module, std::string_view name);

// The arguments of one call, in the catalogue's order: views of the caller's Values, valid for
// the length of the call.
class Args {
 public:
  Args(std::span<const Value* const> values) : values_(values) {}
  std::size_t size() const { return values_.size(); }
  const Value& operator[](std::size_t i) const { return *values_[i]; }

 private:
  std::span<const Value* const> values_;
};

// Calls `f(args[0], args[1], ...)` with as many arguments as f takes (a member function of
// `object` when given one): the dispatch from a catalogue entry to a typed function.
template <class Object, class... A>
Value invoke(Object& object, Value (Object::*f)(A...), const Args& args) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    return (object.*f)(args[I]...);
  }(std::index_sequence_for<A...>{});
}

}  // namespace korvalin_client::com
