#include "korvalin_client/service/device_model.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <numbers>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "korvalin_client/plugin/plugin_register.hpp"

namespace korvalin_client::service {
namespace {

std::uint64_t splitmix64(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

std::uint64_t fnv1a(std::string_view text) {
  std::uint64_t h = 0xCBF29CE484222325ULL;
  for (const char c : text) {
    h ^= static_cast<unsigned char>(c);
    h *= 0x100000001B3ULL;
  }
  return h;
}

// A standard normal deviate (Box-Muller) from a seed: the same on every platform, unlike
// std::normal_distribution.
double gaussian(std::uint64_t seed) {
  std::uint64_t state = seed;
  const double u1 = (static_cast<double>(splitmix64(state) >> 11) + 1.0) * 0x1.0p-53;  // (0, 1]
  const double u2 = static_cast<double>(splitmix64(state) >> 11) * 0x1.0p-53;
  return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * std::numbers::pi * u2);
}

bool ends_with(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// The numeric parameters by key, so that the related ones of a drive parameter (pi_amp, freq0,
// linewidth) are found without walking every parameter again.
using Numbers = std::unordered_map<std::string_view, double>;

std::optional<double> number_at(const Numbers& numbers, const std::string& key) {
  const auto it = numbers.find(key);
  if (it == numbers.end()) return std::nullopt;
  return it->second;
}

// The excited population the drive parameters give, and the sum of atan(value) over every
// numeric parameter (the input of the smooth response of other quantities). Linear in the
// number of parameters.
std::pair<double, double> drive_response(const Value& parameters) {
  Numbers numbers;
  numbers.reserve(parameters.size());
  for (const auto& [key, value] : parameters.items()) {
    if (value.is_number()) numbers.emplace(key, value.get<double>());
  }
  double p1 = 1.0;
  bool driven = false;
  double smooth = 0.0;
  for (const auto& [key, value] : parameters.items()) {
    if (!value.is_number()) continue;
    const double x = value.get<double>();
    if (!std::isfinite(x)) continue;
    smooth += std::atan(x);
    if (ends_with(key, "amp") && !ends_with(key, "pi_amp")) {
      const std::string prefix = key.substr(0, key.size() - 3);
      const double pi_amp = number_at(numbers, prefix + "pi_amp").value_or(0.5);
      const double s = std::sin(std::numbers::pi / 2.0 * x / (pi_amp != 0.0 ? pi_amp : 0.5));
      p1 *= s * s;
      driven = true;
    } else if (ends_with(key, "freq")) {
      const std::string prefix = key.substr(0, key.size() - 4);
      const std::optional<double> f0 = number_at(numbers, prefix + "freq0");
      if (!f0) continue;
      double width = number_at(numbers, prefix + "linewidth").value_or(1e-3 * std::abs(*f0));
      width = std::max(std::abs(width), 1.0);
      const double d = (x - *f0) / width;
      p1 *= 1.0 / (1.0 + d * d);
      driven = true;
    }
  }
  return {driven ? p1 : 0.0, smooth};
}

std::string lowered(const std::string& text) {
  std::string out = text;
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

class PluginDeviceModel : public DeviceModel {
 public:
  explicit PluginDeviceModel(std::shared_ptr<plugin::Plugin> plugin) : plugin_(std::move(plugin)) {}
  Value measure(const Value& parameters, const std::string& quantity, std::int64_t item_id,
                std::uint64_t seed) override {
    return plugin_->device_model_measure(parameters, quantity, item_id, seed);
  }

 private:
  std::shared_ptr<plugin::Plugin> plugin_;
};

}  // namespace

Value BuiltinDeviceModel::measure(const Value& parameters, const std::string& quantity,
                                  std::int64_t /*item_id*/, std::uint64_t seed) {
  const auto [p1, smooth] =
      parameters.is_object() ? drive_response(parameters) : std::pair<double, double>{0.0, 0.0};
  const double noise_i = noise_ * gaussian(seed);
  const double noise_q = noise_ * gaussian(seed ^ 0xA5A5A5A5A5A5A5A5ULL);
  const double i = 1.0 - 2.0 * p1 + noise_i;
  const double q = 0.2 * (2.0 * p1 - 1.0) + noise_q;
  const std::string name = lowered(quantity);
  if (name == "p1" || name == "p" || name == "population" || name == "prob") {
    return std::clamp(p1 + noise_i, 0.0, 1.0);
  }
  if (name == "i") return i;
  if (name == "q") return q;
  if (name == "amp" || name == "mag" || name == "abs") return std::hypot(i, q);
  if (name == "phase") return std::atan2(q, i);
  if (name == "iq" || name == "s21" || name == "signal") return Value::array({i, q});
  const double phase = static_cast<double>(fnv1a(name) % 1000) / 1000.0 * 2.0 * std::numbers::pi;
  return 0.5 + 0.5 * std::sin(smooth + phase) + noise_i;
}

std::shared_ptr<DeviceModel> active_device_model() {
  const auto plugins = plugin::get_plugins_by_hook(plugin::kDeviceModel);
  if (!plugins.empty()) return std::make_shared<PluginDeviceModel>(plugins.front());
  return std::make_shared<BuiltinDeviceModel>();
}

std::uint64_t noise_seed(std::int64_t sub_process_id, std::int64_t item_id,
                         const std::string& quantity) {
  std::uint64_t state = static_cast<std::uint64_t>(sub_process_id);
  std::uint64_t seed = splitmix64(state);
  state ^= static_cast<std::uint64_t>(item_id) * 0xD1B54A32D192ED03ULL;
  seed ^= splitmix64(state);
  state ^= fnv1a(quantity);
  return seed ^ splitmix64(state);
}

}  // namespace korvalin_client::service
