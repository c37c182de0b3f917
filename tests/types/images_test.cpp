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
#include "support/temp_dir.hpp"

using korvalin_client::utils::compress_image_to_128;
namespace fs = std::filesystem;

namespace {

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// A PNG signature and header chunk claiming w x h RGB pixels, and nothing more.
std::string png_header(std::uint32_t w, std::uint32_t h) {
  std::string s = "\x89PNG\r\n\x1a\n" + std::string("\0\0\0\x0dIHDR", 8);
  for (std::uint32_t v : {w, h}) {
    for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>(v >> shift);
  }
  return s + std::string("\x08\x02\0\0\0\0\0\0\0", 9);
}

TEST(CompressImage, ReducesToLongerSide128) {
  korvalin_client::testing::TempCacheRoot root;
  struct Case {
    const char* file;
    int w, h, comp, out_w, out_h;
    const char* format;
  };
  for (const Case& c : {Case{"wide.png", 300, 150, 3, 128, 64, "png"},
                        Case{"tall.jpg", 50, 200, 3, 32, 128, "jpg"},
                        Case{"line.bmp", 1000, 1, 3, 128, 1, "bmp"},
                        Case{"tiny.tga", 3, 2, 2, 128, 85, "tga"},
                        Case{"grey.pgm", 256, 16, 1, 128, 8, "png"}}) {
    SCOPED_TRACE(c.file);
    const std::string src = root.path() + "/" + c.file;
    std::vector<std::uint8_t> px(c.w * c.h * c.comp);
    for (std::size_t i = 0; i < px.size(); ++i) px[i] = static_cast<std::uint8_t>(i * 7);
    const std::string ext = fs::path(src).extension();
    if (ext == ".png") stbi_write_png(src.c_str(), c.w, c.h, c.comp, px.data(), c.w * c.comp);
    if (ext == ".jpg") stbi_write_jpg(src.c_str(), c.w, c.h, c.comp, px.data(), 95);
    if (ext == ".bmp") stbi_write_bmp(src.c_str(), c.w, c.h, c.comp, px.data());
    if (ext == ".tga") stbi_write_tga(src.c_str(), c.w, c.h, c.comp, px.data());
    if (ext == ".pgm") write_bytes(src, "P5\n256 16\n255\n" + std::string(px.begin(), px.end()));

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
  for (const char* name : {"notes.png", "missing.png", "cut.png", "huge.png", "wide.png", "."}) {
    const std::string path = dir + "/" + name;
    try {
      compress_image_to_128(path);
      ADD_FAILURE() << "no error for " << name;
    } catch (const korvalin_client::RuntimeError& e) {
      const std::string what = e.what();
      EXPECT_EQ(what.rfind("cannot read image " + path + ": ", 0), 0u) << what;
      if (name == std::string("wide.png")) {
        EXPECT_NE(what.find("too large"), std::string::npos) << what;
      }
    }
  }
  EXPECT_FALSE(fs::exists(root.cache_root() + "/thumbnails"));
}

}  // namespace
