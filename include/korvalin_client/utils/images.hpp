// Image helpers.
#pragma once

#include <string>
#include <utility>

namespace korvalin_client::utils {

// Makes a reduced copy of the image at `img_file` whose longer side is 128 pixels (the
// aspect ratio is kept; the shorter side is at least 1 pixel) and returns (path of the copy,
// format text of the copy). Images in a format that can be written ("png", "jpg", "bmp",
// "tga") are copied in their own format; the others (gif, psd, hdr, pnm, ...) are copied as
// "png". The copy is written atomically into "<cache root>/thumbnails/", named after the
// source's stem and a hash of its absolute path, so the same source always maps to the same
// copy. A file that cannot be read, is not an image, or is larger than 16384 pixels on a side
// or 2^26 pixels in all (at most 256 MiB decoded) is a RuntimeError naming it.
std::pair<std::string, std::string> compress_image_to_128(const std::string& img_file);

}  // namespace korvalin_client::utils
