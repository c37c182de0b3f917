// Writes the fuzz targets' seed corpora: valid inputs made by the library itself.
//   make_fuzz_seeds DIR   writes DIR/result, DIR/msgpack, DIR/experiment and DIR/image
#include <stb_image_write.h>

#include <complex>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"

namespace kc = korvalin_client;
namespace fs = std::filesystem;
using kc::Bytes;
using kc::Value;
using kc::experiment::Column;
using kc::experiment::Experiment;
using kc::experiment::Result;

namespace {

fs::path g_root;

void put(const std::string& target, const std::string& name, const Bytes& data) {
  fs::create_directories(g_root / target);
  std::ofstream(g_root / target / name, std::ios::binary)
      .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

void append(void* context, void* data, int size) {
  auto* out = static_cast<Bytes*>(context);
  out->insert(out->end(), static_cast<std::uint8_t*>(data), static_cast<std::uint8_t*>(data) + size);
}

// A GIF of w x h pixels in 4 colours. The LZW stream starts over after every two pixels, so
// every code is 3 bits wide and no dictionary needs building.
Bytes gif(int w, int h, bool interlaced) {
  Bytes out{'G', 'I', 'F', '8', '9', 'a'};
  const auto le16 = [&](int v) {
    out.push_back(static_cast<std::uint8_t>(v));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
  };
  le16(w);
  le16(h);
  out.insert(out.end(), {0x91, 0, 0});  // a global table of 4 colours
  out.insert(out.end(), {0, 0, 0, 255, 255, 255, 200, 30, 30, 30, 30, 200});
  out.insert(out.end(), {0x21, 0xf9, 4, 1, 0, 0, 2, 0});  // colour 2 is transparent
  out.push_back(',');
  le16(0);
  le16(0);
  le16(w);
  le16(h);
  out.push_back(interlaced ? 0x40 : 0);
  out.push_back(2);  // LZW minimum code size
  Bytes codes;
  std::uint32_t bits = 0;
  int nbits = 0;
  const auto emit = [&](std::uint32_t code) {
    bits |= code << nbits;
    nbits += 3;
    while (nbits >= 8) {
      codes.push_back(static_cast<std::uint8_t>(bits));
      bits >>= 8;
      nbits -= 8;
    }
  };
  for (int i = 0; i < w * h; ++i) {
    if (i % 2 == 0) emit(4);  // clear
    emit(static_cast<std::uint32_t>((i / 3 + i / w) % 4));
  }
  emit(5);  // end of information
  if (nbits > 0) codes.push_back(static_cast<std::uint8_t>(bits));
  for (std::size_t at = 0; at < codes.size(); at += 255) {
    const std::size_t n = std::min<std::size_t>(255, codes.size() - at);
    out.push_back(static_cast<std::uint8_t>(n));
    out.insert(out.end(), codes.begin() + static_cast<std::ptrdiff_t>(at),
               codes.begin() + static_cast<std::ptrdiff_t>(at + n));
  }
  out.push_back(0);
  out.push_back(';');
  return out;
}

void images() {
  struct Shape {
    int w, h, comp;
  };
  for (const Shape s : {Shape{16, 8, 3}, Shape{5, 9, 1}, Shape{12, 12, 4}, Shape{7, 3, 2}}) {
    std::vector<std::uint8_t> px(static_cast<std::size_t>(s.w * s.h * s.comp));
    for (std::size_t i = 0; i < px.size(); ++i) px[i] = static_cast<std::uint8_t>(i * 37 / 5);
    const std::string tag =
        std::to_string(s.w) + "x" + std::to_string(s.h) + "x" + std::to_string(s.comp);
    Bytes out;
    stbi_write_png_to_func(append, &out, s.w, s.h, s.comp, px.data(), s.w * s.comp);
    put("image", tag + ".png", out);
    out.clear();
    stbi_write_jpg_to_func(append, &out, s.w, s.h, s.comp, px.data(), 80);
    put("image", tag + ".jpg", out);
    out.clear();
    stbi_write_bmp_to_func(append, &out, s.w, s.h, s.comp, px.data());
    put("image", tag + ".bmp", out);
    for (int rle : {0, 1}) {
      stbi_write_tga_with_rle = rle;
      out.clear();
      stbi_write_tga_to_func(append, &out, s.w, s.h, s.comp, px.data());
      put("image", tag + (rle ? "-rle" : "") + ".tga", out);
    }
  }
  put("image", "9x5.gif", gif(9, 5, false));
  put("image", "6x11-interlaced.gif", gif(6, 11, true));
}

Result result(std::int64_t start, std::size_t n) {
  std::vector<std::int64_t> shots;
  std::vector<double> amps;
  std::vector<std::complex<double>> iq;
  std::vector<std::string> labels;
  for (std::size_t i = 0; i < n; ++i) {
    shots.push_back(static_cast<std::int64_t>(i) - 2);
    amps.push_back(0.25 * static_cast<double>(i));
    iq.emplace_back(static_cast<double>(i), -0.5);
    labels.push_back(i % 2 ? "q" + std::to_string(i) : "");
  }
  return Result::from_columns(start, {{"shot", Column(std::move(shots))},
                                      {"amp", Column(std::move(amps))},
                                      {"iq", Column(std::move(iq))},
                                      {"label", Column(std::move(labels))}});
}

void results() {
  put("result", "empty.kvres", Result().to_bytes());
  put("result", "one.kvres", result(0, 1).to_bytes());
  Result gaps(false, false);
  gaps.concatenate(result(3, 4)).concatenate(result(10, 2));
  put("result", "gaps.kvres", gaps.to_bytes());
  put("result", "numbers.kvres",
      Result::from_columns(7, {{"x", Column(std::vector<double>{1.5, -2, 1e300})}}).to_bytes());
}

Experiment experiment() {
  Experiment e("Rabi", "amplitude sweep");
  e.sweep("/q0/drive/amp", {0.0, 0.5, 1.0}).sweep("q1/drive/freq", {4.9e9, 5.0e9});
  e.measure_quantities({"I", "Q"});
  e.set_parameter("/q0/drive/len", 40);
  e.repetitions = 2;
  e.template_ = "rabi";
  e.attachment["pulse"] = 12;
  e.options["shots"] = 1024;
  return e;
}

void experiments_and_values() {
  const Bytes rabi = kc::utils::msgpack_dumps(experiment().serialize());
  put("experiment", "rabi.msgpack", rabi);
  put("experiment", "minimal.msgpack",
      kc::utils::msgpack_dumps(Experiment("t", "").measure_quantity("I").serialize()));
  put("msgpack", "experiment.msgpack", rabi);
  Value long_map = Value::object();
  for (int i = 0; i < 20; ++i) long_map["key" + std::to_string(i)] = i * 1000;
  const Value values[] = {
      Value::parse(R"({"name": "q1", "n": -3, "f": 0.5, "list": [null, true, false, 1.5]})"),
      Value::array({Value::binary({1, 2, 3}), Value::binary({4, 5}, 7), "text", -200, 70000,
                    Value::object(), Value::array()}),
      long_map,
  };
  int i = 0;
  for (const Value& v : values) put("msgpack", "value" + std::to_string(i++) + ".msgpack",
                                    kc::utils::msgpack_dumps(v));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  g_root = argv[1];
  images();
  results();
  experiments_and_values();
  return 0;
}
