// DeviceModel: what the embedded service's simulated device measures.
//
// The executor asks the model for one quantity at one item of an experiment, given the
// device's parameters there (a mapping from full key to value: the space's parameters as of
// the experiment's time, the experiment's own parameters and the item's sweep values laid
// over them). The answer is a number, or [re, im] for a complex value.
//
// The built-in model behaves like a driven qubit read out in IQ:
//  - every numeric key ending in "amp" drives a Rabi oscillation, sin^2(pi/2 * amp / pi_amp),
//    with pi_amp from "<prefix>pi_amp" (default 0.5);
//  - every numeric key ending in "freq" gives a Lorentzian around "<prefix>freq0" when the
//    space holds one, of half-width "<prefix>linewidth" (default 1e-3 * |freq0|, at least 1);
//  - the excited population p1 is the product of those responses (0 when there are none);
//  - "p1" (also "p", "population", "prob") is p1, "I" is 1 - 2 p1, "Q" is 0.2 (2 p1 - 1),
//    "amp" (also "mag", "abs") is |I + iQ|, "phase" its angle, "IQ" (also "S21", "signal")
//    the complex I + iQ; names are matched without regard to case;
//  - any other quantity is a smooth function of the numeric parameters, fixed per name.
// Gaussian noise of standard deviation `noise` (0.01 by default) is added from a generator
// seeded with `noise_seed`, so equal seeds give equal values on every platform.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::service {

class DeviceModel {
 public:
  virtual ~DeviceModel() = default;
  virtual Value measure(const Value& parameters, const std::string& quantity, std::int64_t item_id,
                        std::uint64_t noise_seed) = 0;
};

class BuiltinDeviceModel : public DeviceModel {
 public:
  explicit BuiltinDeviceModel(double noise = 0.01) : noise_(noise) {}
  Value measure(const Value& parameters, const std::string& quantity, std::int64_t item_id,
                std::uint64_t noise_seed) override;

 private:
  double noise_;
};

// The model in use now: the first plug-in serving plugin::kDeviceModel when one is
// registered, else the built-in model.
std::shared_ptr<DeviceModel> active_device_model();

// A reproducible noise seed for one quantity of one item of one experiment.
std::uint64_t noise_seed(std::int64_t sub_process_id, std::int64_t item_id,
                         const std::string& quantity);

}  // namespace korvalin_client::service
