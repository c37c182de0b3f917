#include "korvalin_client/utils/images.hpp"

#include <gtest/gtest.h>
#include <stb_image.h>
#include <stb_image_write.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/temp_dir.hpp"

using korvalin_client::utils::compress_image_to_128;
namespace fs = std::filesystem;

namespace {

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string le32(std::uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

// A PNG signature and header chunk claiming w x h RGB pixels, and nothing more.
std::string png_header(std::uint32_t w, std::uint32_t h) {
  std::string s = "\x89PNG\r\n\x1a\n" + std::string("\0\0\0\x0dIHDR", 8);
  for (std::uint32_t v : {w, h}) {
    for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>(v >> shift);
  }
  return s + std::string("\x08\x02\0\0\0\0\0\0\0", 9);
}

// The headers of a 24-bit BMP claiming w x h pixels, and no pixels.
std::string bmp_header(std::uint32_t w, std::uint32_t h) {
  return "BM" + le32(54) + le32(0) + le32(54) + le32(40) + le32(w) + le32(h) +
         std::string("\x01\0\x18\0", 4) + std::string(24, '\0');
}

TEST(CompressImage, ReducesToLongerSide128) {
  korvalin_client::testing::TempCacheRoot root;
  struct Case {
    const char* file;
    int w, h, comp, out_w, out_h;
    const char* format;
  };
  for (const Case& c :
       {Case{"wide.png", 300, 150, 3, 128, 64, "png"}, Case{"tall.jpg", 50, 200, 3, 32, 128, "jpg"},
        Case{"line.bmp", 1000, 1, 3, 128, 1, "bmp"}, Case{"tiny.tga", 3, 2, 2, 128, 85, "tga"},
        Case{"dot.gif", 1, 1, 4, 128, 128, "png"}}) {
    SCOPED_TRACE(c.file);
    const std::string src = root.path() + "/" + c.file;
    std::vector<std::uint8_t> px(c.w * c.h * c.comp);
    for (std::size_t i = 0; i < px.size(); ++i) px[i] = static_cast<std::uint8_t>(i * 7);
    const std::string ext = fs::path(src).extension();
    if (ext == ".png") stbi_write_png(src.c_str(), c.w, c.h, c.comp, px.data(), c.w * c.comp);
    if (ext == ".jpg") stbi_write_jpg(src.c_str(), c.w, c.h, c.comp, px.data(), 95);
    if (ext == ".bmp") stbi_write_bmp(src.c_str(), c.w, c.h, c.comp, px.data());
    if (ext == ".tga") stbi_write_tga(src.c_str(), c.w, c.h, c.comp, px.data());
    if (ext == ".gif") {
      write_bytes(
          src,
          std::string("GIF89a\1\0\1\0\x80\0\0\xff\xff\xff\0\0\0,\0\0\0\0\1\0\1\0\0\2\2D\1\0;", 35));
    }

    const auto [copy, format] = compress_image_to_128(src);
    EXPECT_EQ(format, c.format);
    const std::string prefix = root.cache_root() + "/thumbnails/" + fs::path(src).stem().string();
    EXPECT_EQ(copy.rfind(prefix + "_128_", 0), 0u) << copy;
    EXPECT_EQ(fs::path(copy).extension(), "." + format);
    int w = 0, h = 0, comp = 0;
    ASSERT_EQ(stbi_info(copy.c_str(), &w, &h, &comp), 1);
    EXPECT_EQ(w, c.out_w);
    EXPECT_EQ(h, c.out_h);
    EXPECT_EQ(comp, c.comp);
    EXPECT_EQ(compress_image_to_128(src).first, copy);  // a second call rewrites the copy
    // The copy made in memory is the same.
    const auto data = korvalin_client::utils::read_file(src);
    EXPECT_EQ(compress_image_to_128(data, c.file),
              std::make_pair(korvalin_client::utils::read_file(copy), format));
  }
}

TEST(CompressImage, RefusesWhatIsNotAUsableImage) {
  korvalin_client::testing::TempCacheRoot root;
  const std::string dir = root.path();
  std::vector<std::uint8_t> px(64 * 64 * 3, 0x55);
  stbi_write_png((dir + "/good.png").c_str(), 64, 64, 3, px.data(), 64 * 3);
  const auto png_size = fs::file_size(dir + "/good.png");
  fs::copy_file(dir + "/good.png", dir + "/cut.png");
  fs::resize_file(dir + "/cut.png", png_size / 2);
  write_bytes(dir + "/notes.png", "just some text\n");
  write_bytes(dir + "/huge.png", png_header(100000, 100000));
  write_bytes(dir + "/wide.png", png_header(16385, 1));
  write_bytes(dir + "/many.png", png_header(8000, 8000));  // 64 Mpixel
  write_bytes(dir + "/tall.bmp", bmp_header(10, 20000));
  // A Radiance header that would keep a decoder busy for ever: refused by its format.
  write_bytes(dir + "/sky.hdr", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 16000 +X 16000\n" +
                                    std::string(180, '\x02'));
  write_bytes(dir + "/grey.tga", "P5\n2 2\n255\n" + std::string(4, '\x80'));
  // 4000x4000 uncompressed grey pixels declared, none present.
  write_bytes(dir + "/short.tga",
              std::string("\0\0\3\0\0\0\0\0\0\0\0\0\xa0\x0f\xa0\x0f\x08\0", 18));
  // A Huffman table of 16 x 32 codes: the decoder would write past the 256 it has room for.
  write_bytes(dir + "/codes.jpg", std::string("\xff\xd8\xff\xc4\x02\x11\0", 7) +
                                      std::string(16, '\x20') + std::string(512, '\x01'));
  struct Case {
    const char* name;
    const char* says;
    bool value_error;
  };
  for (const Case& c :
       {Case{"notes.png", "PNG, JPEG, BMP, GIF or TGA", true},
        Case{"cut.png", "a truncated png image (a chunk of", true},
        Case{"huge.png", "too large (its header declares", true},
        Case{"wide.png", "too large", true}, Case{"many.png", "too large", true},
        Case{"tall.bmp", "too large (10x20000 pixels", true},
        Case{"sky.hdr", "a Radiance HDR image", true},
        Case{"grey.tga", "a PNM (PBM/PGM/PPM) image", true},
        Case{"codes.jpg", "Huffman table of 512 codes", true},
        Case{"short.tga", "a truncated tga image (18 bytes cannot hold 4000x4000", true},
        Case{"missing.png", "", false}, Case{".", "not a regular file", false}}) {
    const std::string path = dir + "/" + c.name;
    try {
      compress_image_to_128(path);
      ADD_FAILURE() << "no error for " << c.name;
    } catch (const korvalin_client::Error& e) {
      const std::string what = e.what();
      EXPECT_EQ(what.rfind("cannot read image " + path + ": ", 0), 0u) << what;
      EXPECT_NE(what.find(c.says), std::string::npos) << what;
      EXPECT_EQ(dynamic_cast<const korvalin_client::ValueError*>(&e) != nullptr, c.value_error)
          << what;
    }
  }
  EXPECT_FALSE(fs::exists(root.cache_root() + "/thumbnails"));
}

}  // namespace
