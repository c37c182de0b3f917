#include "korvalin_client/utils/images.hpp"

#include <stb_image.h>
#include <stb_image_resize.h>
#include <stb_image_write.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::utils {
namespace {

namespace fs = std::filesystem;

constexpr int kTargetSide = 128;
// Images beyond these are refused from their header alone, before any pixel is decoded.
constexpr int kMaxSide = 16384;
constexpr std::int64_t kMaxPixels = std::int64_t{1} << 26;  // at most 256 MiB decoded (4 channels)
constexpr int kJpegQuality = 90;
// Keeps "<stem>_128_<hash>.<ext>" well under the usual 255-byte limit of a file name.
constexpr std::size_t kMaxStemBytes = 100;

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
  throw RuntimeError("cannot read image " + path + ": " + reason);
}

bool starts_with(const Bytes& data, std::string_view magic) {
  return data.size() >= magic.size() &&
         std::equal(magic.begin(), magic.end(), data.begin(),
                    [](char m, std::uint8_t b) { return static_cast<std::uint8_t>(m) == b; });
}

std::string lower_extension(const std::string& path) {
  std::string ext = fs::path(path).extension().string();
  for (char& c : ext) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return ext;
}

// The image's format from its first bytes. TGA has no signature, so a file that matches no
// other format counts as TGA only when its name says so.
std::string_view detect_format(const Bytes& data, const std::string& path) {
  using namespace std::string_view_literals;
  if (starts_with(data, "\x89PNG\r\n\x1a\n"sv)) return "png";
  if (starts_with(data, "\xff\xd8\xff"sv)) return "jpg";
  if (starts_with(data, "GIF87a"sv) || starts_with(data, "GIF89a"sv)) return "gif";
  if (starts_with(data, "BM"sv)) return "bmp";
  if (starts_with(data, "8BPS"sv)) return "psd";
  if (starts_with(data, "#?RADIANCE\n"sv) || starts_with(data, "#?RGBE\n"sv)) return "hdr";
  if (starts_with(data, "P5"sv) || starts_with(data, "P6"sv)) return "pnm";
  if (lower_extension(path) == ".tga") return "tga";
  refuse(path, "not an image in a supported format (png, jpg, bmp, gif, tga, psd, hdr, pnm)");
}

bool is_writable(std::string_view format) {
  return format == "png" || format == "jpg" || format == "bmp" || format == "tga";
}

// Reads a regular file whole. Anything else (directories, devices, pipes) is refused first,
// so that a read can neither block nor go on without end.
Bytes read_image_file(const std::string& path) {
  std::error_code ec;
  const fs::file_status st = fs::status(path, ec);
  if (ec) refuse(path, ec.message());
  if (!fs::is_regular_file(st)) refuse(path, "not a regular file");
  const std::uintmax_t size = fs::file_size(path, ec);
  if (ec) refuse(path, ec.message());
  // stb_image takes the length of its input as an int.
  if (size > static_cast<std::uintmax_t>(INT_MAX)) refuse(path, "the file is too large");
  Bytes data;
  try {
    data = read_file(path);
  } catch (const RuntimeError& e) {
    refuse(path, e.what());
  }
  if (data.size() > static_cast<std::size_t>(INT_MAX)) refuse(path, "the file is too large");
  return data;
}

std::string failure_reason() {
  const char* reason = stbi_failure_reason();
  return reason != nullptr ? reason : "unknown decoding error";
}

void check_dimensions(const std::string& path, int w, int h) {
  if (w <= 0 || h <= 0 || w > kMaxSide || h > kMaxSide ||
      static_cast<std::int64_t>(w) * h > kMaxPixels) {
    refuse(path, "the image is too large (" + std::to_string(w) + "x" + std::to_string(h) +
                     " pixels; at most " + std::to_string(kMaxSide) + " on a side and " +
                     std::to_string(kMaxPixels) + " in all)");
  }
}

