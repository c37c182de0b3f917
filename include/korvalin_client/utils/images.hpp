// Image helpers: the reduced copy of a fit image.
//
// Fit images are plots, so only PNG, JPEG, BMP, GIF and TGA are read; the library decodes
// nothing else (no HDR, PSD, PNM, ...). The work of reading one is bounded before any pixel
// is decoded: its header must declare at most kMaxImageSide pixels on a side and
// kMaxImagePixels pixels in all (at most 160 MB decoded at 4 channels of 8 bits), and a PNG,
// JPEG, BMP or TGA file must be long enough to hold the pixels it declares at its format's
// most compact (its decoder would allocate for them, or fill in the missing ones).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::utils {

inline constexpr int kMaxImageSide = 16384;
inline constexpr std::int64_t kMaxImagePixels = 40'000'000;

// Makes a reduced copy of the image at `img_file` whose longer side is 128 pixels (the
// aspect ratio is kept; the shorter side is at least 1 pixel) and returns (path of the copy,
// format text of the copy). PNG, JPEG ("jpg"), BMP and TGA images are copied in their own
// format, GIF images as "png". The copy is written atomically into "<cache root>/thumbnails/",
// named after the source's stem and a hash of its absolute path, so the same source always
// maps to the same copy.
// Errors name the file: a file that cannot be read is a RuntimeError; an image in another
// format, a corrupt one, or one larger than the limits above is a ValueError.
std::pair<std::string, std::string> compress_image_to_128(const std::string& img_file);

// The same for an image held in memory: returns (the encoded copy, its format text). `name`
// stands for the image in messages, and its extension is what makes a TGA image (a format
// with no signature) recognised as one.
std::pair<Bytes, std::string> compress_image_to_128(std::span<const std::uint8_t> data,
                                                    const std::string& name);

}  // namespace korvalin_client::utils
