// Image helpers.
#pragma once

#include <string>
#include <utility>

namespace korvalin_client::utils {

// Makes a reduced copy of the image at `img_file` whose longer side is 128 pixels (the
// aspect ratio is kept; the shorter side is at least 1 pixel) and returns (path of the copy,
// format text). The format text names the image's format ("png", "jpg", "bmp" or "tga"); the
// copy is written in that format, or as "png" for formats that can only be read (gif, psd,
// hdr, pnm, ...). The copy is written atomically into "<cache root>/thumbnails/".
// A file that cannot be read, is not an image, or is larger than 16384 pixels on a side or
// 2^28 pixels in all is a RuntimeError naming it.
std::pair<std::string, std::string> compress_image_to_128(const std::string& img_file);

}  // namespace korvalin_client::utils
