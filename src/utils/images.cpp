#include "korvalin_client/utils/images.hpp"

#include <cstdlib>  // for the allocator the decoder is given below

// The decoder is compiled here, private to this file, with only the formats fit images come
// in: the other decoders never see an input, so an input crafted against one of them (a
// Radiance HDR header that keeps the decoder busy for ever, say) is refused by name instead.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#define STBI_ONLY_JPEG
#define STBI_ONLY_BMP
#define STBI_ONLY_GIF
#define STBI_ONLY_TGA
#define STBI_NO_STDIO
#define STBI_NO_LINEAR
// Every block the decoder allocates starts zeroed. A JPEG scan may name a Huffman table that
// no DHT segment defined; the decoder would read that table uninitialised and index with what
// it finds there. A zeroed table decodes every code as symbol 0 instead, which ends the block.
#define STBI_MALLOC(size) std::calloc(1, size)
#define STBI_REALLOC(p, size) std::realloc(p, size)
#define STBI_FREE(p) std::free(p)
#include <stb_image.h>
#include <stb_image_resize.h>
#include <stb_image_write.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_client::utils {
namespace {

namespace fs = std::filesystem;
using namespace std::string_view_literals;

constexpr int kTargetSide = 128;
constexpr int kJpegQuality = 90;
// Keeps "<stem>_128_<hash>.<ext>" well under the usual 255-byte limit of a file name.
constexpr std::size_t kMaxStemBytes = 100;
constexpr const char* kSupported = "fit images must be PNG, JPEG, BMP, GIF or TGA";

// What is wrong with the image itself.
[[noreturn]] void refuse(const std::string& name, const std::string& reason) {
  throw ValueError("cannot read image " + name + ": " + reason);
}

// What kept the file from being read.
[[noreturn]] void refuse_file(const std::string& path, const std::string& reason) {
  throw RuntimeError("cannot read image " + path + ": " + reason);
}

bool starts_with(std::span<const std::uint8_t> data, std::string_view magic) {
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

// The image's format from its first bytes. TGA has no signature, so an image that matches no
// other format counts as TGA only when its name says so. Some formats that are not read are
// recognised, to name them in the refusal.
std::string_view detect_format(std::span<const std::uint8_t> data, const std::string& name) {
  if (starts_with(data, "\x89PNG\r\n\x1a\n"sv)) return "png";
  if (starts_with(data, "\xff\xd8\xff"sv)) return "jpg";
  if (starts_with(data, "GIF87a"sv) || starts_with(data, "GIF89a"sv)) return "gif";
  if (starts_with(data, "BM"sv)) return "bmp";
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 11> kOthers = {{
      {"#?RADIANCE"sv, "a Radiance HDR image"},
      {"#?RGBE"sv, "a Radiance HDR image"},
      {"8BPS"sv, "a Photoshop (PSD) image"},
      {"\x53\x80\xf6\x34"sv, "a Softimage PIC image"},
      {"II*\0"sv, "a TIFF image"},
      {"MM\0*"sv, "a TIFF image"},
      {"RIFF"sv, "a RIFF (WebP) file"},
      {"%PDF"sv, "a PDF document"},
      {"%!PS"sv, "a PostScript document"},
      {"<?xml"sv, "an XML (SVG) document"},
      {"<svg"sv, "an SVG document"},
  }};
  for (const auto& [magic, what] : kOthers) {
    if (starts_with(data, magic)) refuse(name, std::string(what) + "; " + kSupported);
  }
  if (data.size() >= 3 && data[0] == 'P' && data[1] >= '1' && data[1] <= '7' &&
      (data[2] == '\n' || data[2] == '\r' || data[2] == ' ' || data[2] == '\t')) {
    refuse(name, std::string("a PNM (PBM/PGM/PPM) image; ") + kSupported);
  }
  if (lower_extension(name) == ".tga") return "tga";
  refuse(name, std::string("not an image in a format that is read; ") + kSupported);
}

bool is_writable(std::string_view format) {
  return format == "png" || format == "jpg" || format == "bmp" || format == "tga";
}

// Reads a regular file whole. Anything else (directories, devices, pipes) is refused first,
// so that a read can neither block nor go on without end.
Bytes read_image_file(const std::string& path) {
  std::error_code ec;
  const fs::file_status st = fs::status(path, ec);
  if (ec) refuse_file(path, ec.message());
  if (!fs::is_regular_file(st)) refuse_file(path, "not a regular file");
  const std::uintmax_t size = fs::file_size(path, ec);
  if (ec) refuse_file(path, ec.message());
  // stb_image takes the length of its input as an int.
  if (size > static_cast<std::uintmax_t>(INT_MAX)) refuse(path, "the file is too large");
  try {
    return read_file(path);
  } catch (const RuntimeError& e) {
    refuse_file(path, e.what());
  }
}

// stb_image (2.27) does not check that the code counts of a JPEG Huffman table add up to at
// most 256, and writes past the table when they do; such tables are refused here first. The
// decoder reads a table wherever it meets a DHT marker (FF C4): in the segments before the
// frame header, which are walked here as it walks them (so that the payload of an APPn or
// COM segment, which it skips, is skipped), and after that wherever it resynchronises on a
// marker, so from there on every FF C4 is checked. At most one table per input byte (plus a
// margin) is looked at, so that marker upon marker cannot make the check itself slow; no
// real image comes near that.
void check_jpeg_huffman_tables(std::span<const std::uint8_t> data, const std::string& name) {
  // Past the end the decoder reads zeros.
  const auto at = [&](std::size_t p) -> unsigned { return p < data.size() ? data[p] : 0; };
  std::size_t tables_left = data.size() + 65536;
  // `p`: the first byte after FF C4.
  const auto check_segment = [&](std::size_t p) {
    std::int64_t length = static_cast<std::int64_t>(at(p) << 8 | at(p + 1)) - 2;
    p += 2;
    while (length > 0) {
      if (tables_left-- == 0) refuse(name, "a corrupt jpg image (too many Huffman tables)");
      const unsigned q = at(p++);
      if ((q >> 4) > 1 || (q & 15) > 3) return;  // refused by the decoder
      unsigned codes = 0;
      for (int i = 0; i < 16; ++i) codes += at(p++);
      if (codes > 256) {
        refuse(name, "a corrupt jpg image (a Huffman table of " + std::to_string(codes) +
                         " codes; at most 256)");
      }
      p += codes;
      length -= 17 + codes;
    }
  };

  std::size_t p = 2;  // after the start-of-image marker
  while (p < data.size() && data[p] == 0xff) {
    std::size_t m = p;
    while (m < data.size() && data[m] == 0xff) ++m;
    const unsigned marker = at(m);
    if (!((marker >= 0xe0 && marker <= 0xef) || marker == 0xfe)) break;
    const unsigned length = at(m + 1) << 8 | at(m + 2);
    if (length < 2) return;  // refused by the decoder
    p = m + 1 + length;
  }
  for (; p + 1 < data.size(); ++p) {
    const auto* ff =
        static_cast<const std::uint8_t*>(std::memchr(data.data() + p, 0xff, data.size() - p - 1));
    if (ff == nullptr) break;
    p = static_cast<std::size_t>(ff - data.data());
    if (data[p + 1] == 0xc4) check_segment(p + 2);
  }
}

// stb_image makes room for a PNG chunk from its declared length before reading it, so a
// short file declaring a chunk of a gigabyte costs a gigabyte. The chunks are walked here as
// the decoder walks them (one after the other up to IEND), and one that runs past the end of
// the file is refused first.
void check_png_chunks(std::span<const std::uint8_t> data, const std::string& name) {
  std::size_t p = 8;  // after the signature
  while (data.size() - p >= 8) {
    const std::uint32_t length = static_cast<std::uint32_t>(data[p]) << 24 | data[p + 1] << 16 |
                                 data[p + 2] << 8 | data[p + 3];
    if (length > data.size() - p - 8) {
      refuse(name, "a truncated png image (a chunk of " + std::to_string(length) + " bytes where " +
                       std::to_string(data.size() - p - 8) + " remain)");
    }
    if (std::memcmp(data.data() + p + 4, "IEND", 4) == 0) return;
    p += 8 + std::size_t{length} + 4;  // length, type, data, checksum
    if (p > data.size()) return;
  }
}

// The most pixels one byte of the format can stand for, at its most compact, where the
// decoder goes on past the end of the data (with zeros) or allocates for every pixel before
// reading any: a file declaring more pixels than it could hold is truncated or forged, and is
// refused before the decoder spends work and memory on pixels that are not there. 0 for GIF,
// whose decoder stops at the end of its data.
std::int64_t max_pixels_per_byte(std::string_view format, std::span<const std::uint8_t> data) {
  // Every 8x8 block of every component takes at least one bit, and the sparsest sampling
  // factors (4x1 and 1x4) leave 2 blocks per 32x32 pixels. Real encoders need 10 times more.
  if (format == "jpg") return 1024;
  // At least one bit per pixel: the decoder reads no run-length-encoded BMP.
  if (format == "bmp") return 8;
  // A run-length packet is at least 2 bytes for up to 128 pixels; otherwise a byte a pixel.
  if (format == "tga") return data.size() > 2 && (data[2] & 8) != 0 ? 64 : 1;
  // A compressed byte inflates to at most 1032, each of up to 8 one-bit pixels.
  if (format == "png") return 8 * 1032;
  return 0;
}

// Reads the size from the header through the format's own decoder: stbi_info would try every
// decoder in turn and, when all fail, report only "unknown image type".
bool read_header(std::string_view format, std::span<const std::uint8_t> data, int* w, int* h,
                 int* channels) {
  stbi__context context;
  stbi__start_mem(&context, data.data(), static_cast<int>(data.size()));
  if (format == "png") return stbi__png_info(&context, w, h, channels) != 0;
  if (format == "jpg") return stbi__jpeg_info(&context, w, h, channels) != 0;
  if (format == "bmp") return stbi__bmp_info(&context, w, h, channels) != 0;
  if (format == "gif") return stbi__gif_info(&context, w, h, channels) != 0;
  return stbi__tga_info(&context, w, h, channels) != 0;
}

std::string failure_reason() {
  const char* reason = stbi_failure_reason();
  return reason != nullptr ? reason : "unknown decoding error";
}

std::string limits_text() {
  return "at most " + std::to_string(kMaxImageSide) + " pixels on a side and " +
         std::to_string(kMaxImagePixels) + " in all";
}

void check_dimensions(const std::string& name, int w, int h) {
  if (w <= 0 || h <= 0) {
    refuse(name, "the image has no pixels (" + std::to_string(w) + "x" + std::to_string(h) + ")");
  }
  if (w > kMaxImageSide || h > kMaxImageSide ||
      static_cast<std::int64_t>(w) * h > kMaxImagePixels) {
    refuse(name, "the image is too large (" + std::to_string(w) + "x" + std::to_string(h) +
                     " pixels; " + limits_text() + ")");
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

std::pair<Bytes, std::string> compress_image_to_128(std::span<const std::uint8_t> data,
                                                    const std::string& name) {
  if (data.size() > static_cast<std::size_t>(INT_MAX)) refuse(name, "the file is too large");
  const std::string_view source_format = detect_format(data, name);
  const int length = static_cast<int>(data.size());
  const auto corrupt = [&] {
    refuse(name, "a corrupt " + std::string(source_format) + " image (" + failure_reason() + ")");
  };

  if (source_format == "jpg") check_jpeg_huffman_tables(data, name);
  if (source_format == "png") check_png_chunks(data, name);

  // The header alone gives the size, so an image too large is refused before any decoding.
  int w = 0;
  int h = 0;
  int channels = 0;
  if (!read_header(source_format, data, &w, &h, &channels)) {
    // The decoder's own limits (2^24 on a side, 2^30 bytes decoded) are beyond ours.
    if (failure_reason() == "too large") {
      refuse(name,
             "the image is too large (its header declares a size beyond " + limits_text() + ")");
    }
    corrupt();
  }
  check_dimensions(name, w, h);
  const std::int64_t density = max_pixels_per_byte(source_format, data);
  if (density > 0 && static_cast<std::int64_t>(w) * h > density * length) {
    refuse(name, "a truncated " + std::string(source_format) + " image (" + std::to_string(length) +
                     " bytes cannot hold " + std::to_string(w) + "x" + std::to_string(h) +
                     " pixels)");
  }

  std::unique_ptr<stbi_uc, void (*)(void*)> pixels(
      stbi_load_from_memory(data.data(), length, &w, &h, &channels, 0), stbi_image_free);
  if (!pixels) corrupt();
  check_dimensions(name, w, h);
  if (channels < 1 || channels > 4) {
    refuse(name, "unexpected channel count " + std::to_string(channels));
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
  if (stbir_resize_uint8(pixels.get(), w, h, 0, reduced.data(), out_w, out_h, 0, channels) == 0) {
    throw RuntimeError("cannot resize image " + name);
  }
  pixels.reset();

  std::string format(is_writable(source_format) ? source_format : "png");
  return {encode(format, out_w, out_h, channels, reduced.data()), std::move(format)};
}

std::pair<std::string, std::string> compress_image_to_128(const std::string& img_file) {
  const Bytes data = read_image_file(img_file);
  auto [encoded, format] = compress_image_to_128(std::span<const std::uint8_t>(data), img_file);

  const std::string dir = get_cache_dir() + "/thumbnails";
  make_dirs(dir);
  const std::string dest = dir + "/" + copy_name(img_file, format);
  write_file_atomic(dest, encoded);
  return {dest, std::move(format)};
}

}  // namespace korvalin_client::utils