// 64-bit FNV-1a: short, and the same on every run and machine, so a copy keeps its name.
std::string hash_hex(std::string_view text) {
  std::uint64_t h = 14695981039346656037ULL;
  for (const char c : text) {
    h ^= static_cast<std::uint8_t>(c);
    h *= 1099511628211ULL;
  }
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
  return buf;
}

std::string copy_name(const std::string& img_file, std::string_view format) {
  std::error_code ec;
  fs::path absolute = fs::absolute(img_file, ec);
  if (ec) absolute = img_file;
  std::string stem = fs::path(img_file).stem().string();
  if (stem.size() > kMaxStemBytes) {
    std::size_t n = kMaxStemBytes;
    // Never cut a UTF-8 sequence in half.
    while (n > 0 && (static_cast<std::uint8_t>(stem[n]) & 0xC0) == 0x80) --n;
    stem.resize(n);
  }
  return stem + "_" + std::to_string(kTargetSide) + "_" +
         hash_hex(absolute.lexically_normal().string()) + "." + std::string(format);
}

void append_to_bytes(void* context, void* data, int size) {
  auto* out = static_cast<Bytes*>(context);
  const auto* p = static_cast<const std::uint8_t*>(data);
  out->insert(out->end(), p, p + size);
}

Bytes encode(std::string_view format, int w, int h, int channels, const std::uint8_t* pixels) {
  Bytes out;
  int ok = 0;
  if (format == "jpg") {
    ok = stbi_write_jpg_to_func(append_to_bytes, &out, w, h, channels, pixels, kJpegQuality);
  } else if (format == "bmp") {
    ok = stbi_write_bmp_to_func(append_to_bytes, &out, w, h, channels, pixels);
  } else if (format == "tga") {
    ok = stbi_write_tga_to_func(append_to_bytes, &out, w, h, channels, pixels);
  } else {
    ok = stbi_write_png_to_func(append_to_bytes, &out, w, h, channels, pixels, w * channels);
  }
  if (ok == 0) throw RuntimeError("cannot encode a " + std::string(format) + " image");
  return out;
}

}  // namespace

std::pair<std::string, std::string> compress_image_to_128(const std::string& img_file) {
  const Bytes data = read_image_file(img_file);
  const std::string_view source_format = detect_format(data, img_file);
  const int length = static_cast<int>(data.size());

  int w = 0;
  int h = 0;
  int channels = 0;
  if (stbi_info_from_memory(data.data(), length, &w, &h, &channels) == 0) {
    refuse(img_file, failure_reason());
  }
  check_dimensions(img_file, w, h);

  std::unique_ptr<stbi_uc, void (*)(void*)> pixels(
      stbi_load_from_memory(data.data(), length, &w, &h, &channels, 0), stbi_image_free);
  if (!pixels) refuse(img_file, failure_reason());
  check_dimensions(img_file, w, h);
  if (channels < 1 || channels > 4) {
    refuse(img_file, "unexpected channel count " + std::to_string(channels));
  }

  // The longer side becomes kTargetSide; the shorter is scaled alike, rounded, at least 1.
  const bool wide = w >= h;
  const std::int64_t longer = wide ? w : h;
  const std::int64_t shorter = wide ? h : w;
  const int scaled =
      static_cast<int>(std::max<std::int64_t>(1, (shorter * kTargetSide + longer / 2) / longer));
  const int out_w = wide ? kTargetSide : scaled;
  const int out_h = wide ? scaled : kTargetSide;

  std::vector<std::uint8_t> reduced(static_cast<std::size_t>(out_w) * out_h * channels);
  if (stbir_resize_uint8(pixels.get(), w, h, 0, reduced.data(), out_w, out_h, 0, channels) ==
      0) {
    throw RuntimeError("cannot resize image " + img_file);
  }
  pixels.reset();

  const std::string format(is_writable(source_format) ? source_format : "png");
  const Bytes encoded = encode(format, out_w, out_h, channels, reduced.data());

  const std::string dir = get_cache_dir() + "/thumbnails";
  make_dirs(dir);
  const std::string dest = dir + "/" + copy_name(img_file, format);
  write_file_atomic(dest, encoded);
  return {dest, format};
}

}  // namespace korvalin_client::utils
