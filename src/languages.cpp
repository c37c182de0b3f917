#include "korvalin_client/languages.hpp"

#include <array>
#include <cstdlib>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::languages {
namespace {

struct Message {
  std::string_view key;
  std::string_view en;
  std::string_view cn;
};

constexpr std::array kMessages{
    Message{"group_not_found_on_cloud",
            "Group {} was not found on the cloud.",
            "云端未找到分组 {}。"},
    Message{"group_space_id_not_set",
            "No space is selected: select one with set_space() first.",
            "未设置空间 ID，请先调用 set_space() 选择空间。"},
    Message{"group_space_name_not_found",
            "Space {} was not found in this group (a hidden space can be selected by id only).",
            "该分组中未找到空间 {}（隐藏的空间只能通过 ID 选择）。"},
    Message{"group_exp_resource_id_not_set",
            "Experiment {} has no single stored definition: its resource id is not set correctly.",
            "实验 {} 的资源 ID 设置不正确，找不到唯一的实验定义。"},
    Message{"exp_res_order_wrong",
            "Results are out of order: the current result object ends at item {}, the next one "
            "should start at {}, but it starts at {}.",
            "结果顺序错误：当前结果对象结束于 {}，下一步应开始于 {}，但传入的结果开始于 {}。"},
};

const Message* find(std::string_view key) {
  for (const auto& m : kMessages)
    if (m.key == key) return &m;
  return nullptr;
}

std::string initial_language() {
  const char* v = std::getenv("KORVALIN_LANG");
  return v && *v ? std::string(v) : std::string("en");
}

}  // namespace

Lang lang{initial_language()};

std::string Lang::msg(std::string_view key) const {
  const Message* m = find(key);
  if (m == nullptr) throw KeyError("no message \"" + std::string(key) + "\" in the message table");
  return std::string(language == "cn" ? m->cn : m->en);
}

bool Lang::has(std::string_view key) { return find(key) != nullptr; }

std::string format(std::string_view text, std::initializer_list<std::string> args) {
  std::string out;
  out.reserve(text.size() + 16 * args.size());
  auto arg = args.begin();
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t hole = text.find("{}", pos);
    if (hole == std::string_view::npos || arg == args.end()) break;
    out.append(text.substr(pos, hole - pos));
    out.append(*arg++);
    pos = hole + 2;
  }
  out.append(text.substr(pos));
  return out;
}

}  // namespace korvalin_client::languages
